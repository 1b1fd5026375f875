// JSON mapping of AuthenticatorInfo and Authenticator: round trips, key names, which keys are
// required and how mistyped values are refused.
#include "authenticator/authenticator_info.h"

#include <gtest/gtest.h>

#include <string>

#include "authenticator/generic_authenticator.h"
#include "json/json_model.h"

namespace corvane {
namespace {

using nlohmann::json;

AuthenticatorInfo fullInfo() {
  AuthenticatorInfo info = GenericAuthenticator::getBasicAuthenticatorInfo();
  info.tcDisplayPNGCharacteristics = std::vector<DisplayPNGCharacteristicsDescriptor>{
      {200, 100, 8, 3, 0, 0, 0, std::vector<RGBPaletteEntry>{{0, 128, 255}}}};
  info.keyIDs = std::vector<std::string>{"a2V5", "b3R"};
  info.uvs = std::vector<std::string>{"biometry", "pattern"};
  info.uv = "pattern";
  info.status = 4;
  return info;
}

Authenticator fullAuthenticator() {
  const AuthenticatorInfo info = fullInfo();
  return Authenticator{info.title,
                       info.aaid,
                       info.desc,
                       info.asmVersions,
                       info.assertionScheme,
                       info.authenticationAlgorithm,
                       info.attestationTypes,
                       info.userVerification,
                       info.keyProtection,
                       info.matcherProtection,
                       info.attachmentHint,
                       info.isSecondFactorOnly,
                       info.tcDisplay,
                       info.tcDisplayContentType,
                       info.tcDisplayPNGCharacteristics,
                       info.icon,
                       info.supportedExtensionIDs};
}

// A record with nothing but its AAID.
template <class Model>
Model onlyAaid() {
  Model model;
  model.aaid = "0F3D#0002";
  return model;
}

template <class Model>
void expectRoundTrip(const Model& model) {
  Error error;
  EXPECT_EQ(Model::fromJson(model.toJson(), &error), model) << error.localizedDescription();
  EXPECT_EQ(jsonmodel::fromJsonText<Model>(model.toJsonString(), &error), model)
      << error.localizedDescription();
}

TEST(AuthenticatorInfoTest, RoundTrips) {
  expectRoundTrip(fullInfo());
  expectRoundTrip(GenericAuthenticator::getBasicAuthenticatorInfo());
  expectRoundTrip(onlyAaid<AuthenticatorInfo>());
  expectRoundTrip(fullAuthenticator());
  expectRoundTrip(onlyAaid<Authenticator>());
  EXPECT_EQ(onlyAaid<AuthenticatorInfo>().toJson(), json::parse(R"({"aaid":"0F3D#0002"})"));
}

// The keys in the order nlohmann::json keeps them (sorted), space-separated.
std::string keysOf(const json& object) {
  std::string keys;
  for (const auto& [key, value] : object.items()) keys += (keys.empty() ? "" : " ") + key;
  return keys;
}

TEST(AuthenticatorInfoTest, KeysAreTheFieldNames) {
  EXPECT_EQ(keysOf(fullInfo().toJson()),
            "aaid asmVersions assertionScheme attachmentHint attestationTypes "
            "authenticationAlgorithm authenticatorIndex desc hasSettings icon "
            "isRoamingAuthenticator isSecondFactorOnly isUserEnrolled keyIDs keyProtection "
            "matcherProtection status supportedExtensionIDs tcDisplay tcDisplayContentType "
            "tcDisplayPNGCharacteristics title userVerification uv uvs");
  // Authenticator writes its desc as "description", never as "desc".
  const json authenticatorJson = fullAuthenticator().toJson();
  EXPECT_EQ(keysOf(authenticatorJson),
            "aaid assertionScheme attachmentHint attestationTypes authenticationAlgorithm "
            "description icon isSecondFactorOnly keyProtection matcherProtection "
            "supportedExtensionIDs supportedUAFVersions tcDisplay tcDisplayContentType "
            "tcDisplayPNGCharacteristics title userVerification");
  EXPECT_EQ(authenticatorJson.at("description"), "FIDO UAF");
  EXPECT_EQ(fullAuthenticator().toJsonString().find("\"desc\""), std::string::npos);

  // Reading: "description" fills desc; a "desc" key is not the field's key and is ignored.
  auto read = Authenticator::fromJson(json::parse(R"({"aaid":"x","desc":"no"})"));
  ASSERT_TRUE(read);
  EXPECT_FALSE(read->desc);
  read = Authenticator::fromJson(json::parse(R"({"aaid":"x","description":"yes"})"));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->desc, "yes");
}

// Every key but "aaid" may be left out; a missing "aaid" fails with a mapping error.
template <class Model>
void checkPresence(const json& full) {
  for (const auto& [key, value] : full.items()) {
    SCOPED_TRACE(key);
    json cut = full;
    cut.erase(key);
    Error error;
    std::optional<Model> model = Model::fromJson(cut, &error);
    if (key == "aaid") {
      EXPECT_FALSE(model);
      EXPECT_EQ(error.domain(), kJSONModelErrorDomain);
      EXPECT_EQ(error.code(),
                static_cast<int64_t>(jsonmodel::JSONModelErrorCode::kRequiredKeyMissing));
    } else {
      ASSERT_TRUE(model) << error.localizedDescription();
      EXPECT_EQ(model->toJson(), cut);
    }
  }
}

// A value of the wrong JSON type, out of range, or negative where unsigned is refused, in every
// field, top level or nested.
template <class Model>
void checkJunk(const json& full) {
  for (const auto& [key, value] : full.items()) {
    std::vector<json> junk = {json::object(), json::array({json::object()})};
    if (!value.is_string()) junk.push_back("1");
    if (!value.is_boolean()) junk.push_back(true);
    if (!value.is_number()) junk.push_back(1);
    if (value.is_number_unsigned()) {
      junk.push_back(-1);
      junk.push_back(1.5);
      if (value.template get<uint64_t>() <= UINT16_MAX && key != "userVerification" &&
          key != "attachmentHint" && key != "status") {
        junk.push_back(65536);
      }
    }
    if (value.is_array() && !value.empty()) {
      json mixed = value;
      mixed.push_back(value[0].is_string() ? json(7) : json("7"));
      junk.push_back(mixed);
    }
    for (const json& bad : junk) {
      SCOPED_TRACE(key + " = " + bad.dump());
      json broken = full;
      broken[key] = bad;
      Error error;
      EXPECT_FALSE(Model::fromJson(broken, &error));
      EXPECT_EQ(error.domain(), kJSONModelErrorDomain);
    }
  }
}

TEST(AuthenticatorInfoTest, OnlyAaidIsRequired) {
  checkPresence<AuthenticatorInfo>(fullInfo().toJson());
  checkPresence<Authenticator>(fullAuthenticator().toJson());
  // null counts as absent for an optional key.
  json withNull = fullInfo().toJson();
  withNull["title"] = nullptr;
  auto info = AuthenticatorInfo::fromJson(withNull);
  ASSERT_TRUE(info);
  EXPECT_FALSE(info->title);
}

TEST(AuthenticatorInfoTest, MistypedValuesAreRefused) {
  checkJunk<AuthenticatorInfo>(fullInfo().toJson());
  checkJunk<Authenticator>(fullAuthenticator().toJson());
  EXPECT_FALSE(AuthenticatorInfo::fromJson(json::array()));
  EXPECT_FALSE(Authenticator::fromJson("0F3D#0002"));
}

}  // namespace
}  // namespace corvane
