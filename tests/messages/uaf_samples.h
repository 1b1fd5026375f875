// Well-formed UAF request messages that the message tests mutate one field at a time.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace corvane::testing {

inline nlohmann::json sampleHeader(const char* op, int minor = 1) {
  nlohmann::json header = nlohmann::json::parse(
      R"({"upv":{"major":1,"minor":1},"appID":"https://rp.example/facets",
          "serverData":"c2VydmVyLWRhdGE"})");
  header["op"] = op;
  header["upv"]["minor"] = minor;
  return header;
}

inline nlohmann::json samplePolicy() {
  return nlohmann::json::parse(
      R"({"accepted":[[{"aaid":["0F3D#0002"]}]],"disallowed":[{"aaid":["ABCD#0001"]}]})");
}

inline nlohmann::json sampleRegistration(int minor = 1) {
  nlohmann::json message = nlohmann::json::object();
  message["header"] = sampleHeader("Reg", minor);
  message["challenge"] = "Y2hhbGxlbmdl";
  message["username"] = "alice";
  message["policy"] = samplePolicy();
  return message;
}

inline nlohmann::json sampleAuthentication() {
  nlohmann::json message = nlohmann::json::object();
  message["header"] = sampleHeader("Auth");
  message["challenge"] = "Y2hhbGxlbmdl";
  message["policy"] = samplePolicy();
  message["transaction"] =
      nlohmann::json::parse(R"([{"contentType":"text/plain","content":"SGVsbG8"}])");
  return message;
}

inline nlohmann::json sampleDeregistration() {
  nlohmann::json message = nlohmann::json::object();
  message["header"] = sampleHeader("Dereg");
  message["authenticators"] = nlohmann::json::parse(R"([{"aaid":"0F3D#0002","keyID":"a2V5LWlk"}])");
  return message;
}

}  // namespace corvane::testing
