// Discovery and the supported-authenticator look-ups: synchronous questions to the ASM.
#include "client/discovery.h"

#include <algorithm>
#include <utility>

#include "authenticator/generic_authenticator.h"
#include "client/corvane_impl.h"
#include "client/messages/fc_params.h"
#include "client/messages/required_fields.h"
#include "client/messages/uaf_message_array.h"
#include "json/json_text.h"

namespace corvane {

namespace {

using jsonmodel::Presence;
using jsonmodel::property;

constexpr uint64_t kSupported =
    static_cast<uint64_t>(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_SUPPORTED_DEVICE);
constexpr uint64_t kEnrolled =
    static_cast<uint64_t>(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_USER_ENROLLED);
constexpr uint64_t kNotSupported =
    static_cast<uint64_t>(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_DEVICE_NOT_SUPPORTED);
constexpr std::string_view kJsonSerializationError = "JSON Serialization error.";

Version version11() {
  return Version{JsonNumber(int64_t{1}), JsonNumber(int64_t{1})};
}

Error invalidArgument(std::string_view text) {
  return Error::corvane(code(CorvaneStatusCode::INVALID_ARGUMENT), std::string(text));
}

const nlohmann::json* member(const nlohmann::json& object, const char* name) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(name);
  return it == object.end() ? nullptr : &*it;
}

bool validCriteria(const nlohmann::json& criteria) {
  return criteria.is_object() && PolicyHelper::checkMatchCriteriaValid(criteria);
}

// What getSupportedAuthenticator and checkPolicy read from a request before the candidate search.
struct PolicyQuestion {
  std::string username;
  std::optional<std::string> appID;  // the header's, when it is a non-empty string
  std::optional<nlohmann::json> accepted;
  std::optional<nlohmann::json> disallowed;
  bool isReg = false;
};

// Parse, the first message whose upv passes, and the field report (a label may repeat).
std::optional<PolicyQuestion> readPolicyQuestion(std::string_view request, Error* error) {
  std::optional<nlohmann::json> messages = jsonmodel::parseJson(request, nullptr);
  if (!messages || !messages->is_array()) {
    setError(error, invalidArgument(kJsonSerializationError));
    return std::nullopt;
  }
  const nlohmann::json* chosen = nullptr;
  for (const nlohmann::json& element : *messages) {
    std::optional<Version> upv = messageVersion(element);
    if (upv && Version::checkVersion(*upv)) {
      chosen = &element;
      break;
    }
  }
  if (chosen == nullptr) {
    setError(error, invalidArgument(kJsonSerializationError));
    return std::nullopt;
  }
  const nlohmann::json* header = member(*chosen, "header");
  const nlohmann::json* op = header ? member(*header, "op") : nullptr;
  const nlohmann::json* upvJson = header ? member(*header, "upv") : nullptr;
  std::optional<Version> upv;
  if (upvJson != nullptr) {
    upv = Version::fromJson(*upvJson, nullptr);
    if (!upv) {
      setError(error, invalidArgument(kJsonSerializationError));
      return std::nullopt;
    }
  }
  const nlohmann::json* username = member(*chosen, "username");
  const nlohmann::json* policy = member(*chosen, "policy");
  const nlohmann::json* accepted = policy ? member(*policy, "accepted") : nullptr;
  const nlohmann::json* disallowed = policy ? member(*policy, "disallowed") : nullptr;

  RequiredFieldReport report;
  if (username == nullptr || !username->is_string() ||
      username->get_ref<const std::string&>().empty()) {
    report.add(fieldlabel::kUsername);
  }
  if (disallowed != nullptr) {
    if (!disallowed->is_array()) {
      report.add(fieldlabel::kDisallowed);
    } else {
      for (const nlohmann::json& criteria : *disallowed) {
        if (!validCriteria(criteria)) report.add(fieldlabel::kDisallowed);
      }
    }
  }
  if (accepted == nullptr || !accepted->is_array() || accepted->empty()) {
    report.add(fieldlabel::kAccepted);
  }
  if (accepted != nullptr && accepted->is_array()) {
    for (const nlohmann::json& set : *accepted) {
      if (!set.is_array()) {
        report.add(fieldlabel::kAccepted);
        continue;
      }
      for (const nlohmann::json& criteria : set) {
        if (!validCriteria(criteria)) report.add(fieldlabel::kAccepted);
      }
    }
  }
  if (!upv || !Version::checkVersion(*upv)) report.add(fieldlabel::kUpv);
  const bool isReg = op != nullptr && op->is_string() && *op == kOpReg;
  const bool isAuth = op != nullptr && op->is_string() && *op == kOpAuth;
  if (!isReg && !isAuth) report.add(fieldlabel::kOp);
  if (!report.empty()) {
    setError(error, report.error());
    return std::nullopt;
  }
  PolicyQuestion question;
  question.username = username->get<std::string>();
  if (const nlohmann::json* appID = header ? member(*header, "appID") : nullptr;
      appID != nullptr && appID->is_string() && !appID->get_ref<const std::string&>().empty()) {
    question.appID = appID->get<std::string>();
  }
  if (accepted != nullptr) question.accepted = *accepted;
  if (disallowed != nullptr) question.disallowed = *disallowed;
  question.isReg = isReg;
  return question;
}

}  // namespace

