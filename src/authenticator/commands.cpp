#include "authenticator/commands.h"

namespace corvane {

namespace {

// True when `text` is well-formed UTF-8: no stray continuation bytes, no truncated sequences, no
// overlong forms, no UTF-16 surrogates and nothing above U+10FFFF.
bool isValidUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<uint8_t>(text[i]);
    size_t length = 0;
    uint8_t low = 0x80;  // allowed range of the second byte
    uint8_t high = 0xBF;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;   // overlong below U+0800
      if (lead == 0xED) high = 0x9F;  // surrogates U+D800..U+DFFF
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;   // overlong below U+10000
      if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
      return false;  // continuation byte, overlong two-byte lead, or 0xF5..0xFF
    }
    if (text.size() - i < length) return false;
    const auto second = static_cast<uint8_t>(text[i + 1]);
    if (second < low || second > high) return false;
    for (size_t k = 2; k < length; ++k) {
      const auto next = static_cast<uint8_t>(text[i + k]);
      if (next < 0x80 || next > 0xBF) return false;
    }
    i += length;
  }
  return true;
}

}  // namespace

std::vector<Transaction> SignCommand::displayableTransactions(
    const std::vector<Transaction>& transactions) {
  std::vector<Transaction> displayable;
  for (const Transaction& transaction : transactions) {
    if (transaction.contentType != kTransactionContentTypeText || !transaction.content) continue;
    // A content that does not decode to UTF-8 text has nothing the user could read: it is left
    // out rather than shown as raw base64url or as mangled characters.
    std::optional<Bytes> decoded = Utils::decodeBase64Url(*transaction.content);
    if (!decoded) continue;
    std::string text(asText(*decoded));
    if (!isValidUtf8(text)) continue;
    Transaction copy = transaction;
    copy.content = std::move(text);
    displayable.push_back(std::move(copy));
  }
  return displayable;
}

}  // namespace corvane
