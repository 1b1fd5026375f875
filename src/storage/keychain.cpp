#include "storage/keychain.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include "crypto/openssl_handles.h"

namespace corvane {

namespace keychain_status {

int32_t fromStoreStatus(StoreStatus status) {
  switch (status) {
    case StoreStatus::ok:
      return kSuccess;
    case StoreStatus::notFound:
      return kItemNotFound;
    case StoreStatus::duplicate:
      return kDuplicateItem;
    case StoreStatus::storeError:
      break;
  }
  return kIO;
}

int32_t fromBiometryStatus(BiometryStatus status) {
  switch (status) {
    case BiometryStatus::ok:
      return kSuccess;
    case BiometryStatus::notFound:
      return kItemNotFound;
    case BiometryStatus::userCancel:
      return kUserCanceled;
    case BiometryStatus::authenticationFailed:
      return kAuthFailed;
    case BiometryStatus::notAvailable:
      return kInteractionNotAllowed;
    case BiometryStatus::failure:
      break;
  }
  return kIO;
}

}  // namespace keychain_status

namespace {

constexpr std::string_view kAccessibilityBiometryAny = "WhenPasscodeSetThisDeviceOnly;BiometryAny";
constexpr std::string_view kAccessibilityBiometryCurrentSet =
    "WhenPasscodeSetThisDeviceOnly;BiometryCurrentSet";
constexpr size_t kP256PointSize = 65;
constexpr size_t kP256ScalarSize = 32;

std::optional<std::string> owned(Keychain::Attribute attribute) {
  if (!attribute) return std::nullopt;
  return std::string(*attribute);
}

Error bioError(std::string_view what, int32_t status) {
  return Error::corvane(status, "Unable " + std::string(what) +
                                    " item to keychain with status : " + std::to_string(status));
}

// The P-256 group, built once: building it (and its Montgomery context) costs more than the
// multiplication it serves. OpenSSL only reads a group during point arithmetic, so one immutable
// group serves every thread.
const EC_GROUP* p256Group() {
  static const EC_GROUP* const group = EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1);
  return group;
}

// True when `scalar` lies in [1, n-1] and `point` (65 bytes, 04 || X || Y) is scalar * G. That
// also proves the point is on the curve and in the group of order n. One fixed-base
// multiplication does it; OpenSSL's full key-pair validation adds a variable-base multiplication
// by n that is implied here and costs more than the signature itself.
bool isPublicPointOf(const BIGNUM* scalar, std::span<const uint8_t> point) {
  const EC_GROUP* group = p256Group();
  if (group == nullptr || BN_is_zero(scalar) || BN_is_negative(scalar) ||
      BN_cmp(scalar, EC_GROUP_get0_order(group)) >= 0) {
    return false;
  }
  // Compared as points, which needs no conversion of the product to affine coordinates; reading
  // the carried point checks that it lies on the curve.
  PointPtr carried(EC_POINT_new(group));
  PointPtr product(EC_POINT_new(group));
  return carried && product &&
         EC_POINT_oct2point(group, carried.get(), point.data(), point.size(), nullptr) == 1 &&
         EC_POINT_mul(group, product.get(), scalar, nullptr, nullptr, nullptr) == 1 &&
         EC_POINT_cmp(group, product.get(), carried.get(), nullptr) == 0;
}

// Imports 04 || X || Y || D as a transient P-256 private key. The private scalar is a secure
// BIGNUM, so the parameter builder puts its copy in the block that OSSL_PARAM_free clears, and the
// key clears its own copy when freed. Absent when the bytes are not a matching P-256 key pair.
// The key is made of the scalar alone: signing needs nothing else, and the point has been checked
// against the scalar already (importing it would only check it again).
PkeyPtr importP256KeyPair(const SecretBytes& raw) {
  const std::span<const uint8_t> bytes = raw.exposeSecret();
  if (bytes.size() != kP256PointSize + kP256ScalarSize || bytes[0] != 0x04) return nullptr;
  BnPtr scalar(BN_secure_new());
  if (!scalar || BN_bin2bn(bytes.data() + kP256PointSize, static_cast<int>(kP256ScalarSize),
                           scalar.get()) == nullptr) {
    return nullptr;
  }
  // The public point must belong to the private scalar, or signatures would not verify.
  if (!isPublicPointOf(scalar.get(), bytes.first(kP256PointSize))) return nullptr;
  ParamBldPtr builder(OSSL_PARAM_BLD_new());
  static char kGroup[] = "prime256v1";
  if (!builder ||
      OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, kGroup, 0) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar.get()) != 1) {
    return nullptr;
  }
  ParamPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
  PkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* made = nullptr;
  if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &made, EVP_PKEY_KEYPAIR, params.get()) != 1) {
    EVP_PKEY_free(made);
    return nullptr;
  }
  return PkeyPtr(made);
}