std::span<const jsonmodel::Property<DiscoveryData>> DiscoveryData::properties() {
  using D = DiscoveryData;
  static constexpr jsonmodel::Property<D> kTable[] = {
      property<&D::supportedUAFVersions>("supportedUAFVersions", Presence::kOptional),
      property<&D::clientVendor>("clientVendor", Presence::kOptional),
      property<&D::clientVersion>("clientVersion", Presence::kOptional),
      property<&D::availableAuthenticators>("availableAuthenticators", Presence::kOptional),
  };
  return kTable;
}

std::string DiscoveryData::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

bool isAaidInAuthenticatorInfoArray(std::string_view aaid,
                                    const std::vector<AuthenticatorInfo>& infos) {
  return std::any_of(infos.begin(), infos.end(),
                     [aaid](const AuthenticatorInfo& info) { return info.aaid == aaid; });
}

bool isAaidInAuthenticatorInfoArrayAndRegistered(std::string_view aaid,
                                                 const std::vector<AuthenticatorInfo>& infos) {
  return std::any_of(infos.begin(), infos.end(), [aaid](const AuthenticatorInfo& info) {
    return info.aaid == aaid && info.status == kEnrolled;
  });
}

std::string Corvane::facetID() const {
  return impl_ ? impl_->facetID() : std::string();
}

std::optional<std::string> Corvane::discover(Error* error) {
  if (!impl_) {
    setError(error, Error::corvane(code(CorvaneStatusCode::UNKNOWN), "Asm getInfo error."));
    return std::nullopt;
  }
  AsmRequest request;
  request.requestType = static_cast<uint64_t>(AsmRequestType::kGetInfo);
  const AsmResponse response = impl_->execute(request);
  if (response.statusCode != 0) {
    setError(error, Error::corvane(AsmStatusCodeTranslater::translate(
                                       static_cast<int64_t>(response.statusCode)),
                                   "Asm getInfo error."));
    return std::nullopt;
  }
  DiscoveryData data;
  data.supportedUAFVersions = std::vector<Version>{version11()};
  data.clientVendor = "0F3D";
  data.clientVersion = version11();
  data.availableAuthenticators.emplace();
  if (const auto* out = std::get_if<GetInfoOut>(&response.responseData);
      out && out->authenticators) {
    for (const AuthenticatorInfo& info : *out->authenticators) {
      if (info.status != kSupported) continue;
      Authenticator authenticator;
      authenticator.supportedUAFVersions = info.asmVersions;
      authenticator.assertionScheme = info.assertionScheme;
      authenticator.userVerification = info.userVerification;
      authenticator.keyProtection = info.keyProtection;
      authenticator.matcherProtection = info.matcherProtection;
      authenticator.attachmentHint = info.attachmentHint;
      authenticator.isSecondFactorOnly = info.isSecondFactorOnly;
      authenticator.tcDisplay = info.tcDisplay;
      authenticator.tcDisplayContentType = info.tcDisplayContentType;
      authenticator.tcDisplayPNGCharacteristics = info.tcDisplayPNGCharacteristics;
      authenticator.icon = info.icon;
      authenticator.aaid = info.aaid;
      authenticator.title = info.title;
      authenticator.desc = info.desc;
      authenticator.attestationTypes = info.attestationTypes;
      authenticator.authenticationAlgorithm = info.authenticationAlgorithm;
      // Supported extension ids are not disclosed by discovery.
      authenticator.supportedExtensionIDs = std::vector<std::string>{};
      data.availableAuthenticators->push_back(std::move(authenticator));
    }
  }
  return data.toJsonString();
}

