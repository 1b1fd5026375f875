// Corvane: the one object through which a host application uses the library, the records the
// host fills for a request, and the delegate through which it hears the results.
//
// One Corvane object owns one Platform (its ports) and every store object built over it; several
// objects may live side by side in one process. Calls on one object come from the thread that
// runs the platform's main queue (Scheduler); results arrive there too. docs/API.md lists every
// operation.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/error.h"
#include "corvane/platform_value.h"
#include "corvane/sync.h"

namespace corvane {

// The host application's side of a request. Each registration calls onRegistrationComplete
// exactly once and each authentication calls onAuthenticationComplete exactly once, with the UAF
// response text (a JSON array) or absent, and an error whose code is a CorvaneStatusCode; success
// carries an error too, with code 0, so judge the outcome by the code.
class AuthUIControllerDelegate {
 public:
  virtual ~AuthUIControllerDelegate() = default;
  virtual void onRegistrationComplete(std::optional<std::string> response, const Error& error) = 0;
  virtual void onAuthenticationComplete(std::optional<std::string> response,
                                        const Error& error) = 0;
};

// A registration request. Empty texts stand for absent ones.
struct DoRegReq {
  // The UAF registration request text, a JSON array of messages as the server sent it.
  std::string req;
  // The user-verification method the host chose ("pattern", "biometry").
  std::string userVerification;
  // Passed to the authenticator unchanged.
  std::string displayName;
  // Data of header extensions, by extension id ("register_limit" replaces the request's data).
  std::map<std::string, std::string, std::less<>> extsData;
};

// An authentication request. Empty texts stand for absent ones.
struct DoAuthReq {
  // The UAF authentication request text, a JSON array of messages as the server sent it.
  std::string req;
  // The user to authenticate (the request itself names none).
  std::string username;
  // Data of header extensions, by extension id.
  std::map<std::string, std::string, std::less<>> extsData;
  // Passed to the authenticator unchanged.
  std::string displayName;
};

// One key the server pushes for removal (doDeregistration with an application ID). Empty texts
// stand for absent ones.
struct PushedAuthenticator {
  // The user whose key goes; empty for every user.
  std::string username;
  // The authenticator's AAID; a record naming another authenticator than the built-in one is
  // skipped, an empty one is taken as the built-in one.
  std::string aaid;
  // The base64url key ID; empty for every key (of the user, or of the application).
  std::string keyID;
  bool operator==(const PushedAuthenticator&) const = default;
};

// What getSupportedAuthenticator answers: which user verifications the user may use for a request
// and whether the user is enrolled already.
struct GetSupportedAuthenticatorResponse {
  // The aaid and first key ID of the last candidate authenticator (absent when it has none).
  std::optional<std::string> aaid;
  std::optional<std::string> keyID;
  // The user-verification names ("pattern", "biometry") the user may use.
  std::vector<std::string> userVerifications;
  // 4 enrolled, 2 supported, 1 not supported.
  uint64_t status = 0;
};

class Corvane {
 public:
  // Builds the object over `platform` and runs the first-run steps: on the first construction in
  // an installation (isInstalled() answers false) every item and key the library left from an
  // earlier installation is wiped; otherwise, once, the pattern store records each user's current
  // pattern as the last one. `delegate` is held strongly and may be null (results then go
  // nowhere). Every port of `platform` must be present (Platform::missingPort); an object built
  // without them has no stores: isInstalled() and isFirstInitialed() answer false and change
  // nothing, setLanguage() does nothing and the version and model names are empty. A step that
  // fails is skipped (nothing is wiped on a failure). Use create() to have all that reported.
  Corvane(std::shared_ptr<AuthUIControllerDelegate> delegate, Platform platform);
  // The same, or null with the error: a missing port, stored settings that cannot be read, a
  // record database folder that cannot be used, or a store that fails during the first-run steps.
  // Only an item store without the installation marker counts as a fresh installation; a damaged
  // settings file never does.
  static std::unique_ptr<Corvane> create(std::shared_ptr<AuthUIControllerDelegate> delegate,
                                         Platform platform, Error* error);
  ~Corvane();
  Corvane(const Corvane&) = delete;
  Corvane& operator=(const Corvane&) = delete;

  const std::shared_ptr<AuthUIControllerDelegate>& authUIControllerDelegate() const;

  // False exactly once per installation: when the item store holds no installation marker (and,
  // for data kept before the marker existed, "Corvane.installed" is not set), the call writes the
  // marker, sets "Corvane.installed" and "Corvane.initiated" and flushes the user defaults.
  // Answers the state read before the write; true when the item store cannot be read, so that a
  // failing store never looks like a fresh installation.
  bool isInstalled();
  // False exactly once: the first call that finds "Corvane.initiated" unset sets it and flushes.
  // Answers the value read before the write.
  bool isFirstInitialed();

  // The caller's facet ID: "ios:bundle-id:" and the host bundle's identifier; empty without ports.
  std::string facetID() const;