std::optional<Bytes> signSha256(EVP_PKEY* key, ByteView message) {
  MdCtxPtr context(EVP_MD_CTX_new());
  size_t length = 0;
  if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1 ||
      EVP_DigestSign(context.get(), nullptr, &length, message.data(), message.size()) != 1) {
    return std::nullopt;
  }
  Bytes signature(length);
  if (EVP_DigestSign(context.get(), signature.data(), &length, message.data(), message.size()) !=
      1) {
    return std::nullopt;
  }
  signature.resize(length);
  return signature;
}

}  // namespace

Keychain::Keychain(ItemStore& items, KeyStore& keys, BiometryPort& biometry,
                   const Configuration& configuration, const AttestationKeySource* attestation)
    : items_(items),
      keys_(keys),
      biometry_(biometry),
      configuration_(configuration),
      attestation_(attestation) {}

std::string Keychain::bundleIdentifier() const {
  return configuration_.host().bundleIdentifier();
}

Bytes Keychain::corvaneQueryLabel() const {
  return toBytes(bundleIdentifier() + "." + std::string(kLabelSuffix));
}

Bytes Keychain::corvaneQueryLabelForLastPatternLock() const {
  return toBytes(std::string(kServiceLastPatternLock) + "." + bundleIdentifier() + "." +
                 std::string(kLabelSuffix));
}

Bytes Keychain::labelFor(Attribute service) const {
  if (service && *service == kServiceLastPatternLock) return corvaneQueryLabelForLastPatternLock();
  return corvaneQueryLabel();
}

Error Keychain::storeFailure() {
  return Error::corvane(keychain_status::kIO, "The item store failed.");
}

Result<std::string> Keychain::bundleSeedID() {
  const std::lock_guard<std::mutex> lock(seedMutex_);
  if (bundleSeedID_) return *bundleSeedID_;
  ItemQuery query;
  query.account = std::string(kBundleSeedIdAccount);
  query.service = std::string();
  ItemAttributes found;
  StoreStatus status = items_.findFirstAttributes(query, &found);
  if (status == StoreStatus::notFound) {
    ItemAttributes item;
    item.account = query.account;
    item.service = query.service;
    item.accessibility = std::string(kAccessibleWhenPasscodeSetThisDeviceOnly);
    status = items_.add(item, SecretBytes());
    // Another object over the same store may have added it meanwhile.
    if (status == StoreStatus::ok || status == StoreStatus::duplicate) {
      status = items_.findFirstAttributes(query, &found);
    }
  }
  if (status != StoreStatus::ok) return storeFailure();
  if (!found.accessGroup) {
    return Error::corvane(keychain_status::kMissingEntitlement, "The item has no access group.");
  }
  const std::string& group = *found.accessGroup;
  bundleSeedID_ = group.substr(0, group.find('.'));
  return *bundleSeedID_;
}

namespace {

ItemAttributes installationMarker() {
  ItemAttributes item;
  item.account = std::string(Keychain::kInstallationAccount);
  item.service = std::string(Keychain::kInstallationService);
  item.accessibility = std::string(Keychain::kAccessibleWhenPasscodeSetThisDeviceOnly);
  return item;
}

}  // namespace

