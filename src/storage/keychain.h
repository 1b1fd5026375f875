// Keychain: the one gateway to the secure stores. It keeps the users' P-256 key pairs (through the
// KeyStore port), small secret records as generic-password items (through the ItemStore port),
// biometry-protected items (stored in the ItemStore in the protected form the BiometryPort makes),
// and performs the two signatures of the system: with a user's key and with the attestation key.
//
// Every item it writes carries one label and one access group, so the whole of the system's data
// can be found and wiped by label alone. The object keeps no state of its own: every call builds a
// fresh query, so several Keychain objects over the same stores see the same data.
//
// A failing store is never reported as "no such item": reads answer a Result whose Error (code
// keychain_status::kIO, or kMissingEntitlement when the application has no access group) says the
// store could not be read, and an empty value only when the store answered that nothing matches.
// Writes answer the StoreStatus of the store. The two biometry operations fill an Error whose code
// is the platform keychain status (the constants below). Nothing is logged.
//
// Thread-safety: as the ports it is built on (one call at a time per ItemStore and KeyStore).
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "configuration/configuration.h"
#include "corvane/error.h"
#include "corvane/ports/biometry.h"
#include "corvane/ports/item_store.h"
#include "corvane/ports/key_store.h"
#include "corvane/secret_bytes.h"
#include "crypto/attestation_key_source.h"
#include "crypto/openssl_handles.h"
#include "foundation/result.h"
#include "foundation/utils.h"

namespace corvane {

// Status numbers of the platform keychain, so that error codes match those of a phone port.
namespace keychain_status {
inline constexpr int32_t kSuccess = 0;                     // errSecSuccess
inline constexpr int32_t kIO = -36;                        // errSecIO: the store itself failed
inline constexpr int32_t kUserCanceled = -128;             // errSecUserCanceled
inline constexpr int32_t kAuthFailed = -25293;             // errSecAuthFailed
inline constexpr int32_t kDuplicateItem = -25299;          // errSecDuplicateItem
inline constexpr int32_t kItemNotFound = -25300;           // errSecItemNotFound
inline constexpr int32_t kInteractionNotAllowed = -25308;  // errSecInteractionNotAllowed
inline constexpr int32_t kMissingEntitlement = -34018;     // errSecMissingEntitlement

int32_t fromStoreStatus(StoreStatus status);
int32_t fromBiometryStatus(BiometryStatus status);
}  // namespace keychain_status

class Keychain {
 public:
  // An argument that is absent (std::nullopt) is left out of the query, which widens the match.
  using Attribute = std::optional<std::string_view>;

  static constexpr std::string_view kAaid = "0F3D#0002";
  static constexpr std::string_view kLabelSuffix = "Corvane";
  static constexpr std::string_view kBundleSeedIdAccount = "bundleSeedID";
  static constexpr std::string_view kInstallationAccount = "Corvane.installed";
  static constexpr std::string_view kInstallationService = "corvane.installation";
  static constexpr std::string_view kServiceAuthKeyTag = "AUTHNR.authKeyTag";
  static constexpr std::string_view kServiceEncryptKey = "AUTHNR.encryptKey";
  static constexpr std::string_view kServicePatternLock = "AUTHNR.patternlock";
  static constexpr std::string_view kServiceLastPatternLock = "AUTHNR.last_patternlock";
  // Accessibility written on every item (the platform's "when passcode set, this device only").
  static constexpr std::string_view kAccessibleWhenPasscodeSetThisDeviceOnly =
      "WhenPasscodeSetThisDeviceOnly";

  // A biometry-protected item query: the item's attributes, the binding and the prompt text.
  struct BioAuthQuery {
    ItemAttributes attributes;
    BiometryBinding binding;
    std::string prompt;
  };

  // The ports and the configuration must outlive the Keychain; `attestation` may be null (then the
  // attestation signature is absent).
  Keychain(ItemStore& items, KeyStore& keys, BiometryPort& biometry,
           const Configuration& configuration, const AttestationKeySource* attestation = nullptr);

  // The failure of a store that could not be read or written: code keychain_status::kIO.
  static Error storeFailure();

  // The application-identifier prefix: the first "."-separated piece of the access group that the
  // store gives the item account "bundleSeedID", service "" (added when missing). An error when
  // the store fails (kIO) or gives the item no access group (kMissingEntitlement). The prefix is
  // the application's own and cannot change while it runs: once found, it is kept, so that the
  // reads and writes that need the access group do not look it up again.
  Result<std::string> bundleSeedID();
  // "<bundle seed ID>.<bundle identifier>"; an error without a bundle seed ID, and every operation
  // that writes or reads items then fails (as the platform refuses an access group the
  // application is not entitled to).
  Result<std::string> corvaneAccessGroup();
  // The installation marker: an item (account "Corvane.installed", service
  // "corvane.installation", no label, so that no wipe reaches it) whose presence says the library
  // has run over this store before. A damaged settings file cannot fake its absence; only an item
  // store without it can, and such a store holds nothing a wipe could lose.
  Result<bool> isInstallationMarked();
  StoreStatus markInstallation();

  // UTF-8 of "<bundle identifier>.Corvane".
  Bytes corvaneQueryLabel() const;
  // UTF-8 of "AUTHNR.last_patternlock.<bundle identifier>.Corvane".
  Bytes corvaneQueryLabelForLastPatternLock() const;

