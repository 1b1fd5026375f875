#include "asm/asm.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "authenticator/generic_authenticator.h"
#include "corvane/status_codes.h"
#include "foundation/utils.h"
#include "json/json_text.h"

namespace corvane {

namespace {

constexpr uint64_t kStatusOk = static_cast<uint64_t>(AsmStatusCode::ASM_STATUS_OK);
constexpr uint64_t kStatusError = static_cast<uint64_t>(AsmStatusCode::ASM_STATUS_ERROR);
constexpr uint64_t kStatusNoMatched =
    static_cast<uint64_t>(AsmStatusCode::ASM_STATUS_NO_MATCHED_AUTHENTICATOR);
constexpr uint64_t kStatusDataMissing =
    static_cast<uint64_t>(AsmStatusCode::ASM_STATUS_STORAGE_DATA_MISSING);
constexpr uint64_t kStatusNotEnrolled =
    static_cast<uint64_t>(AsmStatusCode::ASM_STATUS_USER_NOT_ENROLLED);
constexpr uint64_t kStatusNoActive =
    static_cast<uint64_t>(AsmStatusCode::ASM_STATUS_NO_ACTIVE_AUTHENTICATOR);

AsmResponse statusOnly(uint64_t status) {
  AsmResponse response;
  response.statusCode = status;
  return response;
}

// An error the ASM raises itself: its code is the status it answers with.
Error asmError(uint64_t status, std::string_view message) {
  return Error::corvane(static_cast<int64_t>(status), std::string(message));
}

// Clears a text that held secret material before it is released.
void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

// Runs an action when the scope ends, however it ends.
template <typename Action>
class AtExit {
 public:
  explicit AtExit(Action action) : action_(std::move(action)) {}
  AtExit(const AtExit&) = delete;
  AtExit& operator=(const AtExit&) = delete;
  ~AtExit() { action_(); }