Result<bool> Keychain::isInstallationMarked() {
  switch (items_.findFirstAttributes(installationMarker().asQuery(), nullptr)) {
    case StoreStatus::ok:
      return true;
    case StoreStatus::notFound:
      return false;
    case StoreStatus::duplicate:
    case StoreStatus::storeError:
      break;
  }
  return storeFailure();
}

StoreStatus Keychain::markInstallation() {
  const StoreStatus added = items_.add(installationMarker(), SecretBytes());
  return added == StoreStatus::duplicate ? StoreStatus::ok : added;
}

Result<std::string> Keychain::corvaneAccessGroup() {
  Result<std::string> seed = bundleSeedID();
  if (!seed) return seed.error();
  return *seed + "." + bundleIdentifier();
}

Result<ItemAttributes> Keychain::prepareGenericPasswordDictWithAccount(Attribute account,
                                                                       Attribute service,
                                                                       Attribute generic) {
  Result<std::string> group = corvaneAccessGroup();
  if (!group) return group.error();
  ItemAttributes item;
  item.account = owned(account);
  item.service = owned(service);
  item.generic = owned(generic);
  item.accessibility = std::string(kAccessibleWhenPasscodeSetThisDeviceOnly);
  item.label = labelFor(service);
  item.accessGroup = std::move(*group);
  return item;
}

Result<Keychain::BioAuthQuery> Keychain::prepareBioAuthDictWithAccount(Attribute account,
                                                                       Attribute service,
                                                                       Attribute generic,
                                                                       std::string_view bioMsg) {
  Result<std::string> group = corvaneAccessGroup();
  if (!group) return group.error();
  const bool convenience = configuration_.isBiometricSecurityLevelConvenience();
  BioAuthQuery query;
  query.binding =
      convenience ? BiometryBinding::anyEnrolment : BiometryBinding::currentEnrolmentSet;
  query.prompt = std::string(bioMsg);
  query.attributes.account = owned(account);
  query.attributes.service = owned(service);
  query.attributes.generic = owned(generic);
  query.attributes.accessibility =
      std::string(convenience ? kAccessibilityBiometryAny : kAccessibilityBiometryCurrentSet);
  query.attributes.label = corvaneQueryLabel();
  query.attributes.accessGroup = std::move(*group);
  return query;
}

std::optional<Bytes> Keychain::generate256EcKeyPair(std::string_view /*publicTag*/,
                                                    std::string_view privateTag) {
  Result<std::string> group = corvaneAccessGroup();
  if (!group) return std::nullopt;
  KeyAttributes attributes;
  // The label goes into the application label, as the platform's key generation stores it.
  attributes.applicationLabel = corvaneQueryLabel();
  attributes.accessGroup = std::move(*group);
  Bytes publicKey;
  if (keys_.generate(privateTag, attributes, &publicKey) != StoreStatus::ok) return std::nullopt;
  if (publicKey.size() != kP256SpkiSize ||
      !std::equal(std::begin(kP256SpkiPrefix), std::end(kP256SpkiPrefix), publicKey.begin()) ||
      publicKey[sizeof kP256SpkiPrefix] != 0x04) {
    return std::nullopt;
  }
  return publicKey;
}

std::optional<Bytes> Keychain::signWithECDSASignatureMessageX962SHA256(
    ByteView message, std::string_view privateTag) {
  Bytes signature;
  if (keys_.sign(privateTag, message, &signature) != StoreStatus::ok) return std::nullopt;
  return signature;
}

StoreStatus Keychain::deleteKeyPair(std::string_view privateTag) {
  return keys_.removeTag(privateTag);
}

StoreStatus Keychain::deleteGeneratedKeyPairs(const std::string& group) {
  KeyQuery generated;
  generated.applicationLabel = corvaneQueryLabel();
  generated.accessGroup = group;
  return keys_.remove(generated);
}

