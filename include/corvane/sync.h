// The inputs of the data sync: the per-user white-box table bundle the server hands a registered
// user (Corvane::syncRegData) and the list of registrations the server wants gone
// (Corvane::syncServerData). Plain values; absent members stand for fields the server left out.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane {

// The two halves of a table bundle. Each is the marker "ZANDREL_FIDO_NO_DATA" (the server has no
// tables for the user) or base64url text of a gzip member holding UTF-8 JSON: data1 the object
// {"Tyboxes", "TboxesLast", "MBL"}, data2 the object {"permutations"}. docs/extensions.md gives
// the shapes.
struct RegData1 {
  std::optional<std::string> data1;
  std::optional<std::string> data2;
};

struct SyncRegDataRequest {
  // The user the tables belong to.
  std::optional<std::string> username;
  std::optional<RegData1> regData1;
};

// One registration the server no longer holds.
struct SyncAuthenticator {
  // The user whose keys go; empty or absent: whoever holds keyID.
  std::optional<std::string> username;
  // The authenticator; empty or absent: the built-in one. Another AAID is skipped.
  std::optional<std::string> aaid;
  // The key; empty or absent: every key of the user. An entry without user and key is skipped.
  std::optional<std::string> keyID;
};

struct SyncServerData {
  // The application whose registrations are meant; required and never widened to every
  // application.
  std::optional<std::string> appID;
  // The registrations to remove. Nothing is removed for an empty list.
  std::vector<SyncAuthenticator> authenticators;
};

}  // namespace corvane
