// A client stand-in for the relying-party tests: it answers the relying party's requests with
// assertions made by the library's own TlvHelper over a Keychain with the development
// attestation key, as the built-in authenticators make them. Every step can be bent (another
// facet ID, another counter, a transaction hash over other text, a change to the assertion bytes)
// to make the responses the relying party must refuse.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "authenticator/tlv_helper.h"
#include "client/messages/fc_params.h"
#include "corvane-rp/core/wb_extension.h"
#include "crypto/aes_wb_helper.h"
#include "crypto/attestation_material.h"
#include "foundation/utils.h"
#include "storage/keychain_rig.h"
#include "tablegen/whitebox_generator.h"

namespace corvane::testing {

inline constexpr std::string_view kRpAppID = "https://rp.example.test/facets.json";
inline constexpr std::string_view kRpFacetID = "android:apk-key-hash:corvane-test";

struct Bend {
  std::optional<std::string> facetID{};           // fcParams facetID (default kRpFacetID)
  std::optional<std::string> appID{};             // fcParams appID (default the request's)
  std::optional<std::string> transactionText{};   // text hashed into the sign assertion
  std::optional<std::string> wbEncryptionData{};  // wb_encryption data to sign (base64url)
  std::function<void(Bytes&)> assertion{};        // applied to the assertion bytes
};

class RpDriver {
 public:
  bool ready() const { return publicKey_.size() == 91; }

  // The key ID the messages carry: the 64 random hex characters of TAG_KEYID.
  std::string keyID() const { return Utils::base64URLSafeStringFromData(asBytes(keyText_)); }

  std::string registrationResponse(const std::string& request, const Bend& bend = {}) {
    return respond(request, bend, [&](AssertionFields& fields) {
      fields.publicKey = publicKey_;
      fields.signCounter = 1;
      fields.regCounter = 1;
      std::optional<std::string> text = helper_.getRegAssertions(fields, kTag);
      return text ? Utils::decodeBase64Url(*text).value_or(Bytes()) : Bytes();
    });
  }

  std::string signResponse(const std::string& request, uint64_t counter, const Bend& bend = {}) {
    return respond(request, bend, [&](AssertionFields& fields) {
      fields.signCounter = counter;
      const nlohmann::json message = nlohmann::json::parse(request)[0];
      std::optional<std::string> text = bend.transactionText;
      if (!text && message.contains("transaction")) {
        const std::string content = message["transaction"][0]["content"];
        text = std::string(asText(Utils::decodeBase64Url(content).value_or(Bytes())));
      }
      if (text) {
        const auto hash = Utils::sha256BackData(*text);
        fields.tcHash = Bytes(hash.begin(), hash.end());
        fields.isTxAuth = true;
      }
      if (bend.wbEncryptionData) {
        fields.exts = {{"wb_encryption", *bend.wbEncryptionData, false}};
      }
      std::optional<std::string> assertion = helper_.getAuthAssertions(fields, kTag);
      return assertion ? Utils::decodeBase64Url(*assertion).value_or(Bytes()) : Bytes();
    });
  }

  // What a client sends back in the "wb_encryption" extension: `plain` enciphered with the user's
  // tables (made here from the relying party's secret, as the bundle is) under the IV of the
  // request's challenge, as hex.
  static std::string wbCipher(const rp::WbUserSecret& secret, const std::string& request,
                              std::string_view plain) {
    namespace wb = whitebox;
    const std::string challenge = nlohmann::json::parse(request)[0]["challenge"];
    const auto authXor = wb::authXorFromBlob(wb::builtinBlob());
    const auto codebook = authXor ? wb::XorCodebook::recover(*authXor) : std::nullopt;
    const auto tables = codebook ? wb::generateRoundTables(secret.key, *codebook) : std::nullopt;
    if (!tables) return "";
    const std::optional<Bytes> cipher = AesWBHelper::encryptAesWB(
        asBytes(plain), AesWBHelper::generateIV(challenge), tables->tyboxes, tables->tboxesLast,
        tables->mbl, secret.externalEncoding);
    return cipher ? Utils::base64URLSafeStringFromData(*cipher) : "";
  }

  static Bytes assertionOf(const std::string& response) {
    const nlohmann::json message = nlohmann::json::parse(response);
    return Utils::decodeBase64Url(message[0]["assertions"][0]["assertion"].get<std::string>())
        .value_or(Bytes());
  }

 private:
  static constexpr std::string_view kTag = "app.0F3D#0002.PRI.user";

  std::string respond(const std::string& request, const Bend& bend,
                      const std::function<Bytes(AssertionFields&)>& build) {
    const nlohmann::json message = nlohmann::json::parse(request)[0];
    const std::string challenge = message["challenge"];
    const std::string facet = bend.facetID.value_or(std::string(kRpFacetID));
    const std::string fcJson = finalChallengeParamsJson(
        bend.appID.value_or(message["header"]["appID"].get<std::string>()), challenge, facet);
    const std::string fcParams = Utils::base64URLSafeStringFromData(asBytes(fcJson));
    AssertionFields fields;
    fields.aaid = "0F3D#0002";
    const auto hash = Utils::sha256BackData(fcParams);
    fields.finalChallengeHash = Bytes(hash.begin(), hash.end());
    fields.keyID = keyText_;
    Bytes assertion = build(fields);
    if (bend.assertion) bend.assertion(assertion);
    nlohmann::json response = {{"header", message["header"]},
                               {"fcParams", fcParams},
                               {"assertions",
                                {{{"assertionScheme", "UAFV1TLV"},
                                  {"assertion", Utils::base64URLSafeStringFromData(assertion)}}}}};
    return nlohmann::json::array({response}).dump();
  }

  KeychainRig rig_{StoreKind::fake};
  WhiteboxAttestationKeySource source_;
  Keychain attesting_{rig_.items(), rig_.keys, rig_.biometry, rig_.configuration, &source_};
  TlvHelper helper_{attesting_};
  Bytes publicKey_ = attesting_.generate256EcKeyPair("pub", kTag).value_or(Bytes());
  std::string keyText_ = hexadecimalString(Utils::randomBytesWithLength(32).value_or(Bytes(32)));
};

}  // namespace corvane::testing
