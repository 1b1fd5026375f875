// Small helpers shared by the test suites.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include <stdlib.h>

namespace corvane::testing {

// A fresh directory under the system temp folder, removed with everything in it at scope end.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "corvane-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// The source tree's resources/ folder (the framework bundle).
inline std::filesystem::path resourcesDir() {
  return std::filesystem::path(CORVANE_SOURCE_DIR) / "resources";
}

}  // namespace corvane::testing
