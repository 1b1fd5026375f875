#include "client/messages/transaction.h"

#include "foundation/utils.h"

namespace corvane {

using jsonmodel::Mistyped;
using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<Transaction>> Transaction::properties() {
  static constexpr jsonmodel::Property<Transaction> kTable[] = {
      property<&Transaction::contentType>("contentType", Presence::kRequired, Mistyped::kCoerce),
      property<&Transaction::content>("content", Presence::kRequired, Mistyped::kCoerce),
      property<&Transaction::tcDisplayPNGCharacteristics>("tcDisplayPNGCharacteristics",
                                                          Presence::kOptional),
  };
  return kTable;
}

std::optional<Transaction> Transaction::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<Transaction>(json, error);
}
nlohmann::json Transaction::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string Transaction::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

nlohmann::json Transaction::toDictionary() const {
  nlohmann::json dictionary = nlohmann::json::object();
  if (contentType) dictionary["contentType"] = *contentType;
  if (content) dictionary["content"] = *content;
  return dictionary;
}

bool Transaction::checkTransaction(const Transaction& transaction) {
  if (!transaction.contentType || *transaction.contentType != kTransactionContentTypeText) {
    return false;
  }
  if (!transaction.content || transaction.content->empty()) return false;
  if (utf16Length(*transaction.content) >= kTransactionContentLimit) return false;
  return Utils::isBase64urlString(*transaction.content);
}

}  // namespace corvane
