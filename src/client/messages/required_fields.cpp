#include "client/messages/required_fields.h"

#include <algorithm>

#include "corvane/status_codes.h"
#include "foundation/utils.h"
#include "json/json_text.h"

namespace corvane {

namespace {

Error corvaneError(CorvaneStatusCode status, std::string_view text) {
  return Error::corvane(code(status), std::string(text));
}

bool criteriaValid(const nlohmann::json& element, const PolicyCheckContext& context) {
  return element.is_object() && context.checkMatchCriteriaValid &&
         context.checkMatchCriteriaValid(element);
}

// Forwards the extensions a valid criteria object names: "match_model" with the device model as
// its data, other supported ids with their own data; unsupported ids are skipped.
void collectCriteriaExtensions(const nlohmann::json& criteria, const PolicyCheckContext& context,
                               OutgoingExtensions& outgoing) {
  auto exts = criteria.find("exts");
  if (exts == criteria.end() || !exts->is_array()) return;
  for (const nlohmann::json& element : *exts) {
    if (!element.is_object()) continue;
    auto id = element.find("id");
    if (id == element.end() || !id->is_string()) continue;
    Extension extension;
    extension.extID = *id->get_ptr<const std::string*>();
    auto failIfUnknown = element.find("fail_if_unknown");
    extension.failIfUnknown =
        failIfUnknown != element.end() && jsonmodel::truthValue(*failIfUnknown);
    if (*extension.extID == kExtensionMatchModel) {
      extension.data = context.deviceModelName;
    } else if (Extension::checkValidExtensionId(*extension.extID)) {
      auto data = element.find("data");
      if (data != element.end() && data->is_string()) {
        extension.data = *data->get_ptr<const std::string*>();
      }
    } else {
      continue;
    }
    outgoing.addOnce(std::move(extension));
  }
}

bool checkVersionOf(const std::optional<OperationHeader>& header, Error* error) {
  if (header && header->upv && Version::checkVersion(*header->upv)) return true;
  setError(error, corvaneError(CorvaneStatusCode::UNSUPPORTED_VERSION, kVersionErrorText));
  return false;
}

// Header extensions that passed the report go out after those the policy named; the host's
// data replaces that of "register_limit".
void forwardHeaderExtensions(const std::vector<Extension>& supported, const ExtsData& extsData,
                             OutgoingExtensions& outgoing) {
  for (const Extension& extension : supported) {
    if (extension.extID == kExtensionRegisterLimit) {
      outgoing.add(Extension::getExtsDataById(extension, extsData));
    } else {
      outgoing.add(extension);
    }
  }
}

}  // namespace

Error RequiredFieldReport::error() const {
  return corvaneError(CorvaneStatusCode::MISS_REQUIRED_FIELD, description());
}

void checkAppID(const OperationHeader& header, RequiredFieldReport& report) {
  if (header.appID && utf16Length(*header.appID) > kMaxAppIDLength) report.add(fieldlabel::kAppID);
}

void checkServerData(const OperationHeader& header, RequiredFieldReport& report) {
  if (header.serverData &&
      (header.serverData->empty() || utf16Length(*header.serverData) > kMaxServerDataLength)) {
    report.add(fieldlabel::kServerData);
  }
}

void checkUpv(const OperationHeader& header, RequiredFieldReport& report) {
  if (!header.upv || !header.upv->major || !header.upv->minor) report.add(fieldlabel::kUpv);
}

void checkOp(const OperationHeader& header, std::string_view operation,
             RequiredFieldReport& report) {
  if (!header.op || header.op->empty() || *header.op != operation) report.add(fieldlabel::kOp);
}

void checkHeader(const std::optional<OperationHeader>& header, std::string_view operation,
                 RequiredFieldReport& report) {
  if (!header) {
    report.add(fieldlabel::kUpv);
    report.add(fieldlabel::kOp);
    return;
  }
  checkAppID(*header, report);
  checkServerData(*header, report);
  checkUpv(*header, report);
  checkOp(*header, operation, report);
}

void checkChallenge(const std::optional<std::string>& challenge, RequiredFieldReport& report) {
  if (!challenge || challenge->empty()) report.add(fieldlabel::kChallenge);
}

void checkUsername(const std::optional<std::string>& username, RequiredFieldReport& report) {
  if (!username || username->empty()) report.add(fieldlabel::kUsername);
}

bool checkHeaderExtensions(const std::optional<OperationHeader>& header, FailIfUnknownRule rule,
                           RequiredFieldReport& report, std::vector<Extension>* supported,
                           Error* error) {
  if (!header || !header->exts) return true;
  for (const Extension& extension : *header->exts) {
    if (!extension.extID || extension.extID->empty() ||
        utf16Length(*extension.extID) > kMaxExtensionIdLength) {
      report.add(fieldlabel::kExtsId);
    } else if (!extension.data) {
      report.add(fieldlabel::kExtsData);
    }
    const bool isSupported = extension.extID && Extension::checkValidExtensionId(*extension.extID);
    if (extension.failIfUnknown.value_or(false)) {
      if (rule == FailIfUnknownRule::kAlways) {
        setError(error, corvaneError(CorvaneStatusCode::UNKNOWN, kFailIfUnknownSetText));
        return false;
      }
      if (!isSupported) {
        setError(error, corvaneError(CorvaneStatusCode::UNKNOWN, kUnknownExtensionText));
        return false;
      }
    }
    if (isSupported && supported != nullptr) supported->push_back(extension);
  }
  return true;
}

void OutgoingExtensions::addOnce(Extension extension) {
  const std::string id = extension.extID.value_or(std::string());
  if (std::find(addedIds_.begin(), addedIds_.end(), id) != addedIds_.end()) return;
  addedIds_.push_back(id);
  list_.push_back(std::move(extension));
}

void checkPolicyLists(const std::optional<Policy>& policy, const PolicyCheckContext& context,
                      RequiredFieldReport& report, OutgoingExtensions& outgoing) {
  if (policy && policy->disallowed) {
    const nlohmann::json& disallowed = *policy->disallowed;
    if (!disallowed.is_array()) {
      report.add(fieldlabel::kDisallowed);
    } else {
      for (const nlohmann::json& criteria : disallowed) {
        if (criteriaValid(criteria, context)) {
          collectCriteriaExtensions(criteria, context, outgoing);
        } else {
          report.add(fieldlabel::kDisallowed);
        }
      }
    }
  }
  if (!policy || !policy->accepted || !policy->accepted->is_array()) {
    report.add(fieldlabel::kAccepted);
    return;
  }
  for (const nlohmann::json& conjunction : *policy->accepted) {
    if (!conjunction.is_array()) {
      report.add(fieldlabel::kAccepted);
      continue;
    }
    for (const nlohmann::json& criteria : conjunction) {
      if (criteriaValid(criteria, context)) {
        collectCriteriaExtensions(criteria, context, outgoing);
      } else {
        report.add(fieldlabel::kAccepted);
      }
    }
  }
}

// The common end of the registration and authentication checks: header extensions, then the
// collected report, then the version.
std::optional<std::vector<Extension>> finishRequestCheck(
    const std::optional<OperationHeader>& header, const RequestCheckContext& context,
    RequiredFieldReport& report, OutgoingExtensions& outgoing, Error* error) {
  std::vector<Extension> supported;
  if (!checkHeaderExtensions(header, FailIfUnknownRule::kUnsupportedOnly, report, &supported,
                             error)) {
    return std::nullopt;
  }
  if (!report.empty()) {
    setError(error, report.error());
    return std::nullopt;
  }
  forwardHeaderExtensions(supported, context.extsData, outgoing);
  if (!checkVersionOf(header, error)) return std::nullopt;
  return outgoing.list();
}

std::optional<std::vector<Extension>> checkRegistrationRequest(
    const std::optional<RegistrationRequest>& message,
    std::optional<std::string_view> userVerification, const RequestCheckContext& context,
    Error* error) {
  RequiredFieldReport report;
  if (!userVerification || userVerification->empty()) report.add(fieldlabel::kUserVerification);
  if (!message) {
    report.add(fieldlabel::kRegistrationRequest);
    setError(error, report.error());
    return std::nullopt;
  }
  OutgoingExtensions outgoing;
  checkPolicyLists(message->policy, context.policy, report, outgoing);
  checkHeader(message->header, kOpReg, report);
  checkChallenge(message->challenge, report);
  checkUsername(message->username, report);
  return finishRequestCheck(message->header, context, report, outgoing, error);
}

std::optional<std::vector<Extension>> checkAuthenticationRequest(
    const std::optional<AuthenticationRequest>& message, const RequestCheckContext& context,
    Error* error) {
  RequiredFieldReport report;
  if (!message) {
    report.add(fieldlabel::kAuthenticationRequest);
    setError(error, report.error());
    return std::nullopt;
  }
  OutgoingExtensions outgoing;
  checkPolicyLists(message->policy, context.policy, report, outgoing);
  checkHeader(message->header, kOpAuth, report);
  checkChallenge(message->challenge, report);
  if (message->transaction &&
      !std::all_of(message->transaction->begin(), message->transaction->end(),
                   [](const Transaction& t) { return Transaction::checkTransaction(t); })) {
    report.add(fieldlabel::kTransaction);
  }
  return finishRequestCheck(message->header, context, report, outgoing, error);
}

bool checkDeregistrationRequest(const std::optional<DeregistrationRequest>& message, Error* error) {
  // Without a message the report goes on as for an empty one: no header ("upv ", "op ") and no
  // authenticators.
  RequiredFieldReport report;
  if (!message) report.add(fieldlabel::kDeregistrationRequest);
  const std::optional<OperationHeader> noHeader;
  const std::optional<OperationHeader>& header = message ? message->header : noHeader;
  checkHeader(header, kOpDereg, report);
  const std::vector<DeregisterAuthenticator>* authenticators =
      message && message->authenticators ? &*message->authenticators : nullptr;
  if (authenticators == nullptr || authenticators->empty()) {
    report.add(fieldlabel::kAuthenticators);
  }
  if (authenticators != nullptr) {
    for (const DeregisterAuthenticator& entry : *authenticators) {
      if (!DeregisterAuthenticator::checkDeregisterAuthenticator(entry)) {
        report.add(fieldlabel::kAuthenticators);
      }
    }
  }
  if (!checkHeaderExtensions(header, FailIfUnknownRule::kAlways, report, nullptr, error)) {
    return false;
  }
  if (!report.empty()) {
    setError(error, report.error());
    return false;
  }
  return checkVersionOf(message->header, error);
}

}  // namespace corvane
