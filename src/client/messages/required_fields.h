// The required-field report of a UAF request, the field rules the request kinds share, and the
// per-request checks that apply them in the order registration, authentication and
// deregistration check their fields. Lengths are counted in UTF-16 code units.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/messages/authentication.h"
#include "client/messages/deregistration.h"
#include "client/messages/extension.h"
#include "client/messages/operation_header.h"
#include "client/messages/policy.h"
#include "client/messages/registration.h"
#include "corvane/error.h"

namespace corvane {

// Report labels, each with its trailing space.
namespace fieldlabel {
inline constexpr std::string_view kUserVerification = "userVerification ";
inline constexpr std::string_view kRegistrationRequest = "registrationRequest ";
inline constexpr std::string_view kAuthenticationRequest = "authenticationRequest ";
inline constexpr std::string_view kDeregistrationRequest = "DeregistrationRequest ";
inline constexpr std::string_view kDisallowed = "disallowed ";
inline constexpr std::string_view kAccepted = "accepted ";
inline constexpr std::string_view kAppID = "appID ";
inline constexpr std::string_view kServerData = "serverData ";
inline constexpr std::string_view kUpv = "upv ";
inline constexpr std::string_view kOp = "op ";
inline constexpr std::string_view kChallenge = "challenge ";
inline constexpr std::string_view kUsername = "username ";
inline constexpr std::string_view kAuthenticators = "authenticators ";
inline constexpr std::string_view kExtsId = "exts.id ";
inline constexpr std::string_view kExtsData = "exts.data ";
inline constexpr std::string_view kTransaction = "transaction ";
}  // namespace fieldlabel

inline constexpr std::string_view kUnknownExtensionText = "Unknown Extension.id value.";
inline constexpr std::string_view kFailIfUnknownSetText =
    "The property [fail_if_unknown] is set to true.";
inline constexpr std::string_view kVersionErrorText = "Version Error.";

// Field length limits, in UTF-16 code units.
inline constexpr size_t kMaxAppIDLength = 512;
inline constexpr size_t kMaxServerDataLength = 1536;
inline constexpr size_t kMaxExtensionIdLength = 32;

// Collects the labels of missing or ill-formed fields, in the order they are found.
class RequiredFieldReport {
 public:
  static constexpr std::string_view kPrefix = "Missing Required Fields: ";

  // Appends the label exactly as given (labels carry their own trailing space).
  void add(std::string_view label) {
    labels_.append(label);
    ++count_;
  }
  bool empty() const { return count_ == 0; }
  size_t count() const { return count_; }
  // "Missing Required Fields: " followed by every label.
  std::string description() const { return std::string(kPrefix) + labels_; }
  // MISS_REQUIRED_FIELD (60000) with description().
  Error error() const;

 private:
  std::string labels_;
  size_t count_ = 0;
};

// ----- shared field rules; each adds its label when the rule fails -----

// "appID " when present and longer than 512.
void checkAppID(const OperationHeader& header, RequiredFieldReport& report);
// "serverData " when present and empty or longer than 1536.
void checkServerData(const OperationHeader& header, RequiredFieldReport& report);
// "upv " when upv is absent or its major or minor is absent.
void checkUpv(const OperationHeader& header, RequiredFieldReport& report);
// "op " when op is absent, empty or not `operation`.
void checkOp(const OperationHeader& header, std::string_view operation,
             RequiredFieldReport& report);
// appID, serverData, upv, op in that order; an absent header fails upv and op.
void checkHeader(const std::optional<OperationHeader>& header, std::string_view operation,
                 RequiredFieldReport& report);
// "challenge " when absent or empty.
void checkChallenge(const std::optional<std::string>& challenge, RequiredFieldReport& report);
// "username " when absent or empty.
void checkUsername(const std::optional<std::string>& username, RequiredFieldReport& report);

// What a header extension with fail_if_unknown true stops.
enum class FailIfUnknownRule {
  kUnsupportedOnly,  // only an unsupported id stops (UNKNOWN, "Unknown Extension.id value.")
  kAlways,           // any id stops (UNKNOWN, "The property [fail_if_unknown] is set to true.")
};

// Header extensions, in order: "exts.id " when the id is absent, empty or longer than 32, else
// "exts.data " when the data is absent; then the fail_if_unknown stop. Returns false with the
// UNKNOWN error when it stops. The supported extensions are appended to `supported` (when given);
// unsupported ones whose fail_if_unknown is false are dropped.
bool checkHeaderExtensions(const std::optional<OperationHeader>& header, FailIfUnknownRule rule,
                           RequiredFieldReport& report, std::vector<Extension>* supported,
                           Error* error);

// ----- policy lists and the extensions they forward -----

// The match-criteria validity test of the policy matcher.
using MatchCriteriaCheck = std::function<bool(const nlohmann::json& criteria)>;

// The extensions that go out with the ASM request, in the order added.
class OutgoingExtensions {
 public:
  // Adds `extension` unless one with the same id was added this way before (first one wins).
  void addOnce(Extension extension);
  // Adds `extension` unconditionally.
  void add(Extension extension) { list_.push_back(std::move(extension)); }
  const std::vector<Extension>& list() const { return list_; }

 private:
  std::vector<Extension> list_;
  std::vector<std::string> addedIds_;
};

struct PolicyCheckContext {
  MatchCriteriaCheck checkMatchCriteriaValid;  // an empty function counts every element as bad
  std::string deviceModelName;                 // data of a forwarded "match_model" extension
};

// Policy "disallowed" (when present) then "accepted", adding "disallowed " / "accepted " once
// per bad element, and collecting the "exts" of every valid criteria object.
void checkPolicyLists(const std::optional<Policy>& policy, const PolicyCheckContext& context,
                      RequiredFieldReport& report, OutgoingExtensions& outgoing);

// ----- per-request checks: the report, then the version -----

struct RequestCheckContext {
  PolicyCheckContext policy;
  ExtsData extsData;  // the host's extension data ("register_limit")
};

// Registration: "userVerification ", "registrationRequest " (reported at once), policy lists,
// appID, serverData, upv, op "Reg", challenge, username, header extensions; then upv 1.1.
// Returns the outgoing extensions; absent with MISS_REQUIRED_FIELD, UNKNOWN or
// UNSUPPORTED_VERSION.
[[nodiscard]] std::optional<std::vector<Extension>> checkRegistrationRequest(
    const std::optional<RegistrationRequest>& message,
    std::optional<std::string_view> userVerification, const RequestCheckContext& context,
    Error* error);

// Authentication: "authenticationRequest " (reported at once), policy lists, appID, serverData,
// upv, op "Auth", challenge, "transaction " once when any transaction fails checkTransaction,
// header extensions; then upv 1.1.
[[nodiscard]] std::optional<std::vector<Extension>> checkAuthenticationRequest(
    const std::optional<AuthenticationRequest>& message, const RequestCheckContext& context,
    Error* error);

// Deregistration: "DeregistrationRequest " when no message was chosen, then appID, serverData,
// upv, op "Dereg", "authenticators " when the list is absent or empty and once per invalid entry,
// header extensions (any fail_if_unknown true stops); then upv 1.1. Without a message the report
// reads "DeregistrationRequest upv op authenticators ".
[[nodiscard]] bool checkDeregistrationRequest(const std::optional<DeregistrationRequest>& message,
                                              Error* error);

}  // namespace corvane
