#include "verification/authenticator_core.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <utility>

#include "authenticator/generic_authenticator.h"
#include "client/messages/transaction.h"
#include "foundation/utils.h"
#include "json/json_text.h"
#include "json/secret_json.h"

namespace corvane {

using namespace authenticator_status;

namespace {

constexpr size_t kKeyIDBytes = 32;

std::string joined(std::string_view first, std::string_view second) {
  std::string text;
  text.reserve(first.size() + 1 + second.size());
  return text.append(first).append(".").append(second);
}

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

std::string base64UrlKeyID(std::string_view keyID) {
  return Utils::base64URLSafeStringFromData(asBytes(keyID));
}

Bytes bigEndian(int64_t value) {
  Bytes out(8);
  for (int i = 7; i >= 0; --i) {
    out[static_cast<size_t>(i)] = static_cast<uint8_t>(value);
    value = static_cast<int64_t>(static_cast<uint64_t>(value) >> 8);
  }
  return out;
}

// The "AUTHNR.data" record's text: {"keyID": K, "username": U} and, from the first signature on,
// "signCounter". Absent when a text is not UTF-8.
std::optional<SecretBytes> registrationRecord(std::string_view keyID, std::string_view username,
                                              std::optional<uint64_t> signCounter) {
  std::string text;
  text.reserve(jsonmodel::jsonCapacity({keyID, username}) + 32);
  text.append("{\"keyID\":");
  bool valid = jsonmodel::appendJsonString(text, keyID);
  text.append(",\"username\":");
  valid = valid && jsonmodel::appendJsonString(text, username);
  if (signCounter) text.append(",\"signCounter\":").append(std::to_string(*signCounter));
  text.push_back('}');
  std::optional<SecretBytes> record;
  if (valid) record = SecretBytes::fromText(text);
  wipe(text);
  return record;
}

// The first text/plain transaction's content, decoded; absent when there is none.
std::optional<std::string> transactionText(const std::vector<Transaction>& transactions) {
  for (const Transaction& transaction : transactions) {
    if (transaction.contentType != kTransactionContentTypeText || !transaction.content) continue;
    std::optional<Bytes> decoded = Utils::decodeBase64Url(*transaction.content);
    if (!decoded) return std::nullopt;
    return std::string(asText(*decoded));
  }
  return std::nullopt;
}

}  // namespace

AuthenticatorCore::AuthenticatorCore(Keychain& keychain, PatternManager& patterns,
                                     const Clock& clock, std::string facetID,
                                     TlvHelper::NonceSource nonceSource)
    : keychain_(keychain),
      patterns_(patterns),
      clock_(clock),
      facetID_(std::move(facetID)),
      tlv_(keychain, std::move(nonceSource)) {}

Error AuthenticatorCore::failure(uint64_t status, std::string_view message) const {
  return Error::corvane(static_cast<int64_t>(status), std::string(message));
}

std::string AuthenticatorCore::userHash(std::string_view username) {
  return Utils::sha256(username);
}

std::string AuthenticatorCore::recordAccount(std::string_view username) {
  return joined(userHash(username), GenericAuthenticator::kAaid);
}

std::optional<std::string> AuthenticatorCore::sealKeyHandle(const SecretBytes& key,
                                                            std::string_view khAccessToken,
                                                            std::string_view username) {
  std::string text;
  text.reserve(jsonmodel::jsonCapacity({khAccessToken, username}));
  text.append("{\"khAccessToken\":");
  bool valid = jsonmodel::appendJsonString(text, khAccessToken);
  text.append(",\"username\":");
  valid = valid && jsonmodel::appendJsonString(text, username);
  text.push_back('}');
  std::optional<SecretBytes> sealed;
  if (valid) sealed = PatternManager::sealPattern(key, SecretBytes::fromText(text));
  wipe(text);
  if (!sealed) return std::nullopt;
  return hexadecimalString(sealed->exposeSecret());
}

Result<bool> AuthenticatorCore::isRegistered(std::string_view username) {
  Result<std::vector<std::string>> services = keychain_.findGenericPasswordServicesDescWithAccount(
      recordAccount(username),
      joined(GenericAuthenticator::kAuthenticatorData, userHash(username)));
  if (!services) return services.error();
  return !services->empty();
}

Result<RegisterResponseCommand> AuthenticatorCore::registerAuthenticator(
    const RegisterCommand& command, uint64_t userVerification,
    const std::function<Result<void>(const std::string& keyID)>& writeOwnRecords) {
  const std::string username = command.username.value_or(std::string());
  Result<bool> registered = isRegistered(username);
  if (!registered) return failure(kStatusError, kStoreFailed);
  if (*registered) return failure(kStatusError, kAlreadyRegistered);

  const std::string hash = userHash(username);
  const std::string privateTag = GenericAuthenticator::privateKeyTag(facetID_, hash);
  std::optional<Bytes> publicKey = keychain_.generate256EcKeyPair(
      GenericAuthenticator::publicKeyTag(facetID_, hash), privateTag);
  if (!publicKey) return failure(kStatusError, kCannotRegister);
  // From here on a failure takes the new key pair (and any record written) away again.
  const auto undo = [&](uint64_t status, std::string_view message) {
    static_cast<void>(deleteRegistration(username));
    return failure(status, message);
  };

  Result<SecretBytes> key = patterns_.getPatternLockEncryptKey();
  if (!key) return undo(kStatusError, kStoreFailed);
  std::optional<std::string> keyHandle =
      sealKeyHandle(*key, command.khAccessToken.value_or(std::string()), username);
  if (!keyHandle) return undo(kStatusError, kCannotRegister);

  std::optional<Bytes> random = Utils::randomBytesWithLength(kKeyIDBytes);
  if (!random) return undo(kStatusError, kCannotRegister);
  const std::string keyID = hexadecimalString(*random);

  AssertionFields fields;
  fields.aaid = std::string(GenericAuthenticator::kAaid);
  fields.finalChallengeHash = command.finalChallengeHash;
  fields.publicKey = std::move(*publicKey);
  fields.keyID = keyID;
  fields.base64UrlKeyID = base64UrlKeyID(keyID);
  fields.signCounter = 1;
  fields.exts = command.exts;
  std::optional<std::string> assertion = tlv_.getRegAssertions(fields, privateTag);
  if (!assertion) return undo(kStatusError, kCannotRegister);

  std::optional<SecretBytes> record = registrationRecord(keyID, username, std::nullopt);
  if (!record) return undo(kStatusError, kCannotRegister);
  if (keychain_.insertOrUpdateGenericPasswordWithAccount(
          recordAccount(username),
          joined(GenericAuthenticator::kAuthenticatorData, *fields.base64UrlKeyID),
          joined(GenericAuthenticator::kAuthenticatorData, hash), *record) != StoreStatus::ok) {
    return undo(kStatusError, kStoreFailed);
  }
  if (Result<void> own = writeOwnRecords(keyID); !own) {
    return undo(kStatusError, own.error().message().value_or(std::string(kStoreFailed)));
  }

  RegisterResponseCommand response;
  response.assertion = std::move(assertion);
  response.keyHandle = std::move(keyHandle);
  response.userVerification = userVerification;
  response.krd = std::move(fields);
  return response;
}

Result<RegisterResponseCommand> AuthenticatorCore::registerInOneCommit(
    const RegisterCommand& command, uint64_t userVerification,
    const std::function<Result<void>(const std::string& keyID)>& writeOwnRecords,
    AsmDelegate& asmDelegate) {
  ItemStoreTransaction transaction = keychain_.transaction();
  if (!transaction.isOpen()) return failure(kStatusError, kStoreFailed);
  Result<RegisterResponseCommand> made =
      registerAuthenticator(command, userVerification, writeOwnRecords);
  if (!made) return made;
  Result<void> asmRecord = asmDelegate.authenticatorRegistrationRecords(*made);
  if (!asmRecord) {
    made = Error::corvane(kStatusError, asmRecord.error().message());
  } else if (transaction.commit() != StoreStatus::ok) {
    made = failure(kStatusError, kStoreFailed);
  }
  if (!made) {
    transaction.rollback();
    // A key store that keeps its keys outside the item store's transaction still holds the new
    // key pair.
    static_cast<void>(keychain_.deleteKeyPair(GenericAuthenticator::privateKeyTag(
        facetID_, userHash(command.username.value_or(std::string())))));
  }
  return made;
}

Result<SignResponseCommand> AuthenticatorCore::signInOneCommit(
    const SignCommand& command, const std::function<Result<void>()>& ownWrites) {
  ItemStoreTransaction transaction = keychain_.transaction();
  if (!transaction.isOpen()) return failure(kStatusError, kStoreFailed);
  if (Result<void> own = ownWrites(); !own) return own.error();
  Result<SignResponseCommand> signature = signByAuthenticator(command);
  if (transaction.commit() != StoreStatus::ok && signature) {
    signature = failure(kStatusError, kCannotUpdate);
  }
  return signature;
}

Result<SignResponseCommand> AuthenticatorCore::signByAuthenticator(const SignCommand& command) {
  const std::string username = command.username.value_or(std::string());
  const std::string hash = userHash(username);

  // The key handle must open under the authenticators' key and name this caller's token and user.
  Result<std::optional<SecretBytes>> key = keychain_.getAesEncryptKey();
  if (!key) return failure(kStatusError, kStoreFailed);
  std::optional<SecretBytes> opened;
  if (*key) {
    SecretBytes sealed(Utils::hexString2NSData(command.keyHandle.value_or(std::string())));
    opened = PatternManager::openSealedPattern(**key, sealed);
  }
  if (!opened) return failure(kStatusAccessDenied, kInvalidKhAccessToken);
  const std::string_view openedText = opened->exposeSecretText();
  const jsonmodel::SecretJson handle =
      jsonmodel::SecretJson::parse(openedText.begin(), openedText.end(), nullptr, false);
  const auto member = [&handle](std::string_view name) -> std::optional<std::string_view> {
    if (!handle.is_object()) return std::nullopt;
    auto it = handle.find(jsonmodel::SecretString(name));
    if (it == handle.end() || !it->is_string()) return std::nullopt;
    const jsonmodel::SecretString& text = it->get_ref<const jsonmodel::SecretString&>();
    return std::string_view(text.data(), text.size());
  };
  const std::optional<std::string_view> token = member("khAccessToken");
  const std::string expected = command.khAccessToken.value_or(std::string());
  if (!token || token->size() != expected.size() ||
      CRYPTO_memcmp(token->data(), expected.data(), expected.size()) != 0) {
    return failure(kStatusAccessDenied, kInvalidKhAccessToken);
  }
  if (member("username") != std::optional<std::string_view>(username)) {
    return failure(kStatusAccessDenied, kInvalidUsername);
  }

  // The registration record: its key ID, and the counter raised before anything is signed.
  const std::string account = recordAccount(username);
  const std::string generic = joined(GenericAuthenticator::kAuthenticatorData, hash);
  Result<std::vector<std::string>> services =
      keychain_.findGenericPasswordServicesDescWithAccount(account, generic);
  if (!services) return failure(kStatusError, kStoreFailed);
  if (services->empty()) return failure(kStatusDataMissing, kDataMissing);
  Result<std::optional<SecretBytes>> stored =
      keychain_.findGenericPasswordWithAccount(account, services->front(), generic);
  if (!stored) return failure(kStatusError, kStoreFailed);
  if (!*stored) return failure(kStatusDataMissing, kDataMissing);
  const std::string_view recordText = (*stored)->exposeSecretText();
  const nlohmann::json record = nlohmann::json::parse(recordText, nullptr, false);
  const auto keyIDMember = record.is_object() ? record.find("keyID") : record.end();
  if (!record.is_object() || keyIDMember == record.end() || !keyIDMember->is_string()) {
    return failure(kStatusDataMissing, kDataMissing);
  }
  const std::string keyID = keyIDMember->get<std::string>();
  uint64_t signCounter = 0;
  if (auto it = record.find("signCounter"); it != record.end() && it->is_number_unsigned()) {
    signCounter = it->get<uint64_t>();
  }
  ++signCounter;
  std::optional<SecretBytes> updated = registrationRecord(keyID, username, signCounter);
  if (!updated || keychain_.updateGenericPasswordWithAccount(account, services->front(), generic,
                                                             *updated) != StoreStatus::ok) {
    return failure(kStatusError, kCannotUpdate);
  }
  if (keychain_.insertOrUpdateGenericPasswordWithAccount(
          account, joined(GenericAuthenticator::kSignTime, base64UrlKeyID(keyID)),
          joined(GenericAuthenticator::kSignTime, hash),
          SecretBytes(bigEndian(clock_.uptime()))) != StoreStatus::ok) {
    return failure(kStatusError, kCannotUpdate);
  }

  AssertionFields fields;
  fields.aaid = std::string(GenericAuthenticator::kAaid);
  fields.finalChallengeHash = command.finalChallengeHash;
  fields.keyID = keyID;
  fields.signCounter = signCounter;
  fields.exts = command.exts;
  fields.isTxAuth = false;
  if (command.originalTc) {
    std::optional<std::string> text = transactionText(*command.originalTc);
    if (!text) return failure(kStatusParamsInvalid, kNoDisplayableTransaction);
    const std::array<uint8_t, 32> digest = Utils::sha256BackData(*text);
    fields.tcHash = Bytes(digest.begin(), digest.end());
    fields.isTxAuth = true;
  }
  std::optional<std::string> assertion =
      tlv_.getAuthAssertions(fields, GenericAuthenticator::privateKeyTag(facetID_, hash));
  if (!assertion) return failure(kStatusError, kCannotSign);
  SignResponseCommand response;
  response.assertion = std::move(assertion);
  return response;
}

uint64_t AuthenticatorCore::deregister(std::optional<std::string_view> keyID) {
  constexpr uint64_t kNothingToDeregister = 3;
  if (keyID) {
    return keychain_.deleteGenericPasswordWithAccount(
               std::nullopt, joined(GenericAuthenticator::kAuthenticatorData, *keyID),
               std::nullopt) == StoreStatus::storeError
               ? kStatusError
               : 0;
  }
  Result<std::vector<std::string>> services =
      keychain_.findGenericPasswordServicesDescWithAccount(std::nullopt, std::nullopt);
  if (!services) return kStatusError;
  if (services->empty()) return kNothingToDeregister;
  for (const std::string& service : *services) {
    if (keychain_.deleteGenericPasswordWithAccount(std::nullopt, service, std::nullopt) ==
        StoreStatus::storeError) {
      return kStatusError;
    }
  }
  return 0;
}

bool AuthenticatorCore::hasTextTransaction(const std::vector<Transaction>& transactions) {
  return std::any_of(transactions.begin(), transactions.end(), [](const Transaction& tc) {
    return tc.contentType == kTransactionContentTypeText && tc.content.has_value();
  });
}

Result<void> AuthenticatorCore::deleteRegistration(std::string_view username) {
  const std::string hash = userHash(username);
  const std::string account = recordAccount(username);
  bool kept = true;
  for (std::string_view prefix : GenericAuthenticator::kRegistrationRecords) {
    kept &= keychain_.deleteGenericPasswordWithAccount(
                account, std::nullopt, joined(prefix, hash)) != StoreStatus::storeError;
  }
  // Records first: a record whose key is gone could never sign again.
  kept = kept && keychain_.deleteKeyPair(GenericAuthenticator::privateKeyTag(facetID_, hash)) !=
                     StoreStatus::storeError;
  if (!kept) return failure(kStatusError, kStoreFailed);
  return {};
}

}  // namespace corvane