  // The UAF versions, client vendor and authenticators the device offers, as compact JSON text
  // (keys "supportedUAFVersions", "clientVendor", "clientVersion", "availableAuthenticators");
  // absent with the error when the ASM cannot tell.
  std::optional<std::string> discover(Error* error);
  // For a registration or authentication request text: the user verifications its policy lets
  // the user use, and whether the user is enrolled. Absent with the error for a request that is
  // not JSON, lacks fields, or whose policy matches no active authenticator.
  std::optional<GetSupportedAuthenticatorResponse> getSupportedAuthenticator(
      std::string_view request, Error* error);
  // The same checks as getSupportedAuthenticator for `userName` and `isReg`; the result is only
  // the error (untouched when the policy can be met).
  void checkPolicy(std::string_view request, std::string_view userName, bool isReg, Error* error);

  // Registers a user: checks the request, picks the authenticator its policy accepts, checks the
  // facet, and asks the user. The delegate's onRegistrationComplete is called exactly once: before
  // this call returns for a request refused at once, later (on the main queue) otherwise. A
  // request made while another registration or authentication is pending is refused with 20005
  // "another request is in progress." and the pending one keeps its own answer.
  void doRegistration(const DoRegReq& request);
  // Authenticates a user; the same rules, through onAuthenticationComplete.
  void doAuthentication(const DoAuthReq& request);

  // Deregistration. Each runs on the caller's thread and returns once the stores are written;
  // none calls the delegate. The out error (may be null) receives the failure; an ASM failure
  // carries its translated code and no text. Data of one application ID is only removed for a
  // caller that names it and passes its facet check; see docs/flows.md.
  //
  // A UAF deregistration request text from a server: the first authenticator entry of the one
  // message of version 1.1 is removed, within the request's application ID (its header's appID,
  // or the caller's facet ID without one). True when the store was written; on success the error
  // is set too, with code 0.
  bool doDeregistrationReq(std::string_view req, Error* error);
  // Every registration of `username`, in every application. An empty name is refused with 60000
  // "Missing Required Fields: username ".
  bool doDeregistrationUsername(std::string_view username, Error* error);
  // The registrations of `username` under `appID` with key ID `keyID`; an empty key ID, user or
  // appID widens the match to every value of that field. An AAID that is given sends the request
  // to the built-in authenticator (its value is not compared); absent, to none in particular.
  bool doDeregistrationWithAaid(std::optional<std::string_view> aaid, std::string_view keyID,
                                std::string_view appID, std::string_view username, Error* error);
  // Keys the server of `appID` pushes for removal: each record in order (records naming another
  // authenticator are skipped), or, for an empty list, every key under `appID`. The appID must be
  // non-empty (60000 "Missing Required Fields: appID") and trust this application (50000); a
  // record that fails leaves its error and the walk goes on.
  void doDeregistration(std::string_view appID,
                        const std::vector<PushedAuthenticator>& authenticators, Error* error);

  // Stores the white-box tables the server issued for a registered user in the record database
  // (replacing earlier ones), after checking that both halves decode and have the tables' shapes.
  // The marker "ZANDREL_FIDO_NO_DATA" in either half stores nothing and succeeds. True on
  // success; otherwise false with the error (docs/API.md lists every code and text), and the
  // user's tables and registrations are removed so that device and server agree again. A request
  // without a user name fails without removing anyone's data.
  bool syncRegData(const std::optional<SyncRegDataRequest>& request, Error* error);
  // Removes the registrations of `data.appID` that the server no longer holds: each entry names a
  // user, a key or both; entries naming neither, and an empty list, remove nothing, and an entry
  // of another authenticator is skipped. An absent or empty appID fails with 60000
  // "Missing Required Fields: appID" and removes nothing; a failing removal leaves the error of
  // the last one in the slot and the others still run.
  void syncServerData(const SyncServerData& data, Error* error);

  // Header type check of one raw UAF message given as JSON text: true when it is malformed, that
  // is when its header's "appID", or failing that its "serverData", is present and neither null
  // nor a string. A text that is not a JSON object counts as well formed here.
  bool validateProperties(std::string_view message) const;

  // The device's hardware model identifier (DeviceInfo::modelIdentifier).
  std::string getDeviceModelName() const;
  // "CFBundleShortVersionString" of Corvane's own bundle; empty when it has none.
  std::string getRunningSDKVersion() const;
  // Stores the language tag "<language>[-<script>][-<region>]" under "Corvane.preferredLanguage"
  // (absent or empty parts are left out) and flushes. An absent or empty language removes the
  // stored tag, so that the system's language applies again.
  void setLanguage(std::optional<std::string_view> language,
                   std::optional<std::string_view> scriptCode,
                   std::optional<std::string_view> regionCode);
  // The title of a user-verification kind: "pattern" and "biometry" have fixed titles, every
  // other text (case matters) gives "".
  static std::string getTranslation(std::string_view kind);

 private:
  // The stores and services built over the platform (src/client/corvane_impl.h); null when the
  // platform lacks a port.
  struct Impl;
  struct Unstarted {};
  Corvane(std::shared_ptr<AuthUIControllerDelegate> delegate, Platform platform, Unstarted);
  // The first-run steps; false with the error when one fails.
  bool start(Error* error);
  std::unique_ptr<Impl> impl_;
  std::shared_ptr<AuthUIControllerDelegate> authUIControllerDelegate_;
};

}  // namespace corvane
