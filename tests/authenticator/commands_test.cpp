#include "authenticator/commands.h"

#include <gtest/gtest.h>

#include "foundation/utils.h"

namespace corvane {
namespace {

std::string b64(std::string_view text) {
  return Utils::base64URLSafeStringFromData(asBytes(text));
}

Transaction tx(std::optional<std::string> type, std::optional<std::string> content) {
  return Transaction{std::move(type), std::move(content), std::nullopt};
}

TEST(CommandsTest, DisplayableTransactionsFiltersAndDecodes) {
  const std::pair<std::vector<Transaction>, std::vector<std::string>> cases[] = {
      {{tx("image/png", b64("\x89PNG"))}, {}},
      {{tx("text/plain", b64("first")), tx("image/png", b64("i")), tx("text/plain", b64("2"))},
       {"first", "2"}},
      {{tx("Text/Plain", b64("a")), tx("text/plain;charset=utf-8", b64("c")),
        tx(std::nullopt, b64("e"))},
       {}},
      {{tx("text/plain", std::nullopt), tx("text/plain", "")}, {""}},
      {{tx("text/plain", "QUJDR"), tx("text/plain", b64("\xC3\x28")),
        tx("text/plain", b64("\xC0\xAF")), tx("text/plain", b64("\xED\xA0\x80")),
        tx("text/plain", b64("\xF4\x8F\xBF\xBF"))},
       {"\xF4\x8F\xBF\xBF"}},
  };
  for (const auto& [input, expected] : cases) {
    std::vector<std::string> shown;
    for (const Transaction& t : SignCommand::displayableTransactions(input)) {
      EXPECT_EQ(t.contentType, "text/plain");
      shown.push_back(t.content.value_or("<absent>"));
    }
    EXPECT_EQ(shown, expected);
  }
}

}  // namespace
}  // namespace corvane