std::optional<Bytes> Keychain::signSHA256withECDSAX962ForBasicFull(ByteView message) {
  if (attestation_ == nullptr) return std::nullopt;
  const std::lock_guard<std::mutex> lock(attestationMutex_);
  if (!attestationKey_) {
    std::optional<SecretBytes> raw = attestation_->attestationKey();
    if (!raw) return std::nullopt;
    attestationKey_ = importP256KeyPair(*raw);
    raw->clear();
    if (!attestationKey_) return std::nullopt;
  }
  return signSha256(attestationKey_.get(), message);
}

StoreStatus Keychain::insertGenericPasswordWithAccount(Attribute account, Attribute service,
                                                       Attribute generic, const SecretBytes& data) {
  Result<ItemAttributes> item = prepareGenericPasswordDictWithAccount(account, service, generic);
  return item ? items_.add(*item, data) : StoreStatus::storeError;
}

StoreStatus Keychain::insertOrUpdateGenericPasswordWithAccount(Attribute account, Attribute service,
                                                               Attribute generic,
                                                               const SecretBytes& data) {
  Result<ItemAttributes> item = prepareGenericPasswordDictWithAccount(account, service, generic);
  // One transaction: replace the value of the matching item, or add it when there is none.
  return item ? items_.upsert(*item, data) : StoreStatus::storeError;
}

Result<std::optional<SecretBytes>> Keychain::findGenericPasswordWithAccount(Attribute account,
                                                                            Attribute service,
                                                                            Attribute generic) {
  Result<ItemAttributes> item = prepareGenericPasswordDictWithAccount(account, service, generic);
  if (!item) return item.error();
  SecretBytes value;
  switch (items_.findFirst(item->asQuery(), &value)) {
    case StoreStatus::ok:
      return std::optional<SecretBytes>(std::move(value));
    case StoreStatus::notFound:
      return std::optional<SecretBytes>();
    case StoreStatus::duplicate:
    case StoreStatus::storeError:
      break;
  }
  return storeFailure();
}

namespace {

// A listing's outcome: the entries, an empty list for notFound, or the store's failure.
Result<std::vector<std::string>> listed(StoreStatus status, std::vector<std::string>& entries) {
  if (status == StoreStatus::ok) return std::move(entries);
  if (status == StoreStatus::notFound) return std::vector<std::string>();
  return Keychain::storeFailure();
}

}  // namespace

Result<std::vector<std::string>> Keychain::findGenericPasswordServicesDescWithAccount(
    Attribute account, Attribute generic) {
  Result<ItemAttributes> item =
      prepareGenericPasswordDictWithAccount(account, std::nullopt, generic);
  if (!item) return item.error();
  std::vector<std::string> services;
  return listed(items_.listServices(item->asQuery(), &services), services);
}

Result<std::vector<std::string>> Keychain::findGenericPasswordAccountDescWithService(
    Attribute service) {
  Result<ItemAttributes> item =
      prepareGenericPasswordDictWithAccount(std::nullopt, service, std::nullopt);
  if (!item) return item.error();
  std::vector<std::string> accounts;
  return listed(items_.listAccounts(item->asQuery(), &accounts), accounts);
}

StoreStatus Keychain::updateGenericPasswordWithAccount(Attribute account, Attribute service,
                                                       Attribute generic, const SecretBytes& data) {
  Result<ItemAttributes> item = prepareGenericPasswordDictWithAccount(account, service, generic);
  return item ? items_.update(item->asQuery(), data) : StoreStatus::storeError;
}

StoreStatus Keychain::deleteGenericPasswordWithAccount(Attribute account, Attribute service,
                                                       Attribute generic) {
  Result<ItemAttributes> item = prepareGenericPasswordDictWithAccount(account, service, generic);
  return item ? items_.remove(item->asQuery()) : StoreStatus::storeError;
}

