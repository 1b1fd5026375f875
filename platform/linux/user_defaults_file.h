// The Linux UserDefaults: one JSON object in a file, e.g. <data dir>/defaults.json.
//
// Values are read once when the file is opened and kept in memory; set and remove change memory
// and synchronize() replaces the file atomically (write a temporary file in the same folder,
// fsync, rename over the old one, fsync the folder), so a crash leaves either the old or the new
// file, never a mix. The file is created 0600; missing folders are created 0700.
//
// A file that exists but cannot be read as a JSON object (corrupt, truncated, too large, not a
// regular file, unreadable) reads as empty, loadError() says why, and the file is left untouched
// on disk until the next successful synchronize() with changes replaces it.
// Pending changes are also written, best effort, when the object is destroyed.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/error.h"
#include "corvane/platform.h"
#include "foundation/private_paths.h"

namespace corvane::linux_platform {

class UserDefaultsFile final : public UserDefaults {
 public:
  // Opens (without creating) the file at `path`, creating its missing folders with mode 0700.
  // Null and the error when a folder cannot be created.
  static std::unique_ptr<UserDefaultsFile> open(const std::filesystem::path& path, Error* error);
  // Opens (without creating) the file `name` beneath the held `folder`; the file is only ever
  // reached through the folder's descriptor, without following a symbolic link.
  static std::unique_ptr<UserDefaultsFile> open(std::shared_ptr<const PrivateDirectory> folder,
                                                std::string_view name, Error* error);
  ~UserDefaultsFile() override;

  UserDefaultsFile(const UserDefaultsFile&) = delete;
  UserDefaultsFile& operator=(const UserDefaultsFile&) = delete;

  bool getBool(std::string_view key) const override;
  void setBool(std::string_view key, bool value) override;
  [[nodiscard]] std::optional<std::string> getString(std::string_view key) const override;
  void setString(std::string_view key, std::string_view value) override;
  void remove(std::string_view key) override;
  // True without touching the file when nothing changed since the last successful write.
  [[nodiscard]] bool synchronize(Error* error) override;

  const std::filesystem::path& path() const { return path_; }
  // Set when the file existed at opening but could not be read as a JSON object, until the next
  // successful write.
  [[nodiscard]] std::optional<Error> loadError() const override;

 private:
  struct State;
  UserDefaultsFile(std::filesystem::path path, std::unique_ptr<State> state);
  [[nodiscard]] bool writeLocked(Error* error);

  std::filesystem::path path_;
  std::unique_ptr<State> state_;
};

}  // namespace corvane::linux_platform
