// GenericAuthenticator: the catalogue of the built-in authenticators. They share one AAID and one
// metadata record and differ only in their user-verification index: 1 biometry, 2 pattern.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "authenticator/authenticator_info.h"
#include "configuration/configuration.h"

namespace corvane {

class GenericAuthenticator {
 public:
  static constexpr std::string_view kAaid = "0F3D#0002";
  static constexpr std::string_view kAssertionScheme = "UAFV1TLV";
  static constexpr uint64_t kUserVerificationBiometry = 1;
  static constexpr uint64_t kUserVerificationPattern = 2;
  static constexpr std::string_view kBiometry = "biometry";
  static constexpr std::string_view kPattern = "pattern";
  // Prefixes of the records of one registration, joined with "." to the base64url key ID (the
  // service) and to the user hash (the generic attribute): the ASM's, the authenticator's, and
  // the authenticator's last sign time.
  static constexpr std::string_view kAsmData = "ASMKH.data";
  static constexpr std::string_view kAuthenticatorData = "AUTHNR.data";
  static constexpr std::string_view kSignTime = "AUTHNR.signtime";
  static constexpr std::array<std::string_view, 3> kRegistrationRecords = {
      kAsmData, kAuthenticatorData, kSignTime};

  // Name to index: "biometry" 1, "pattern" 2.
  static const std::map<std::string, uint64_t, std::less<>>& listAllUserVerification();
  // Index to name: 1 "biometry", 2 "pattern".
  static const std::map<uint64_t, std::string>& listAllUserVerificationString();
  // 0 for an unknown name.
  static uint64_t getUserVerificationWithString(std::string_view name);
  [[nodiscard]] static std::optional<std::string> userVerificationString(uint64_t index);
  // Whether the method is switched on in the host's configuration; any index other than 1 and 2
  // is active.
  static bool checkUserVerificationActive(uint64_t index, const Configuration& configuration);
  // A new record with the basic values at each call.
  static AuthenticatorInfo getBasicAuthenticatorInfo();
  // Index to record: 1 and 2 both to one shared, immutable basic record, made once.
  static const std::map<uint64_t, std::shared_ptr<const AuthenticatorInfo>>&
  listAllBasicAuthenticatorInfo();
  // The "data:image/png;base64,..." URL of the authenticator's 100 by 35 logo.
  static std::string_view icon();

  // The key-store tags of a user's key pair: "<facet ID>.0F3D#0002.PRI.<user hash>" and the same
  // with "PUB". One pair per user and caller; the public tag names nothing that is stored.
  static std::string privateKeyTag(std::string_view facetID, std::string_view userHash);
  static std::string publicKeyTag(std::string_view facetID, std::string_view userHash);
};

}  // namespace corvane