bool Keychain::insertBioAuthDataWithAccount(Attribute account, Attribute service, Attribute generic,
                                            const SecretBytes& data, Error* error) {
  Result<BioAuthQuery> query = prepareBioAuthDictWithAccount(account, service, generic, "");
  if (!query) {
    setError(error, bioError("add", static_cast<int32_t>(query.error().code())));
    return false;
  }
  std::vector<uint8_t> protectedForm;
  const BiometryStatus protectedStatus =
      biometry_.protectItem(data, query->binding, &protectedForm);
  if (protectedStatus != BiometryStatus::ok) {
    setError(error, bioError("add", keychain_status::fromBiometryStatus(protectedStatus)));
    return false;
  }
  // The outcome of the delete does not matter: the add below reports what went wrong.
  static_cast<void>(items_.remove(query->attributes.asQuery()));
  const StoreStatus added = items_.add(query->attributes, SecretBytes(protectedForm));
  if (added != StoreStatus::ok) {
    setError(error, bioError("add", keychain_status::fromStoreStatus(added)));
    return false;
  }
  return true;
}

std::optional<SecretBytes> Keychain::findBioAuthDataWithAccount(Attribute account,
                                                                Attribute service,
                                                                Attribute generic,
                                                                std::string_view bioMsg,
                                                                Error* error) {
  Result<BioAuthQuery> query = prepareBioAuthDictWithAccount(account, service, generic, bioMsg);
  if (!query) {
    setError(error, bioError("find", static_cast<int32_t>(query.error().code())));
    return std::nullopt;
  }
  SecretBytes protectedForm;
  int32_t status = keychain_status::fromStoreStatus(
      items_.findFirst(query->attributes.asQuery(), &protectedForm));
  SecretBytes value;
  if (status == keychain_status::kSuccess) {
    status = keychain_status::fromBiometryStatus(
        biometry_.readProtectedItem(protectedForm.exposeSecret(), query->prompt, &value));
  }
  if (status == keychain_status::kSuccess) return value;
  // Not found is also how an item bound to a changed enrolment answers: nothing registered with
  // biometry can be trusted any more, so every registration is dropped.
  if (status == keychain_status::kItemNotFound) static_cast<void>(deregAllDatas());
  setError(error, bioError("find", status));
  return std::nullopt;
}

StoreStatus Keychain::deregAllDatas() {
  Result<std::string> group = corvaneAccessGroup();
  if (!group) return StoreStatus::storeError;
  // The records go first: a key whose records are gone is orphaned, a record whose key is gone
  // would be a registration that can never sign.
  const StoreStatus records = items_.removeLabeled(corvaneQueryLabel(), *group);
  if (records == StoreStatus::storeError) return records;
  const StoreStatus keys = deleteGeneratedKeyPairs(*group);
  if (keys == StoreStatus::storeError) return keys;
  return records == StoreStatus::ok || keys == StoreStatus::ok ? StoreStatus::ok
                                                               : StoreStatus::notFound;
}

StoreStatus Keychain::resetAllKeyChain() {
  Result<std::string> group = corvaneAccessGroup();
  if (!group) return StoreStatus::storeError;
  // Step 1 matches keys on their label attribute while key generation writes the label into the
  // application label; the pairing is kept as it is, so this step removes only keys that carry
  // the label itself. The port's remove answers notFound when the query matches nothing, which
  // is the failed query after which nothing is deleted.
  KeyQuery keys;
  keys.label = corvaneQueryLabel();
  keys.accessGroup = *group;
  bool failed = keys_.remove(keys) == StoreStatus::storeError;
  // Key generation writes the label into the application label, so the step above never reaches
  // the users' keys; this one does, so that no private key outlives the reset.
  failed |= deleteGeneratedKeyPairs(*group) == StoreStatus::storeError;
  failed |= items_.removeLabeled(corvaneQueryLabel(), *group) == StoreStatus::storeError;
  failed |= items_.removeLabeled(corvaneQueryLabelForLastPatternLock(), *group) ==
            StoreStatus::storeError;
  return failed ? StoreStatus::storeError : StoreStatus::ok;
}

Result<std::optional<SecretBytes>> Keychain::getAesEncryptKey() {
  Result<std::optional<SecretBytes>> key =
      findGenericPasswordWithAccount(kAaid, kServiceAuthKeyTag, std::nullopt);
  if (!key || *key) return key;
  return findGenericPasswordWithAccount(kAaid, kServiceEncryptKey, std::nullopt);
}

}  // namespace corvane
