// Feeds arbitrary text through the UAF request reader: JSON parsing, the version walk and the
// request checks of all three request kinds, and the mapping of every request-side message class
// with a round trip (a message that maps serialises to JSON that maps back to an equal message).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "client/messages/authentication.h"
#include "client/messages/deregistration.h"
#include "client/messages/fc_params.h"
#include "client/messages/policy.h"
#include "client/messages/registration.h"
#include "client/messages/required_fields.h"
#include "client/messages/transaction.h"
#include "client/messages/uaf_message_array.h"
#include "foundation/utils.h"
#include "json/json_model.h"
#include "json/json_text.h"

namespace {

using corvane::Error;
using nlohmann::json;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

template <class Model>
void roundTrip(const json& value) {
  Error error;
  std::optional<Model> model = Model::fromJson(value, &error);
  if (!model) {
    check(error.domain() == corvane::kJSONModelErrorDomain && error.message().has_value() &&
          !error.message()->empty());
    return;
  }
  const std::string text = model->toJsonString();
  Error againError;
  std::optional<Model> again = corvane::jsonmodel::fromJsonText<Model>(text, &againError);
  if (corvane::jsonmodel::missingRequiredProperty(*model)) {
    // A required value coerced to absent is left out, so the text no longer maps.
    check(!again &&
          againError.code() ==
              static_cast<int64_t>(corvane::jsonmodel::JSONModelErrorCode::kRequiredKeyMissing));
    return;
  }
  check(again.has_value());
  check(*again == *model);
  check(again->toJsonString() == text);
}

void mapEverything(const json& value) {
  roundTrip<corvane::RegistrationRequest>(value);
  roundTrip<corvane::AuthenticationRequest>(value);
  roundTrip<corvane::DeregistrationRequest>(value);
  roundTrip<corvane::Transaction>(value);
  roundTrip<corvane::MatchCriteria>(value);
  roundTrip<corvane::Policy>(value);
  roundTrip<corvane::OperationHeader>(value);
}

// Match criteria and transactions inside a message are mapped on their own as well.
void mapNested(const json& message) {
  if (!message.is_object()) return;
  auto policy = message.find("policy");
  if (policy != message.end() && policy->is_object()) {
    auto accepted = policy->find("accepted");
    if (accepted != policy->end() && accepted->is_array()) {
      for (const json& conjunction : *accepted) {
        if (!conjunction.is_array()) continue;
        for (const json& criteria : conjunction) roundTrip<corvane::MatchCriteria>(criteria);
      }
    }
    auto disallowed = policy->find("disallowed");
    if (disallowed != policy->end() && disallowed->is_array()) {
      for (const json& criteria : *disallowed) roundTrip<corvane::MatchCriteria>(criteria);
    }
  }
  auto transactions = message.find("transaction");
  if (transactions != message.end() && transactions->is_array()) {
    for (const json& transaction : *transactions) roundTrip<corvane::Transaction>(transaction);
  }
}

bool allowedCheckCode(int64_t code) {
  return code == 60000 || code == 10000 || code == 50001;
}

void checkFcParams(const std::optional<std::string>& appID, const std::string& challenge) {
  const std::string facetID = "ios:bundle-id:com.example.fuzz";
  std::string fcParams = corvane::buildFcParams(appID, challenge, facetID);
  std::optional<corvane::Bytes> decoded = corvane::Utils::decodeBase64Url(fcParams);
  check(decoded.has_value());
  std::optional<json> params = corvane::jsonmodel::parseJson(corvane::asText(*decoded), nullptr);
  check(params.has_value() && params->is_object() && params->size() == 4);
  check((*params)["challenge"] == challenge);
  check((*params)["appID"] == corvane::applicationIdFor(appID, facetID));
}

template <class Request, class CheckFn>
void walk(const json& messages, CheckFn&& checkRequest) {
  Error error;
  auto choice = corvane::chooseUafMessage<Request>(messages, &error);
  if (!choice) {
    check(error.code() == 60001 && error.domain() == corvane::kCorvaneErrorDomain);
    return;
  }
  if (choice->message) roundTrip<Request>(json(choice->message->toJson()));
  Error checkError;
  if (!checkRequest(choice->message, &checkError)) {
    check(allowedCheckCode(checkError.code()));
    if (checkError.code() == 60000) {
      check(checkError.localizedDescription().starts_with("Missing Required Fields: ") &&
            checkError.localizedDescription().ends_with(" "));
    }
    return;
  }
  // A message that passes its check is complete enough to build fcParams.
  check(choice->message && choice->message->header && choice->message->header->upv &&
        corvane::Version::checkVersion(*choice->message->header->upv));
  if constexpr (requires { choice->message->challenge; }) {
    check(choice->message->challenge && !choice->message->challenge->empty());
    checkFcParams(choice->message->header->appID, *choice->message->challenge);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  Error error;
  std::optional<json> messages = corvane::parseUafRequestText(text, &error);
  if (!messages) {
    check(error.code() == 60001 && error.localizedDescription().size() <= 256);
    return 0;
  }

  corvane::RequestCheckContext context;
  context.policy.checkMatchCriteriaValid = [](const json& criteria) {
    return corvane::MatchCriteria::fromJson(criteria).has_value();
  };
  context.policy.deviceModelName = "iPhone14,2";
  context.extsData = {{"register_limit", "5"}};

  walk<corvane::RegistrationRequest>(*messages, [&](const auto& message, Error* e) {
    return corvane::checkRegistrationRequest(message, "pattern", context, e).has_value();
  });
  walk<corvane::AuthenticationRequest>(*messages, [&](const auto& message, Error* e) {
    return corvane::checkAuthenticationRequest(message, context, e).has_value();
  });
  walk<corvane::DeregistrationRequest>(*messages, [&](const auto& message, Error* e) {
    return corvane::checkDeregistrationRequest(message, e);
  });

  mapEverything(*messages);
  if (messages->is_array()) {
    for (const json& element : *messages) {
      mapEverything(element);
      mapNested(element);
    }
  }
  return 0;
}
