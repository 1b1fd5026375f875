// The store key: 32 random bytes in a file of the data folder ("keystore.key"), which seals every
// item value of the item store and every private key of the key store (AES-256-GCM, see
// crypto/sealed_box.h). One implementation for both, read once and kept in memory, wiped when the
// last holder lets go.
//
// The file is created on first use: written to a fresh private file (O_EXCL, 0600), fsynced, then
// linked into place, which fails when the name exists, so two processes starting together agree on
// one key and nobody reads half a file. It is read only from a regular file (no symbolic link)
// owned by this user, closed to group and others, of exactly 32 bytes; anything else is an error,
// never a reason to replace the file, since a new key would orphan everything sealed under the old.
//
// Thread-safety: immutable once loaded; may be shared between threads.
#pragma once

#include <memory>
#include <string_view>

#include "corvane/error.h"
#include "corvane/secret_bytes.h"
#include "foundation/private_paths.h"

namespace corvane::linux_platform {

class StoreKey {
 public:
  static constexpr std::string_view kFileName = "keystore.key";
  static constexpr size_t kSize = 32;

  // Reads `name` beneath `directory`, creating it when missing. Null and the error otherwise.
  [[nodiscard]] static std::shared_ptr<const StoreKey> load(const PrivateDirectory& directory,
                                                            std::string_view name, Error* error);

  const SecretBytes& bytes() const { return key_; }

  explicit StoreKey(SecretBytes key) : key_(std::move(key)) {}

 private:
  SecretBytes key_;
};

}  // namespace corvane::linux_platform
