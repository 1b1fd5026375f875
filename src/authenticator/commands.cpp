#include "authenticator/commands.h"

namespace corvane {

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
