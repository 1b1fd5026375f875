#include "authenticator/generic_authenticator.h"

#include "client/messages/extension.h"
#include "client/messages/transaction.h"
#include "client/messages/version.h"

namespace corvane {

namespace {

// UAF registry values of the built-in authenticators' metadata.
constexpr uint16_t kAuthenticatorIndex = 8;
constexpr uint16_t kUafAlgSignSecp256r1EcdsaSha256Der = 0x0002;
constexpr uint64_t kTagAttestationBasicFull = 0x3E07;
constexpr uint64_t kUserVerifyFingerprint = 0x02;
constexpr uint64_t kUserVerifyFaceprint = 0x10;
constexpr uint64_t kUserVerifyPattern = 0x80;
constexpr uint16_t kKeyProtectionSoftware = 0x0001;
constexpr uint16_t kMatcherProtectionSoftware = 0x0001;
constexpr uint64_t kAttachmentHintInternal = 0x0001;
constexpr uint16_t kTransactionConfirmationDisplayPrivilegedSoftware = 0x0002;
constexpr std::string_view kTitle = "FIDO UAF";

}  // namespace

const std::map<std::string, uint64_t, std::less<>>&
GenericAuthenticator::listAllUserVerification() {
  static const std::map<std::string, uint64_t, std::less<>> kMap = {
      {std::string(kBiometry), kUserVerificationBiometry},
      {std::string(kPattern), kUserVerificationPattern},
  };
  return kMap;
}

const std::map<uint64_t, std::string>& GenericAuthenticator::listAllUserVerificationString() {
  static const std::map<uint64_t, std::string> kMap = {
      {kUserVerificationBiometry, std::string(kBiometry)},
      {kUserVerificationPattern, std::string(kPattern)},
  };
  return kMap;
}

uint64_t GenericAuthenticator::getUserVerificationWithString(std::string_view name) {
  const auto& names = listAllUserVerification();
  auto it = names.find(name);
  return it == names.end() ? 0 : it->second;
}

std::optional<std::string> GenericAuthenticator::userVerificationString(uint64_t index) {
  const auto& indices = listAllUserVerificationString();
  auto it = indices.find(index);
  if (it == indices.end()) return std::nullopt;
  return it->second;
}

bool GenericAuthenticator::checkUserVerificationActive(uint64_t index,
                                                       const Configuration& configuration) {
  // Decide the "any other index" case here, before narrowing to the configuration's int: a large
  // index must not wrap onto 1 or 2.
  if (index != kUserVerificationBiometry && index != kUserVerificationPattern) return true;
  return configuration.checkUserVerificationActive(static_cast<int>(index));
}

AuthenticatorInfo GenericAuthenticator::getBasicAuthenticatorInfo() {
  AuthenticatorInfo info;
  info.authenticatorIndex = kAuthenticatorIndex;
  info.asmVersions = std::vector<Version>{Version::getClientSupportedVersion()};
  info.isUserEnrolled = false;
  info.hasSettings = false;
  info.aaid = std::string(kAaid);
  info.assertionScheme = std::string(kAssertionScheme);
  info.authenticationAlgorithm = kUafAlgSignSecp256r1EcdsaSha256Der;
  info.attestationTypes = std::vector<uint64_t>{kTagAttestationBasicFull};
  info.userVerification = kUserVerifyPattern | kUserVerifyFaceprint | kUserVerifyFingerprint;
  info.keyProtection = kKeyProtectionSoftware;
  info.matcherProtection = kMatcherProtectionSoftware;
  info.attachmentHint = kAttachmentHintInternal;
  info.isSecondFactorOnly = false;
  info.isRoamingAuthenticator = false;
  info.supportedExtensionIDs = Extension::getClientSupportedExtensionId();
  info.tcDisplay = kTransactionConfirmationDisplayPrivilegedSoftware;
  info.tcDisplayContentType = std::string(kTransactionContentTypeText);
  info.title = std::string(kTitle);
  info.desc = std::string(kTitle);
  info.icon = std::string(icon());
  return info;
}

const std::map<uint64_t, std::shared_ptr<const AuthenticatorInfo>>&
GenericAuthenticator::listAllBasicAuthenticatorInfo() {
  // Made once and never changed, so sharing it between threads and between Corvane objects is
  // safe; callers that need to fill in uv or status take getBasicAuthenticatorInfo() instead.
  static const std::map<uint64_t, std::shared_ptr<const AuthenticatorInfo>> kMap = [] {
    auto shared = std::make_shared<const AuthenticatorInfo>(getBasicAuthenticatorInfo());
    return std::map<uint64_t, std::shared_ptr<const AuthenticatorInfo>>{
        {kUserVerificationPattern, shared},
        {kUserVerificationBiometry, shared},
    };
  }();
  return kMap;
}

namespace {

std::string keyTag(std::string_view facetID, std::string_view half, std::string_view userHash) {
  std::string tag;
  tag.reserve(facetID.size() + userHash.size() + 20);
  tag.append(facetID).append(".").append(GenericAuthenticator::kAaid).append(".");
  return tag.append(half).append(".").append(userHash);
}

}  // namespace

std::string GenericAuthenticator::privateKeyTag(std::string_view facetID,
                                                std::string_view userHash) {
  return keyTag(facetID, "PRI", userHash);
}

std::string GenericAuthenticator::publicKeyTag(std::string_view facetID,
                                               std::string_view userHash) {
  return keyTag(facetID, "PUB", userHash);
}

}  // namespace corvane
