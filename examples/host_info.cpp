// A minimal host of the installed library: builds a Corvane over the Linux platform and prints the
// SDK version and the device model.
//
// Everything the program writes (the host bundle it describes itself with, the item store, the
// key store's key, the user defaults) lives in a private temporary folder that is removed on
// exit, so it never touches a real user's data and can run anywhere, CI included.
//
// The framework bundle is the one the package installed: the build passes its folder in
// CORVANE_EXAMPLE_FRAMEWORK_BUNDLE (the CMake package's corvane_FRAMEWORK_BUNDLE_DIR, the
// pkg-config variable "bundledir"), so an installation moved to another prefix still works.
// Without it the library's built-in default applies.
#include <corvane/corvane.h>
#include <corvane/linux_platform.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

// A folder only this process can read (mkdtemp makes it 0700), removed with everything in it.
class PrivateTempDir {
 public:
  PrivateTempDir() {
    std::error_code ec;
    fs::path base = fs::temp_directory_path(ec);
    if (ec) base = "/tmp";
    std::string pattern = (base / "corvane-example-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~PrivateTempDir() {
    std::error_code ec;
    if (!path_.empty()) fs::remove_all(path_, ec);
  }
  PrivateTempDir(const PrivateTempDir&) = delete;
  PrivateTempDir& operator=(const PrivateTempDir&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// The host application's bundle: an Info.plist that names the application.
bool writeHostBundle(const fs::path& bundle) {
  std::error_code ec;
  fs::create_directories(bundle, ec);
  if (ec) return false;
  std::ofstream plist(bundle / "Info.plist", std::ios::binary | std::ios::trunc);
  plist << R"(<?xml version="1.0" encoding="UTF-8"?>)"
           "\n"
           R"(<plist version="1.0"><dict>)"
           "<key>CFBundleIdentifier</key><string>com.example.corvane.hostinfo</string>"
           "<key>CFBundleName</key><string>HostInfo</string>"
           "</dict></plist>\n";
  plist.close();
  return static_cast<bool>(plist);
}

}  // namespace

int main() {
  PrivateTempDir temp;
  if (temp.path().empty()) {
    std::cerr << "cannot create a temporary folder\n";
    return 1;
  }
  if (!writeHostBundle(temp.path() / "HostInfo.app")) {
    std::cerr << "cannot write the host bundle\n";
    return 1;
  }

  corvane::linux_platform::LinuxPlatformOptions options;
  options.hostBundleDirectory = temp.path() / "HostInfo.app";
  options.dataDirectory = temp.path() / "data";
#ifdef CORVANE_EXAMPLE_FRAMEWORK_BUNDLE
  options.frameworkBundleDirectory = fs::path(CORVANE_EXAMPLE_FRAMEWORK_BUNDLE);
#endif
  // The folder is thrown away on exit: no need to wait for the disk on every write.
  options.durableWrites = false;

  corvane::Error error;
  std::optional<corvane::Platform> platform =
      corvane::linux_platform::makePlatform(options, &error);
  if (!platform) {
    std::cerr << "makePlatform failed (" << error.code() << "): " << error.localizedDescription()
              << "\n";
    return 1;
  }
  std::unique_ptr<corvane::Corvane> sdk =
      corvane::Corvane::create(nullptr, std::move(*platform), &error);
  if (!sdk) {
    std::cerr << "Corvane::create failed (" << error.code() << "): " << error.localizedDescription()
              << "\n";
    return 1;
  }

  const std::string version = sdk->getRunningSDKVersion();
  const std::string model = sdk->getDeviceModelName();
  std::cout << "Corvane SDK version: " << version << "\n"
            << "Device model: " << model << "\n";
  // An empty answer means the framework bundle or the device could not be read.
  return version.empty() || model.empty() ? 1 : 0;
}
