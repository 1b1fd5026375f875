#include "policy/policy_helper.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>
#include <vector>

#include "client/messages/extension.h"
#include "client/messages/required_fields.h"
#include "corvane/status_codes.h"
#include "foundation/utils.h"
#include "json/json_text.h"

namespace corvane {

namespace {

using nlohmann::json;

// The ordered yes/no verdicts of one comparison.
class Verdicts {
 public:
  void add(bool verdict) { verdicts_.push_back(verdict); }
  bool empty() const { return verdicts_.empty(); }
  bool last() const { return verdicts_.back(); }
  bool noneIsNo() const {
    return std::all_of(verdicts_.begin(), verdicts_.end(), [](bool v) { return v; });
  }
  // A comparison succeeds only on a non-empty list without a "no".
  bool matched() const { return !empty() && noneIsNo(); }

 private:
  std::vector<bool> verdicts_;
};

// The value under `key`, or null when the key is missing. The caller has checked is_object().
const json* field(const json& object, std::string_view key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// A list field applies unless it is missing or an empty array; a value of another type applies
// (and then matches nothing).
bool listApplies(const json* value) {
  return value != nullptr && !(value->is_array() && value->empty());
}

// The value as an unsigned integer: non-negative integers and integral floating-point values
// that fit in 64 bits. Negative, fractional and non-numeric values have none.
std::optional<uint64_t> unsignedValue(const json& value) {
  if (value.is_number_unsigned()) return *value.get_ptr<const uint64_t*>();
  if (value.is_number_integer()) {
    int64_t number = *value.get_ptr<const int64_t*>();
    if (number < 0) return std::nullopt;
    return static_cast<uint64_t>(number);
  }
  if (value.is_number_float()) {
    double number = *value.get_ptr<const double*>();
    // 2^64: the first value that no longer fits.
    constexpr double kLimit = 18446744073709551616.0;
    if (number >= 0 && number < kLimit && std::trunc(number) == number) {
      return static_cast<uint64_t>(number);
    }
  }
  return std::nullopt;
}

bool equalsNumber(const json& value, uint64_t number) {
  std::optional<uint64_t> converted = unsignedValue(value);
  return converted && *converted == number;
}

bool containsNumber(const json& list, uint64_t number) {
  if (!list.is_array()) return false;
  return std::any_of(list.begin(), list.end(),
                     [number](const json& entry) { return equalsNumber(entry, number); });
}

bool containsString(const json& list, std::string_view text) {
  if (!list.is_array()) return false;
  return std::any_of(list.begin(), list.end(), [text](const json& entry) {
    return entry.is_string() && *entry.get_ptr<const std::string*>() == text;
  });
}

bool containsAnyString(const json& list, const std::vector<std::string>& texts) {
  return std::any_of(texts.begin(), texts.end(),
                     [&list](const std::string& text) { return containsString(list, text); });
}

// The authenticator's key IDs when it has at least one.
const std::vector<std::string>* keyIDsOf(const AuthenticatorInfo& authenticator) {
  if (!authenticator.keyIDs || authenticator.keyIDs->empty()) return nullptr;
  return &*authenticator.keyIDs;
}

// A user-verification criterion matches when equal, or when the two share a bit and neither
// asks for all methods (USER_VERIFY_ALL).
bool userVerificationMatches(uint64_t criterion, uint64_t authenticator) {
  if (criterion == authenticator) return true;
  return (criterion & authenticator) != 0 && (criterion & USER_VERIFY_ALL) == 0 &&
         (authenticator & USER_VERIFY_ALL) == 0;
}

// True when some vendorID entry is the aaid's first four characters (UTF-16 code units, as text
// lengths are counted everywhere else).
bool vendorMatches(const json& list, const std::optional<std::string>& aaid) {
  if (!aaid || !list.is_array()) return false;
  return std::any_of(list.begin(), list.end(), [&aaid](const json& entry) {
    if (!entry.is_string()) return false;
    const std::string& vendor = *entry.get_ptr<const std::string*>();
    return utf16Length(vendor) == 4 && aaid->starts_with(vendor);
  });
}

// A "match_model" extension whose data names this device model or every device.
bool modelDataMatches(const json& extension, std::string_view deviceModelName) {
  const json* data = field(extension, "data");
  if (data == nullptr || !data->is_string()) return false;
  const std::string& text = *data->get_ptr<const std::string*>();
  if (text.find(kMatchModelAllDevices) != std::string::npos) return true;
  return !deviceModelName.empty() && text.find(deviceModelName) != std::string::npos;
}

bool isMatchModel(const json& extension) {
  if (!extension.is_object()) return false;
  const json* id = field(extension, "id");
  return id != nullptr && id->is_string() &&
         *id->get_ptr<const std::string*>() == kExtensionMatchModel;
}

// The fields both comparisons judge the same way, in their order between "keyIDs" and "exts":
// keyProtection, matcherProtection, attachmentHint, tcDisplay, authenticationAlgorithms,
// assertionSchemes, attestationTypes.
void compareCommonFields(const AuthenticatorInfo& authenticator, const json& policy,
                         Verdicts& verdicts) {
  if (const json* value = field(policy, "keyProtection");
      value && authenticator.keyProtection.value_or(0) != 0) {
    verdicts.add(equalsNumber(*value, *authenticator.keyProtection));
  }
  if (const json* value = field(policy, "matcherProtection");
      value && authenticator.matcherProtection.value_or(0) != 0) {
    verdicts.add(equalsNumber(*value, *authenticator.matcherProtection));
  }
  // Compared with the authenticator's userVerification, not its attachmentHint: kept on purpose,
  // servers written against this client rely on it.
  if (const json* value = field(policy, "attachmentHint");
      value && authenticator.attachmentHint.value_or(0) != 0) {
    verdicts.add(equalsNumber(*value, authenticator.userVerification.value_or(0)));
  }
  if (const json* value = field(policy, "tcDisplay");
      value && authenticator.tcDisplay.value_or(0) != 0) {
    verdicts.add(equalsNumber(*value, *authenticator.tcDisplay));
  }
  if (const json* value = field(policy, "authenticationAlgorithms");
      value && authenticator.authenticationAlgorithm.value_or(0) != 0) {
    verdicts.add(containsNumber(*value, *authenticator.authenticationAlgorithm));
  }
  if (const json* value = field(policy, "assertionSchemes");
      value && authenticator.assertionScheme) {
    verdicts.add(containsString(*value, *authenticator.assertionScheme));
  }
  if (const json* value = field(policy, "attestationTypes");
      value && authenticator.attestationTypes) {
    const std::vector<uint64_t>& types = *authenticator.attestationTypes;
    verdicts.add(std::any_of(types.begin(), types.end(),
                             [value](uint64_t type) { return containsNumber(*value, type); }));
  }
}

// aaid and vendorID, the first two fields of both comparisons.
void compareIdentity(const AuthenticatorInfo& authenticator, const json& policy,
                     Verdicts& verdicts) {
  if (const json* value = field(policy, "aaid"); listApplies(value)) {
    verdicts.add(authenticator.aaid && containsString(*value, *authenticator.aaid));
  }
  if (const json* value = field(policy, "vendorID"); listApplies(value)) {
    verdicts.add(vendorMatches(*value, authenticator.aaid));
  }
}

bool isStringArray(const json& value) {
  return value.is_array() && std::all_of(value.begin(), value.end(),
                                         [](const json& entry) { return entry.is_string(); });
}

bool isNumberArray(const json& value) {
  return value.is_array() && std::all_of(value.begin(), value.end(),
                                         [](const json& entry) { return entry.is_number(); });
}

bool extensionEntryValid(const json& extension) {
  if (!extension.is_object()) return false;
  const json* id = field(extension, "id");
  const json* data = field(extension, "data");
  const json* failIfUnknown = field(extension, "fail_if_unknown");
  if (id == nullptr || !id->is_string() || data == nullptr || !data->is_string() ||
      failIfUnknown == nullptr) {
    return false;
  }
  const std::string& extensionId = *id->get_ptr<const std::string*>();
  if (extensionId.empty() || utf16Length(extensionId) > kMaxExtensionIdLength) return false;
  return Extension::checkValidExtensionId(extensionId) || !jsonmodel::truthValue(*failIfUnknown);
}

std::string withAaid(std::string_view format, const AuthenticatorInfo& authenticator) {
  std::string text(format);
  size_t at = text.find("%@");
  if (at != std::string::npos) text.replace(at, 2, authenticator.aaid.value_or(std::string()));
  return text;
}

Error policyError(std::string_view format, const AuthenticatorInfo& authenticator) {
  return Error::corvane(code(CorvaneStatusCode::DISALLOW_POLICY), withAaid(format, authenticator));
}

// The list inside an optional policy list when it is a non-empty array.
const json* nonEmptyList(const std::optional<json>& list) {
  if (!list || !list->is_array() || list->empty()) return nullptr;
  return &*list;
}

}  // namespace

PolicyHelper::PolicyHelper(const DeviceInfo& deviceInfo, AsmRequestRunner asmRequestRunner)
    : deviceInfo_(deviceInfo), asmRequestRunner_(std::move(asmRequestRunner)) {}

std::string PolicyHelper::getDeviceModelName() const {
  return deviceInfo_.modelIdentifier();
}

bool PolicyHelper::checkPolicy(AuthenticatorInfo* authenticator,
                               const std::optional<json>& allowPolicy,
                               const std::optional<json>& disallowPolicy, bool isReg,
                               std::string_view username, std::string_view appID,
                               Error* error) const {
  if (authenticator == nullptr) return false;
  if (findServerEnrolledKeyid(authenticator, disallowPolicy, isReg, username, appID)) return true;

  const std::string deviceModelName = getDeviceModelName();
  if (const json* disallowed = nonEmptyList(disallowPolicy)) {
    for (const json& criteria : *disallowed) {
      if (criteria.is_null()) continue;
      if (compareDisallowPolicy(authenticator, criteria, deviceModelName)) {
        setError(error, policyError(kPolicyNotAllowedFormat, *authenticator));
        return false;
      }
    }
  }

  const json* accepted = nonEmptyList(allowPolicy);
  if (accepted == nullptr) {
    setError(error, policyError(kNoAcceptedPolicyFormat, *authenticator));
    return false;
  }
  // Every inner list is evaluated (no early exit over the outer list); inside one, the first
  // failing criterion ends it. An element that is not a list holds nothing.
  bool anyHolds = false;
  for (const json& conjunction : *accepted) {
    if (conjunction.is_null()) continue;
    bool holds = conjunction.is_array();
    if (holds) {
      for (const json& criteria : conjunction) {
        if (criteria.is_null()) continue;
        if (!compareAllowPolicy(authenticator, criteria, deviceModelName)) {
          holds = false;
          break;
        }
      }
    }
    anyHolds = anyHolds || holds;
  }
  if (!anyHolds) {
    setError(error, policyError(kNoAcceptedPolicyFormat, *authenticator));
    return false;
  }
  return true;
}

bool PolicyHelper::compareAllowPolicy(const AuthenticatorInfo* authenticator,
                                      const json& policy) const {
  return compareAllowPolicy(authenticator, policy, getDeviceModelName());
}

bool PolicyHelper::compareAllowPolicy(const AuthenticatorInfo* authenticator, const json& policy,
                                      std::string_view deviceModelName) {
  if (authenticator == nullptr || !policy.is_object()) return false;
  Verdicts verdicts;
  compareIdentity(*authenticator, policy, verdicts);

  // The authenticator's key IDs narrow the choice only when it has some.
  if (const json* value = field(policy, "keyIDs"); listApplies(value)) {
    if (const std::vector<std::string>* keyIDs = keyIDsOf(*authenticator)) {
      verdicts.add(containsAnyString(*value, *keyIDs));
    }
  }
  if (const json* value = field(policy, "userVerification");
      value && authenticator->userVerification.value_or(0) != 0) {
    std::optional<uint64_t> criterion = unsignedValue(*value);
    verdicts.add(criterion &&
                 userVerificationMatches(*criterion, *authenticator->userVerification));
  }
  compareCommonFields(*authenticator, policy, verdicts);

  if (const json* exts = field(policy, "exts")) {
    if (!exts->is_array()) {
      verdicts.add(false);
    } else {
      bool failed = false;
      for (const json& extension : *exts) {
        if (isMatchModel(extension) && !modelDataMatches(extension, deviceModelName)) {
          verdicts.add(false);
          failed = true;
          break;
        }
      }
      if (!failed) {
        if (!exts->empty()) {
          verdicts.add(true);
        } else if (!verdicts.empty()) {
          // An empty exts list repeats the verdict before it; kept on purpose.
          verdicts.add(verdicts.last());
        }
      }
    }
  }
  return verdicts.matched();
}

bool PolicyHelper::compareDisallowPolicy(AuthenticatorInfo* authenticator,
                                         const json& policy) const {
  return compareDisallowPolicy(authenticator, policy, getDeviceModelName());
}

bool PolicyHelper::compareDisallowPolicy(AuthenticatorInfo* authenticator, const json& policy,
                                         std::string_view deviceModelName) {
  if (authenticator == nullptr || !policy.is_object()) return false;
  Verdicts verdicts;
  compareIdentity(*authenticator, policy, verdicts);

  // A key-ID criterion cannot disallow an authenticator that holds no key.
  if (const json* value = field(policy, "keyIDs"); listApplies(value)) {
    const std::vector<std::string>* keyIDs = keyIDsOf(*authenticator);
    verdicts.add(keyIDs != nullptr && containsAnyString(*value, *keyIDs));
  }
  compareCommonFields(*authenticator, policy, verdicts);

  if (const json* exts = field(policy, "exts")) {
    bool matches = exts->is_array() &&
                   std::any_of(exts->begin(), exts->end(), [deviceModelName](const json& e) {
                     return isMatchModel(e) && modelDataMatches(e, deviceModelName);
                   });
    verdicts.add(matches);
  }
  // User verification last, and only while nothing has failed: checkDisallowUv narrows the
  // authenticator's offer, which must not happen for a criterion that cannot apply anyway.
  if (policy.contains("userVerification") && verdicts.noneIsNo()) {
    verdicts.add(checkDisallowUv(authenticator, policy));
  }
  return verdicts.matched();
}

bool PolicyHelper::checkDisallowUv(AuthenticatorInfo* authenticator, const json& policy) {
  if (authenticator == nullptr || !policy.is_object()) return false;
  const json* value = field(policy, "userVerification");
  if (value == nullptr) return false;
  std::optional<uint64_t> criterion = unsignedValue(*value);
  uint64_t offered = authenticator->userVerification.value_or(0);
  if (!criterion || offered == 0) return false;

  bool matches = userVerificationMatches(*criterion, offered);
  std::optional<std::vector<std::string>> remaining = authenticator->uvs;
  if (remaining) {
    auto removeAll = [&remaining](std::string_view name) {
      std::erase_if(*remaining, [name](const std::string& uv) { return uv == name; });
    };
    if ((*criterion & USER_VERIFY_PATTERN) != 0) removeAll("pattern");
    if ((*criterion & (USER_VERIFY_FINGERPRINT | USER_VERIFY_FACEPRINT)) != 0) {
      removeAll("biometry");
    }
  }
  authenticator->uvs = remaining;
  return matches && (!remaining || remaining->empty());
}

bool PolicyHelper::findServerEnrolledKeyid(const AuthenticatorInfo* authenticator,
                                           const std::optional<json>& disallowPolicy, bool isReg,
                                           std::string_view username,
                                           std::string_view appID) const {
  constexpr uint64_t kUserEnrolled =
      static_cast<uint64_t>(code(AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_USER_ENROLLED));
  if (authenticator == nullptr || !isReg || authenticator->status != kUserEnrolled) return false;

  // Sends the ASM Deregister for the user; its answer is of no use here.
  auto deregister = [this, username, appID](std::optional<uint16_t> authenticatorIndex) {
    // An empty user name would make the ASM delete the records of every user, an empty appID
    // those of every application.
    if (!asmRequestRunner_ || username.empty() || appID.empty()) return;
    AsmRequest request;
    request.requestType = static_cast<uint64_t>(AsmRequestType::kDeregister);
    if (authenticatorIndex) request.authenticatorIndex = *authenticatorIndex;
    DeregisterIn args;
    args.username = std::string(username);
    args.appID = std::string(appID);
    request.args = std::move(args);
    (void)asmRequestRunner_(request);
  };

  const std::vector<std::string>* keyIDs = keyIDsOf(*authenticator);
  if (const json* disallowed = nonEmptyList(disallowPolicy)) {
    bool serverHoldsKey = false;
    for (const json& criteria : *disallowed) {
      if (keyIDs == nullptr || !criteria.is_object()) continue;
      const json* listed = field(criteria, "keyIDs");
      if (listed != nullptr && containsAnyString(*listed, *keyIDs)) serverHoldsKey = true;
    }
    if (serverHoldsKey) return true;
    deregister(std::nullopt);
    return false;
  }
  if (keyIDs != nullptr) deregister(authenticator->authenticatorIndex.value_or(0));
  return false;
}

bool PolicyHelper::checkMatchCriteriaValid(const json& criteria) {
  if (!criteria.is_object()) return false;
  bool valid = true;

  const json* aaid = field(criteria, "aaid");
  if (aaid != nullptr) {
    valid = valid && isStringArray(*aaid);
  } else {
    // Without an aaid the criteria must name the scheme and the algorithm.
    valid = valid && criteria.contains("assertionSchemes") &&
            criteria.contains("authenticationAlgorithms");
  }
  for (std::string_view key : {"vendorID", "keyIDs", "assertionSchemes"}) {
    if (const json* value = field(criteria, key)) valid = valid && isStringArray(*value);
  }
  for (std::string_view key : {"userVerification", "keyProtection", "matcherProtection",
                               "attachmentHint", "tcDisplay", "authenticatorVersion"}) {
    if (const json* value = field(criteria, key)) valid = valid && value->is_number();
  }
  for (std::string_view key : {"authenticationAlgorithms", "attestationTypes"}) {
    if (const json* value = field(criteria, key)) valid = valid && isNumberArray(*value);
  }
  if (const json* exts = field(criteria, "exts")) {
    if (!exts->is_array()) return false;
    for (const json& extension : *exts) valid = valid && extensionEntryValid(extension);
  }
  if (aaid != nullptr) {
    // An aaid names the authenticator outright; only these keys may stand beside it.
    static constexpr std::array<std::string_view, 5> kBesideAaid = {
        "aaid", "keyIDs", "attachmentHint", "authenticatorVersion", "exts"};
    for (auto it = criteria.begin(); it != criteria.end(); ++it) {
      if (std::find(kBesideAaid.begin(), kBesideAaid.end(), it.key()) == kBesideAaid.end()) {
        valid = false;
      }
    }
  }
  return valid;
}

}  // namespace corvane