 private:
  Action action_;
};

// An authenticator's error carried up one layer: same message, code translated to the ASM's.
std::optional<Error> rewrap(const std::optional<Error>& error) {
  if (!error) return std::nullopt;
  return Error::corvane(AuthenticatorStatusCodeTranslator::translate(error->code()),
                        error->message());
}

uint64_t translated(uint64_t authenticatorStatus) {
  return static_cast<uint64_t>(
      AuthenticatorStatusCodeTranslator::translate(static_cast<int64_t>(authenticatorStatus)));
}

std::string joined(std::string_view first, std::string_view second) {
  std::string text;
  text.reserve(first.size() + 1 + second.size());
  text.append(first).append(".").append(second);
  return text;
}

// The ASM registration record. Absent when a text is not valid UTF-8.
std::optional<SecretBytes> makeRegistrationRecord(std::string_view callerId, std::string_view appID,
                                                  std::string_view keyHandle,
                                                  std::string_view keyID, std::string_view asmToken,
                                                  uint64_t userVerification) {
  std::string text;
  text.reserve(jsonmodel::jsonCapacity({callerId, appID, keyHandle, keyID, asmToken}) + 32);
  const std::array<std::pair<std::string_view, std::string_view>, 5> members = {{
      {"callerId", callerId},
      {"appID", appID},
      {"keyHandle", keyHandle},
      {"keyID", keyID},
      {"asmToken", asmToken},
  }};
  bool valid = true;
  text.push_back('{');
  for (const auto& [name, value] : members) {
    text.push_back('"');
    text.append(name).append("\":");
    valid = valid && jsonmodel::appendJsonString(text, value);
    text.push_back(',');
  }
  text.append("\"userVerification\":").append(std::to_string(userVerification)).push_back('}');
  std::optional<SecretBytes> record;
  if (valid) record = SecretBytes::fromText(text);
  wipe(text);
  return record;
}

const std::string* stringMember(const nlohmann::json& object, std::string_view key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return nullptr;
  return &it->get_ref<const std::string&>();
}

std::optional<uint64_t> unsignedMember(const nlohmann::json& object, std::string_view key) {
  auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  if (it->is_number_unsigned()) return it->get<uint64_t>();
  if (it->is_number_integer() && it->get<int64_t>() >= 0) {
    return static_cast<uint64_t>(it->get<int64_t>());
  }
  return std::nullopt;
}

// Clears the key handle and the ASM token of a parsed record before it is released.
void wipeSecretMembers(nlohmann::json& record) {
  for (std::string_view key : {"keyHandle", "asmToken"}) {
    auto it = record.find(key);
    if (it != record.end() && it->is_string()) wipe(it->get_ref<std::string&>());
  }
}

// A stored record parsed as a JSON object; absent with kInvalidRecord otherwise. The parser's own
// message is not passed on: it quotes the text, and the record holds a key handle and the token.
std::optional<nlohmann::json> parseRecord(const SecretBytes& record, Error* error) {
  std::optional<nlohmann::json> json = jsonmodel::parseJson(record.exposeSecretText(), nullptr);
  if (!json || !json->is_object()) {
    setError(error, asmError(kStatusError, Asm::kInvalidRecord));
    return std::nullopt;
  }
  return json;
}

// The operations by request-type name. Registration and authentication answer through the
// delegate and so give no response here.
using Operation = std::optional<AsmResponse> (*)(Asm&, const AsmRequest&);
struct NamedOperation {
  std::string_view name;
  Operation operation;
};
constexpr std::array<NamedOperation, 5> kOperations = {{
    {"getInfo",
     [](Asm& a, const AsmRequest& r) -> std::optional<AsmResponse> { return a.getInfo(r); }},
    {"registration",
     [](Asm& a, const AsmRequest& r) -> std::optional<AsmResponse> {
       a.registration(r);
       return std::nullopt;
     }},
    {"authenticate",
     [](Asm& a, const AsmRequest& r) -> std::optional<AsmResponse> {
       a.authenticate(r);
       return std::nullopt;
     }},
    {"deregister",
     [](Asm& a, const AsmRequest& r) -> std::optional<AsmResponse> { return a.deregister(r); }},
    {"getRegistrations",
     [](Asm& a, const AsmRequest& r) -> std::optional<AsmResponse> {
       return a.getRegistrations(r);
     }},
}};

Operation operationFor(const AsmRequest& request) {
  std::optional<std::string_view> name = request.requestTypeCommand();
  if (!name) return nullptr;
  for (const NamedOperation& entry : kOperations) {
    if (entry.name == *name) return entry.operation;
  }
  return nullptr;
}

}  // namespace

Asm::Asm(CorvaneDelegate& corvaneDelegate, Keychain& keychain, const Configuration& configuration,
         std::string facetID, const AuthenticatorFactory& makeAuthenticators)
    : corvaneDelegate_(corvaneDelegate),
      keychain_(keychain),
      configuration_(configuration),
      facetID_(std::move(facetID)),
      asmTokenTag_(facetID_ + ".asmToken") {
  // A token that cannot be read now is read again at the first registration or authentication.
  static_cast<void>(loadAsmToken());
  if (makeAuthenticators) authenticators_ = makeAuthenticators(*this);
}

Result<void> Asm::loadAsmToken() {
  const Keychain::Attribute account = kAsmTokenAccount;
  const Keychain::Attribute service = asmTokenTag_;
  Result<std::optional<SecretBytes>> read =
      keychain_.findGenericPasswordWithAccount(account, service, std::nullopt);
  if (!read) return asmError(kStatusError, kStoreFailed);
  std::optional<SecretBytes> stored = std::move(*read);
  if (!stored || stored->empty()) {
    std::optional<Bytes> drawn = Utils::randomBytesWithLength(kAsmTokenSize);
    if (!drawn) return {};
    SecretBytes fresh(*drawn);
    OPENSSL_cleanse(drawn->data(), drawn->size());
    // An empty value can only be a damaged item: it is replaced. A missing one is added, and when
    // that fails the item is read once more, as another Asm may have added it meanwhile.
    const StoreStatus kept =
        stored ? keychain_.insertOrUpdateGenericPasswordWithAccount(account, service, std::nullopt,
                                                                    fresh)
               : keychain_.insertGenericPasswordWithAccount(account, service, std::nullopt, fresh);
    if (kept == StoreStatus::ok) {
      stored = std::move(fresh);
    } else {
      Result<std::optional<SecretBytes>> again =
          keychain_.findGenericPasswordWithAccount(account, service, std::nullopt);
      if (!again) return asmError(kStatusError, kStoreFailed);
      stored = std::move(*again);
    }
    if (!stored || stored->empty()) return {};
  }
  std::string hex = hexadecimalString(stored->exposeSecret());
  asmToken_ = SecretBytes::fromText(hex);
  wipe(hex);
  return {};
}

std::optional<std::string> Asm::makeKHAccessToken(std::string_view appID, std::string_view asmToken,
                                                  std::string_view callerId, Error* error) {
  std::string text;
  text.reserve(jsonmodel::jsonCapacity({appID, asmToken, callerId}));
  text.append("{\"appID\":");
  bool valid = jsonmodel::appendJsonString(text, appID);
  text.append(",\"asmToken\":");
  valid = valid && jsonmodel::appendJsonString(text, asmToken);
  text.append(",\"callerId\":");
  valid = valid && jsonmodel::appendJsonString(text, callerId);
  text.push_back('}');
  if (!valid) {
    wipe(text);
    setError(error, asmError(kStatusError, kInvalidText));
    return std::nullopt;
  }
  return text;
}

std::optional<std::string> Asm::khAccessTokenFor(const std::optional<std::string>& appID,
                                                 Error* error) {
  // Read again at every use: when the store has been wiped meanwhile (deregister all, a changed
  // biometric enrolment) a new token is made and stored rather than one kept only in memory.
  asmToken_.reset();
  if (Result<void> loaded = loadAsmToken(); !loaded) {
    setError(error, loaded.error());
    return std::nullopt;
  }
  if (!asmToken_) {
    setError(error, asmError(kStatusError, kNoAsmToken));
    return std::nullopt;
  }
  if (!appID) {
    setError(error, asmError(kStatusError, kInvalidArguments));
    return std::nullopt;
  }
  return makeKHAccessToken(*appID, asmToken_->exposeSecretText(), facetID_, error);
}

AuthenticatorFeature* Asm::authenticatorFor(uint64_t userVerification) const {
  auto it = authenticators_.find(userVerification);
  return it == authenticators_.end() ? nullptr : it->second.get();
}

bool Asm::deregisterUserHash(const std::string& userHash) {
  const std::string account = joined(userHash, GenericAuthenticator::kAaid);
  bool kept = true;
  for (std::string_view prefix : GenericAuthenticator::kRegistrationRecords) {
    kept &= keychain_.deleteGenericPasswordWithAccount(
                account, std::nullopt, joined(prefix, userHash)) != StoreStatus::storeError;
  }
  // Only once the records are gone: a record whose key is gone could never sign again.
  return kept && keychain_.deleteKeyPair(GenericAuthenticator::privateKeyTag(facetID_, userHash)) !=
                     StoreStatus::storeError;
}

bool Asm::deleteKeyIfOrphaned(const std::string& userHash) {
  Result<std::vector<std::string>> left = keychain_.findGenericPasswordServicesDescWithAccount(
      joined(userHash, GenericAuthenticator::kAaid), joined(kAsmData, userHash));
  if (!left) return false;
  if (!left->empty()) return true;
  return keychain_.deleteKeyPair(GenericAuthenticator::privateKeyTag(facetID_, userHash)) !=
         StoreStatus::storeError;
}

void Asm::executeWithAsmRequest(const AsmRequest& request) {
  if (Operation operation = operationFor(request)) operation(*this, request);
}

AsmResponse Asm::executeWithAsmRequestThenResponse(const AsmRequest& request) {
  Operation operation = operationFor(request);
  if (operation == nullptr) return statusOnly(kStatusError);
  return operation(*this, request).value_or(statusOnly(kStatusError));
}

AsmRequestRunner Asm::runner() {
  return [this](const AsmRequest& request) { return executeWithAsmRequestThenResponse(request); };
}

void Asm::registration(const AsmRequest& request) {
  const RegisterIn* args = std::get_if<RegisterIn>(&request.args);
  if (args == nullptr) {
    tempRegisterIn_.reset();
    corvaneDelegate_.asmRegisterResponse(statusOnly(kStatusError),
                                         asmError(kStatusError, kInvalidArguments));
    return;
  }
  tempRegisterIn_ = *args;
  registrationRecordWritten_ = false;
  const auto fail = [&](uint64_t status, Error error) {
    tempRegisterIn_.reset();  // no answer will come for this registration
    corvaneDelegate_.asmRegisterResponse(statusOnly(status), error);
  };

  Error error;
  std::optional<std::string> token = khAccessTokenFor(args->appID, &error);
  if (!token) return fail(kStatusError, std::move(error));

  RegisterCommand command;
  command.appID = args->appID;
  command.username = args->username;
  command.displayName = args->displayName;
  command.khAccessToken = std::move(token);
  command.exts = request.exts;

  if (!GenericAuthenticator::checkUserVerificationActive(request.userVerification,
                                                         configuration_)) {
    wipe(*command.khAccessToken);
    return fail(kStatusNoActive, asmError(kStatusNoActive, kNoActiveAuthenticator));
  }
  AuthenticatorFeature* authenticator = authenticatorFor(request.userVerification);
  if (authenticator == nullptr) {
    wipe(*command.khAccessToken);
    return fail(kStatusNoMatched, asmError(kStatusNoMatched, kNoMatchedAuthenticator));
  }
  command.finalChallengeHash = authenticator->hashBackNSData(args->finalChallenge.value_or(""));
  authenticator->registerWithCommand(command);
  wipe(*command.khAccessToken);
}

void Asm::authenticatorRegisterResponse(const RegisterResponseCommand* response,
                                        const std::optional<Error>& error) {
  // Taken out first: the delegate may start the next registration from its callback.
  std::optional<RegisterIn> registerIn = std::move(tempRegisterIn_);
  tempRegisterIn_.reset();
  const bool recordWritten = registrationRecordWritten_;
  registrationRecordWritten_ = false;

  AsmResponse answer;
  std::optional<Error> answerError;
  const auto failWith = [&](std::string_view message) {
    answer = statusOnly(kStatusError);
    answerError = asmError(kStatusError, message);
  };
  if (response == nullptr) {
    answer.statusCode = kStatusError;
    answerError = rewrap(error);
  } else if (response->statusCode != 0) {
    answer.statusCode = translated(response->statusCode);
    answerError = rewrap(error);
  } else if (!registerIn) {
    failWith(kNoPendingRegistration);
  } else if (!recordWritten) {
    // An authenticator that answers success must have had the record written in its commit.
    failWith(kCannotStoreRecord);
  } else {
    RegisterOut out;
    out.assertion = response->assertion;
    out.assertionScheme = std::string(GenericAuthenticator::kAssertionScheme);
    answer.statusCode = kStatusOk;
    answer.responseData = std::move(out);
  }
  corvaneDelegate_.asmRegisterResponse(answer, answerError);
}

Result<void> Asm::authenticatorRegistrationRecords(const RegisterResponseCommand& response) {
  if (!tempRegisterIn_) return asmError(kStatusError, kNoPendingRegistration);
  const RegisterIn& registerIn = *tempRegisterIn_;
  if (!response.krd || !response.krd->base64UrlKeyID || response.krd->base64UrlKeyID->empty() ||
      !response.krd->aaid || response.krd->aaid->empty() || !response.keyHandle) {
    return asmError(kStatusError, kIncompleteResponse);
  }
  if (!asmToken_) return asmError(kStatusError, kNoAsmToken);
  const std::string& keyID = *response.krd->base64UrlKeyID;
  std::optional<SecretBytes> record =
      makeRegistrationRecord(facetID_, registerIn.appID.value_or(""), *response.keyHandle, keyID,
                             asmToken_->exposeSecretText(), response.userVerification);
  if (!record) return asmError(kStatusError, kInvalidText);
  const std::string userHash = Utils::sha256(registerIn.username.value_or(""));
  if (keychain_.insertOrUpdateGenericPasswordWithAccount(
          joined(userHash, *response.krd->aaid), joined(kAsmData, keyID),
          joined(kAsmData, userHash), *record) != StoreStatus::ok) {
    return asmError(kStatusError, kCannotStoreRecord);
  }
  registrationRecordWritten_ = true;
  return {};
}

void Asm::authenticate(const AsmRequest& request) {
  const AuthenticateIn* args = std::get_if<AuthenticateIn>(&request.args);
  if (args == nullptr) {
    corvaneDelegate_.asmAuthenticateResponse(statusOnly(kStatusError),
                                             asmError(kStatusError, kInvalidArguments));
    return;
  }
  const auto fail = [&](uint64_t status, Error error) {
    corvaneDelegate_.asmAuthenticateResponse(statusOnly(status), error);
  };

  Error error;
  std::optional<std::string> token = khAccessTokenFor(args->appID, &error);
  if (!token) return fail(kStatusError, std::move(error));
  const AtExit wipeToken([&] { wipe(*token); });

  const std::string userHash = Utils::sha256(args->username.value_or(""));
  const std::string account = joined(userHash, GenericAuthenticator::kAaid);
  const std::string generic = joined(kAsmData, userHash);
  std::optional<SecretBytes> stored;
  for (const std::string& keyID : args->keyIDs.value_or(std::vector<std::string>())) {
    Result<std::optional<SecretBytes>> found =
        keychain_.findGenericPasswordWithAccount(account, joined(kAsmData, keyID), generic);
    // A store that cannot be read says nothing about enrolment.
    if (!found) return fail(kStatusError, asmError(kStatusError, kStoreFailed));
    stored = std::move(*found);
    if (stored) break;
  }
  if (!stored) return fail(kStatusNotEnrolled, asmError(kStatusNotEnrolled, kNoRegistrationData));

  std::optional<nlohmann::json> record = parseRecord(*stored, &error);
  if (!record) return fail(kStatusError, std::move(error));
  const AtExit wipeRecord([&] { wipeSecretMembers(*record); });
  const std::string* keyHandle = stringMember(*record, "keyHandle");
  const std::optional<uint64_t> userVerification = unsignedMember(*record, "userVerification");
  if (keyHandle == nullptr || !userVerification) {
    return fail(kStatusError, asmError(kStatusError, kInvalidRecord));
  }

  if (!GenericAuthenticator::checkUserVerificationActive(*userVerification, configuration_)) {
    // The registration can never be used while the method is switched off: the user's records go.
    // Whether they could be deleted or not, the answer is the same.
    static_cast<void>(deregisterUserHash(userHash));
    return fail(kStatusNoActive, asmError(kStatusNoActive, kAuthenticatorNotActive));
  }
  AuthenticatorFeature* authenticator = authenticatorFor(*userVerification);
  if (authenticator == nullptr) {
    return fail(kStatusNoMatched,
                asmError(kStatusNoMatched, std::string(kNoMatchedAuthenticatorWithIndex) +
                                               std::to_string(*userVerification)));
  }

  SignCommand command;
  command.appID = args->appID;
  command.finalChallengeHash = authenticator->hashBackNSData(args->finalChallenge.value_or(""));
  command.khAccessToken = *token;
  command.keyHandle = *keyHandle;
  command.username = args->username;
  command.exts = request.exts;
  command.displayName = args->displayName;
  if (args->transaction) {
    command.transaction = SignCommand::displayableTransactions(*args->transaction);
  }
  command.originalTc = args->transaction;
  authenticator->signWithCommand(command);
  wipe(*command.khAccessToken);
  wipe(*command.keyHandle);
}

void Asm::authenticatorSignResponse(const SignResponseCommand* response,
                                    const std::optional<Error>& error) {
  AsmResponse answer;
  std::optional<Error> answerError;
  if (response == nullptr) {
    answer.statusCode = kStatusError;
    answerError = rewrap(error);
  } else if (response->statusCode != 0) {
    answer.statusCode = translated(response->statusCode);
    answerError = rewrap(error);
  } else {
    AuthenticateOut out;
    out.assertion = response->assertion;
    out.assertionScheme = std::string(GenericAuthenticator::kAssertionScheme);
    answer.statusCode = kStatusOk;
    answer.responseData = std::move(out);
  }
  corvaneDelegate_.asmAuthenticateResponse(answer, answerError);
}

AsmResponse Asm::getInfo(const AsmRequest& /*request*/) {
  const auto& basics = GenericAuthenticator::listAllBasicAuthenticatorInfo();
  if (basics.empty()) return statusOnly(kStatusNoMatched);
  std::vector<std::string> names;
  for (const auto& [name, index] : GenericAuthenticator::listAllUserVerification()) {
    names.push_back(name);
  }
  std::vector<AuthenticatorInfo> infos;
  for (const auto& [index, basic] : basics) {
    AuthenticatorInfo info = GenericAuthenticator::getBasicAuthenticatorInfo();
    info.uv = GenericAuthenticator::userVerificationString(index);
    // An index without an authenticator is reported as not supported on this device.
    AuthenticatorFeature* authenticator = authenticatorFor(index);
    info.status = authenticator != nullptr
                      ? authenticator->deviceSupportCheck()
                      : static_cast<uint64_t>(
                            AuthenticatorInfoStatus::AUTHENTICATORINFO_STATUS_DEVICE_NOT_SUPPORTED);
    info.uvs = names;
    infos.push_back(std::move(info));
  }
  AsmResponse response = statusOnly(kStatusOk);
  GetInfoOut out;
  out.authenticators = std::move(infos);
  response.responseData = std::move(out);
  return response;
}

AsmResponse Asm::getRegistrations(const AsmRequest& request) {
  if (request.authenticatorIndex == 0) return statusOnly(kStatusError);
  const GetRegistrationsIn* args = std::get_if<GetRegistrationsIn>(&request.args);
  if (args == nullptr) return statusOnly(kStatusError);

  const std::string userHash = Utils::sha256(args->username.value_or(""));
  const std::string account = joined(userHash, GenericAuthenticator::kAaid);
  const std::string generic = joined(kAsmData, userHash);
  Result<std::vector<std::string>> services =
      keychain_.findGenericPasswordServicesDescWithAccount(account, generic);
  if (!services) return statusOnly(kStatusError);
  if (services->empty()) return statusOnly(kStatusNotEnrolled);

  Result<std::optional<SecretBytes>> stored =
      keychain_.findGenericPasswordWithAccount(account, services->front(), generic);
  if (!stored || !*stored) return statusOnly(kStatusError);
  std::optional<nlohmann::json> record = parseRecord(**stored, nullptr);
  if (!record) return statusOnly(kStatusError);
  const AtExit wipeRecord([&] { wipeSecretMembers(*record); });

  const std::string* callerId = stringMember(*record, "callerId");
  if (callerId == nullptr || *callerId != facetID_) return statusOnly(kStatusDataMissing);
  const std::string* appID = stringMember(*record, "appID");
  const std::string* keyID = stringMember(*record, "keyID");
  if (appID == nullptr || keyID == nullptr) return statusOnly(kStatusError);

  AppRegistration registration;
  registration.appID = *appID;
  registration.keyID = std::vector<std::string>{*keyID};
  if (std::optional<uint64_t> index = unsignedMember(*record, "userVerification")) {
    registration.userVerification = GenericAuthenticator::userVerificationString(*index);
  }
  GetRegistrationOut out;
  out.appRegs = std::vector<AppRegistration>{std::move(registration)};
  AsmResponse response = statusOnly(kStatusOk);
  response.responseData = std::move(out);
  return response;
}

Result<std::vector<Asm::RegistrationAddress>> Asm::registrationsOf(
    const std::optional<std::string>& userHash, const std::optional<std::string>& keyID) {
  const std::string servicePrefix = joined(kAsmData, "");
  const std::string accountSuffix = joined("", GenericAuthenticator::kAaid);
  std::vector<RegistrationAddress> found;
  // The accounts ("<user hash>.<AAID>") holding the ASM record of one key ID.
  const auto usersOf = [&](const std::string& kid) -> Result<void> {
    Result<std::vector<std::string>> accounts =
        keychain_.findGenericPasswordAccountDescWithService(joined(kAsmData, kid));
    if (!accounts) return accounts.error();
    for (const std::string& account : *accounts) {
      if (!account.ends_with(accountSuffix)) continue;
      found.push_back({account.substr(0, account.size() - accountSuffix.size()), kid});
    }
    return {};
  };
  if (userHash && keyID) {
    found.push_back({*userHash, *keyID});
  } else if (userHash) {
    Result<std::vector<std::string>> services =
        keychain_.findGenericPasswordServicesDescWithAccount(
            joined(*userHash, GenericAuthenticator::kAaid), joined(kAsmData, *userHash));
    if (!services) return services.error();
    for (const std::string& service : *services) {
      if (service.starts_with(servicePrefix)) {
        found.push_back({*userHash, service.substr(servicePrefix.size())});
      }
    }
  } else if (keyID) {
    if (Result<void> listed = usersOf(*keyID); !listed) return listed.error();
  } else {
    Result<std::vector<std::string>> services =
        keychain_.findGenericPasswordServicesDescWithAccount(std::nullopt, std::nullopt);
    if (!services) return services.error();
    std::vector<std::string> keyIDs;
    for (const std::string& service : *services) {
      if (!service.starts_with(servicePrefix)) continue;
      std::string kid = service.substr(servicePrefix.size());
      if (std::find(keyIDs.begin(), keyIDs.end(), kid) == keyIDs.end()) keyIDs.push_back(kid);
    }
    for (const std::string& kid : keyIDs) {
      if (Result<void> listed = usersOf(kid); !listed) return listed.error();
    }
  }
  return found;
}

Result<bool> Asm::registeredUnder(const RegistrationAddress& address, std::string_view appID) {
  Result<std::optional<SecretBytes>> value = keychain_.findGenericPasswordWithAccount(
      joined(address.userHash, GenericAuthenticator::kAaid), joined(kAsmData, address.keyID),
      joined(kAsmData, address.userHash));
  if (!value) return value.error();
  if (!*value) return false;
  // A record that cannot be read names no application, so it is never taken for this one.
  std::optional<nlohmann::json> record = parseRecord(**value, nullptr);
  if (!record) return false;
  const std::string* stored = stringMember(*record, "appID");
  const bool same = stored != nullptr && *stored == appID;
  wipeSecretMembers(*record);
  return same;
}

bool Asm::deregisterUnderAppID(const DeregisterIn& args) {
  const std::optional<std::string> userHash =
      args.username && !args.username->empty()
          ? std::optional<std::string>(Utils::sha256(*args.username))
          : std::nullopt;
  const std::optional<std::string> keyID =
      args.keyID && !args.keyID->empty() ? args.keyID : std::nullopt;
  Result<std::vector<RegistrationAddress>> registrations = registrationsOf(userHash, keyID);
  if (!registrations) return false;
  bool kept = true;
  std::vector<std::string> users;
  for (const RegistrationAddress& address : *registrations) {
    Result<bool> match = registeredUnder(address, *args.appID);
    if (!match) {
      kept = false;
      continue;
    }
    if (!*match) continue;
    const std::string account = joined(address.userHash, GenericAuthenticator::kAaid);
    for (std::string_view prefix : GenericAuthenticator::kRegistrationRecords) {
      kept &= keychain_.deleteGenericPasswordWithAccount(account, joined(prefix, address.keyID),
                                                         joined(prefix, address.userHash)) !=
              StoreStatus::storeError;
    }
    if (std::find(users.begin(), users.end(), address.userHash) == users.end()) {
      users.push_back(address.userHash);
    }
  }
  for (const std::string& user : users) kept = deleteKeyIfOrphaned(user) && kept;
  return kept;
}

AsmResponse Asm::deregister(const AsmRequest& request) {
  const DeregisterIn* args = std::get_if<DeregisterIn>(&request.args);
  if (args == nullptr) return statusOnly(kStatusError);
  // An application ID narrows every form to that application's registrations.
  if (args->appID && !args->appID->empty()) {
    return statusOnly(deregisterUnderAppID(*args) ? kStatusOk : kStatusError);
  }
  const bool hasUser = args->username && !args->username->empty();
  const bool hasKeyID = args->keyID && !args->keyID->empty();

  // Nothing matching is a success; a failing store is not.
  bool kept = true;
  const auto note = [&kept](StoreStatus status) { kept &= status != StoreStatus::storeError; };
  if (hasUser) {
    const std::string userHash = Utils::sha256(*args->username);
    if (!hasKeyID) {
      kept = deregisterUserHash(userHash);
    } else {
      const std::string account = joined(userHash, GenericAuthenticator::kAaid);
      for (std::string_view prefix : GenericAuthenticator::kRegistrationRecords) {
        note(keychain_.deleteGenericPasswordWithAccount(account, joined(prefix, *args->keyID),
                                                        joined(prefix, userHash)));
      }
      kept = kept && deleteKeyIfOrphaned(userHash);
    }
  } else if (hasKeyID) {
    // The records' accounts ("<user hash>.<AAID>") name the users whose keys may be orphaned.
    Result<std::vector<std::string>> accounts =
        keychain_.findGenericPasswordAccountDescWithService(joined(kAsmData, *args->keyID));
    if (!accounts) return statusOnly(kStatusError);
    for (std::string_view prefix : GenericAuthenticator::kRegistrationRecords) {
      note(keychain_.deleteGenericPasswordWithAccount(std::nullopt, joined(prefix, *args->keyID),
                                                      std::nullopt));
    }
    const std::string suffix = joined("", GenericAuthenticator::kAaid);
    for (const std::string& account : *accounts) {
      if (!account.ends_with(suffix)) continue;
      kept = kept && deleteKeyIfOrphaned(account.substr(0, account.size() - suffix.size()));
    }
  } else {
    note(keychain_.deregAllDatas());
  }
  return statusOnly(kept ? kStatusOk : kStatusError);
}

}  // namespace corvane
