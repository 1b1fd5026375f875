#include "authenticator/authenticator_info.h"

#include <gtest/gtest.h>

#include "authenticator/generic_authenticator.h"
#include "json/json_model.h"

namespace corvane {
namespace {

using nlohmann::json;

AuthenticatorInfo fullInfo() {
  AuthenticatorInfo info = GenericAuthenticator::getBasicAuthenticatorInfo();
  info.keyIDs = std::vector<std::string>{"a2V5"};
  info.uv = "pattern";
  info.status = 4;
  return info;
}

TEST(AuthenticatorInfoTest, DescriptionNeverDesc) {
  const AuthenticatorInfo info = fullInfo();
  Authenticator authenticator;
  authenticator.aaid = info.aaid;
  authenticator.desc = info.desc;
  const json written = authenticator.toJson();
  EXPECT_EQ(written, json::parse(R"({"aaid":"0F3D#0002","description":"FIDO UAF"})"));
  EXPECT_EQ(Authenticator::fromJson(written), authenticator);
  auto read = Authenticator::fromJson(json::parse(R"({"aaid":"x","desc":"no"})"));
  ASSERT_TRUE(read);
  EXPECT_FALSE(read->desc);
}

// Every key but "aaid" may be left out or null; a value of the wrong type is refused.
TEST(AuthenticatorInfoTest, PresenceAndMistypedValues) {
  const json full = fullInfo().toJson();
  EXPECT_EQ(AuthenticatorInfo::fromJson(full), fullInfo());
  for (const auto& [key, value] : full.items()) {
    SCOPED_TRACE(key);
    json cut = full;
    cut.erase(key);
    Error error;
    std::optional<AuthenticatorInfo> model = AuthenticatorInfo::fromJson(cut, &error);
    if (key == "aaid") {
      EXPECT_FALSE(model);
      EXPECT_EQ(error.code(),
                static_cast<int64_t>(jsonmodel::JSONModelErrorCode::kRequiredKeyMissing));
    } else {
      ASSERT_TRUE(model) << error.localizedDescription();
      EXPECT_EQ(model->toJson(), cut);
      cut[key] = nullptr;
      EXPECT_TRUE(AuthenticatorInfo::fromJson(cut));
    }
    json broken = full;
    broken[key] = value.is_string() ? json(1) : json("1");
    EXPECT_FALSE(AuthenticatorInfo::fromJson(broken, &error));
    EXPECT_EQ(error.domain(), kJSONModelErrorDomain);
  }
  json negative = full;
  negative["keyProtection"] = -1;
  EXPECT_FALSE(AuthenticatorInfo::fromJson(negative));
  negative["keyProtection"] = 65536;
  EXPECT_FALSE(AuthenticatorInfo::fromJson(negative));
}

}  // namespace
}  // namespace corvane