std::optional<GetSupportedAuthenticatorResponse> Corvane::getSupportedAuthenticator(
    std::string_view request, Error* error) {
  std::optional<PolicyQuestion> question = readPolicyQuestion(request, error);
  if (!question) return std::nullopt;
  if (!impl_) {
    setError(error, Error::corvane(code(CorvaneStatusCode::NO_ACTIVE_AUTHENTICATOR),
                                   std::string(Asm::kNoActiveAuthenticator)));
    return std::nullopt;
  }
  std::optional<std::vector<AuthenticatorInfo>> candidates = impl_->candidates(
      question->accepted, question->disallowed, question->username, question->isReg,
      applicationIdFor(question->appID, impl_->facetID()), error);
  if (!candidates) return std::nullopt;

  std::vector<std::string> userVerifications;
  uint64_t status = kSupported;
  bool inactiveSeen = false;
  for (const AuthenticatorInfo& candidate : *candidates) {
    if (candidate.status == kEnrolled) {
      userVerifications = candidate.uvs.value_or(std::vector<std::string>{});
      status = kEnrolled;
      break;
    }
    const uint64_t index =
        GenericAuthenticator::getUserVerificationWithString(candidate.uv.value_or(""));
    if (!GenericAuthenticator::checkUserVerificationActive(index, impl_->configuration)) continue;
    if (candidate.status == kSupported) {
      userVerifications.push_back(candidate.uv.value_or(""));
    } else {
      inactiveSeen = true;
      status = kNotSupported;
    }
  }
  if (!inactiveSeen && userVerifications.empty()) {
    setError(error, Error::corvane(code(CorvaneStatusCode::NO_ACTIVE_AUTHENTICATOR),
                                   std::string(Asm::kNoActiveAuthenticator)));
    return std::nullopt;
  }
  if (status != kEnrolled && !userVerifications.empty()) status = kSupported;
  GetSupportedAuthenticatorResponse response;
  for (const AuthenticatorInfo& candidate : *candidates) {
    response.aaid = candidate.aaid;
    response.keyID = candidate.keyIDs && !candidate.keyIDs->empty()
                         ? std::optional<std::string>(candidate.keyIDs->front())
                         : std::nullopt;
  }
  response.userVerifications = std::move(userVerifications);
  response.status = status;
  return response;
}

void Corvane::checkPolicy(std::string_view request, std::string_view userName, bool isReg,
                          Error* error) {
  std::optional<PolicyQuestion> question = readPolicyQuestion(request, error);
  if (!question || !impl_) return;
  static_cast<void>(impl_->candidates(question->accepted, question->disallowed,
                                      std::string(userName), isReg,
                                      applicationIdFor(question->appID, impl_->facetID()), error));
}

}  // namespace corvane
