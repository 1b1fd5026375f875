// RpStore: the relying party's state in one SQLite file: the requests it issued (by challenge,
// with their deadline and whether a response already used them), the registered keys and each
// user's white-box secret.
//
// Not thread-safe: one caller at a time (the server serialises its handlers).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane-rp/core/verifier.h"
#include "foundation/result.h"

struct sqlite3;

namespace corvane::rp {

struct PendingRequest {
  std::string requestText;
  int64_t expiresAt = 0;  // seconds since the epoch
  bool used = false;
};

class RpStore {
 public:
  // Opens or creates the file (mode 0600); ":memory:" keeps everything in memory.
  [[nodiscard]] static Result<std::unique_ptr<RpStore>> open(const std::string& path);
  ~RpStore();
  RpStore(const RpStore&) = delete;
  RpStore& operator=(const RpStore&) = delete;

  [[nodiscard]] Result<void> addPending(std::string_view challenge, std::string_view requestText,
                                        int64_t expiresAt);
  [[nodiscard]] Result<std::optional<PendingRequest>> findPending(std::string_view challenge);

  // In one transaction: marks the challenge used, stores `save` (new or raised registrations).
  [[nodiscard]] Result<void> settle(std::string_view challenge,
                                    const std::vector<Registration>& save);

  [[nodiscard]] Result<std::vector<Registration>> registrations();
  [[nodiscard]] Result<void> deleteRegistration(std::string_view aaid, std::string_view keyID);

  // The white-box secret of a user (kept under the SHA-256 hex of the user name).
  [[nodiscard]] Result<std::optional<WbUserSecret>> userSecret(std::string_view username);
  [[nodiscard]] Result<void> saveUserSecret(std::string_view username, const WbUserSecret& secret);

 private:
  explicit RpStore(sqlite3* db) : db_(db) {}
  [[nodiscard]] Result<void> exec(const char* sql);

  sqlite3* db_;
};

}  // namespace corvane::rp