  // The query of every generic-password operation; the access group's error without one.
  Result<ItemAttributes> prepareGenericPasswordDictWithAccount(Attribute account, Attribute service,
                                                               Attribute generic);
  // The query of a biometry-protected item: bound to any enrolment when the configured biometric
  // security level is "Convenience", to the current enrolment set otherwise. The access group's
  // error without one.
  Result<BioAuthQuery> prepareBioAuthDictWithAccount(Attribute account, Attribute service,
                                                     Attribute generic, std::string_view bioMsg);

  // A fresh P-256 key pair under `privateTag`; the 91-byte DER SubjectPublicKeyInfo of its public
  // half, or absent. `publicTag` sets nothing: the public key is only returned.
  [[nodiscard]] std::optional<Bytes> generate256EcKeyPair(std::string_view publicTag,
                                                          std::string_view privateTag);
  // ECDSA with SHA-256 of `message` (DER signature) with the key under `privateTag`, or absent.
  [[nodiscard]] std::optional<Bytes> signWithECDSASignatureMessageX962SHA256(
      ByteView message, std::string_view privateTag);
  // Deletes the key pair under `privateTag`: ok, notFound when there is none, storeError.
  StoreStatus deleteKeyPair(std::string_view privateTag);
  // The same with the attestation key, imported at its first use and kept while the Keychain
  // lives.
  [[nodiscard]] std::optional<Bytes> signSHA256withECDSAX962ForBasicFull(ByteView message);

  // Adds an item: ok, duplicate when it exists already, storeError.
  StoreStatus insertGenericPasswordWithAccount(Attribute account, Attribute service,
                                               Attribute generic, const SecretBytes& data);
  // Adds the item, or replaces its value when it exists: ok or storeError.
  StoreStatus insertOrUpdateGenericPasswordWithAccount(Attribute account, Attribute service,
                                                       Attribute generic, const SecretBytes& data);
  // The value of the first match; empty when nothing matches.
  Result<std::optional<SecretBytes>> findGenericPasswordWithAccount(Attribute account,
                                                                    Attribute service,
                                                                    Attribute generic);
  // Services (or accounts) of all matches, newest first; an empty list when nothing matches.
  Result<std::vector<std::string>> findGenericPasswordServicesDescWithAccount(Attribute account,
                                                                              Attribute generic);
  Result<std::vector<std::string>> findGenericPasswordAccountDescWithService(Attribute service);
  // Replaces the value of every match: ok, notFound when nothing matched, storeError.
  StoreStatus updateGenericPasswordWithAccount(Attribute account, Attribute service,
                                               Attribute generic, const SecretBytes& data);
  // Deletes every match: ok, notFound when nothing matched, storeError.
  StoreStatus deleteGenericPasswordWithAccount(Attribute account, Attribute service,
                                               Attribute generic);

  // Protects `data` with biometry and stores it in place of any matching item. On failure the
  // error is "Unable add item to keychain with status : <status>" with the status as its code.
  [[nodiscard]] bool insertBioAuthDataWithAccount(Attribute account, Attribute service,
                                                  Attribute generic, const SecretBytes& data,
                                                  Error* error);
  // Reads a biometry-protected item, which shows the prompt `bioMsg`. On failure the error is
  // "Unable find item to keychain with status : <status>"; when the item is not found (also the
  // answer for an item whose enrolment binding was invalidated) every generic-password item of
  // the system is wiped first (deregAllDatas).
  [[nodiscard]] std::optional<SecretBytes> findBioAuthDataWithAccount(Attribute account,
                                                                      Attribute service,
                                                                      Attribute generic,
                                                                      std::string_view bioMsg,
                                                                      Error* error);

  // A transaction on the item store for the life of the returned scope (ItemStoreTransaction):
  // the writes of this Keychain, and the key store's when it keeps its keys in the same store
  // (the Linux platform does), land in one commit or not at all.
  ItemStoreTransaction transaction() { return ItemStoreTransaction(items_); }

  // Deletes every generic-password item with the label and access group (the last-pattern items
  // carry another label and stay), and the key pairs those records named: ok, notFound when
  // there was nothing, storeError.
  StoreStatus deregAllDatas();
  // Deletes everything the system owns, key pairs included (see docs/keychain.md): ok, or
  // storeError when a step failed (the others still run).
  StoreStatus resetAllKeyChain();
  // The authenticators' encryption key: account "0F3D#0002", service "AUTHNR.authKeyTag", else
  // the older service "AUTHNR.encryptKey"; empty when neither exists. A failing read of the first
  // is an error, never a reason to fall back to the second.
  Result<std::optional<SecretBytes>> getAesEncryptKey();

 private:
  std::string bundleIdentifier() const;
  Bytes labelFor(Attribute service) const;
  // Deletes the key pairs key generation wrote: those whose application label is the library's
  // label, in `group`.
  StoreStatus deleteGeneratedKeyPairs(const std::string& group);

  ItemStore& items_;
  KeyStore& keys_;
  BiometryPort& biometry_;
  const Configuration& configuration_;
  const AttestationKeySource* attestation_;
  std::mutex seedMutex_;
  std::optional<std::string> bundleSeedID_;  // guarded by seedMutex_
  // The attestation key, decoded at its first use and kept, as the key store keeps the users'
  // decoded keys: decoding it costs more than the signature.
  std::mutex attestationMutex_;
  PkeyPtr attestationKey_;  // guarded by attestationMutex_
};

}  // namespace corvane
