// SignCommand::displayableTransactions: which transactions reach the confirmation screen and
// what text they carry.
#include "authenticator/commands.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/utils.h"
#include "json/json_text.h"

namespace corvane {
namespace {

std::string b64(std::string_view text) {
  return Utils::base64URLSafeStringFromData(asBytes(text));
}

Transaction tx(std::optional<std::string> type, std::optional<std::string> content) {
  return Transaction{std::move(type), std::move(content), std::nullopt};
}

std::vector<std::string> contents(const std::vector<Transaction>& list) {
  std::vector<std::string> out;
  for (const Transaction& t : list) out.push_back(t.content.value_or("<absent>"));
  return out;
}

TEST(CommandsTest, DisplayableTransactionsFiltersAndDecodes) {
  const std::string png = b64("\x89PNG");
  struct Case {
    const char* name;
    std::vector<Transaction> input;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"none", {}, {}},
      {"only image/png", {tx("image/png", png)}, {}},
      {"one text", {tx("text/plain", b64("Pay 10 EUR"))}, {"Pay 10 EUR"}},
      {"order kept, image dropped",
       {tx("text/plain", b64("first")), tx("image/png", png), tx("text/plain", b64("second"))},
       {"first", "second"}},
      {"content type is exact",
       {tx("Text/Plain", b64("a")), tx("text/plain ", b64("b")),
        tx("text/plain;charset=utf-8", b64("c")), tx("", b64("d")), tx(std::nullopt, b64("e"))},
       {}},
      {"absent content dropped", {tx("text/plain", std::nullopt)}, {}},
      {"empty content is empty text", {tx("text/plain", "")}, {""}},
      {"multi-byte text", {tx("text/plain", b64("Grüße € 𝄞"))}, {"Grüße € 𝄞"}},
      {"not decodable: one symbol over", {tx("text/plain", "QUJDR")}, {}},
      {"not decodable: junk symbol", {tx("text/plain", "SGVs*G8")}, {}},
      {"undecodable dropped, neighbours kept",
       {tx("text/plain", b64("x")), tx("text/plain", "A"), tx("text/plain", b64("y"))},
       {"x", "y"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Transaction> displayable = SignCommand::displayableTransactions(c.input);
    EXPECT_EQ(contents(displayable), c.expected);
    for (const Transaction& t : displayable) EXPECT_EQ(t.contentType, "text/plain");
  }
}

// The shown copy keeps every other field; the input is left as it was.
TEST(CommandsTest, DisplayableTransactionsAreCopies) {
  const std::vector png{DisplayPNGCharacteristicsDescriptor{100, 35, 8, 6, 0, 0, 0, std::nullopt}};
  const std::vector<Transaction> original = {{"image/png", b64("img"), png},
                                             {"text/plain", b64("confirm"), png}};
  EXPECT_EQ(SignCommand::displayableTransactions(original),
            (std::vector<Transaction>{{"text/plain", "confirm", png}}));
  EXPECT_EQ(original[1].content, b64("confirm"));
}

// The JSON parser's own UTF-8 check is the reference: ASCII bytes go in as \u escapes, the
// others raw.
bool referenceUtf8(std::string_view bytes) {
  std::string text = "\"";
  for (char ch : bytes) {
    const auto b = static_cast<unsigned char>(ch);
    if (b < 0x80) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\u%04x", b);
      text += escape;
    } else {
      text += ch;
    }
  }
  text += '"';
  return jsonmodel::parseJson(text, nullptr).has_value();
}

// A text is shown byte for byte when it is UTF-8 and dropped otherwise. First the boundaries: the
// smallest and largest code point of each sequence length, U+D7FF and U+E000 either side of the
// surrogates, U+10FFFF; then stray and truncated sequences, overlong forms ("/", U+007F, U+07FF,
// U+FFFF), surrogates U+D800 and U+DFFF, U+110000 and bad leads. Then every cut and every bit
// flip of a mixed text, against the reference.
TEST(CommandsTest, DisplayableTransactionsRequireUtf8) {
  auto check = [](const std::string& bytes, bool valid) {
    const auto shown =
        contents(SignCommand::displayableTransactions({tx("text/plain", b64(bytes))}));
    EXPECT_EQ(shown, valid ? std::vector{bytes} : std::vector<std::string>{})
        << hexadecimalString(asBytes(bytes));
  };
  for (const char* bytes :
       {"\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
        "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    check(bytes, true);
  }
  for (const char* bytes :
       {"\x80", "\xBF", "\xC3\x28", "\xE2\x82", "ok\xE2\x82", "\xF0\x9F\x98", "\xC0\xAF",
        "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
        "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
    check(bytes, false);
  }
  const std::string text = "Ü€𝄞a\xC3\xA9";
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    check(text.substr(0, cut), referenceUtf8(text.substr(0, cut)));
  }
  for (size_t bit = 0; bit < text.size() * 8; ++bit) {
    std::string flipped = text;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << (bit % 8)));
    check(flipped, referenceUtf8(flipped));
  }
}

}  // namespace
}  // namespace corvane
