// The default Platform on Linux: every port backed by a real Linux implementation, with the
// application's data in one private folder.
//
//   <data directory>/                 0700, opened once and held; its ancestors must be closed to
//                                     other users (a root-owned sticky folder such as /tmp is fine)
//     items.sqlite                    the item store (SQLite, WAL; -wal and -shm beside it), 0600,
//                                     every value sealed under the store key
//     keystore.key                    the store key, sealing item values and private keys, 0600
//     defaults.json                   the user defaults, 0600, written on first flush
//     Database/Model.sqlite           the record database (the users' white-box tables), 0700
//                                     folder and 0600 file, made on first use
//
// Every store file but the record database is opened relative to the held folder descriptor
// without following a link; the record database is reached by its path
// (Platform::recordDatabaseDirectory) and checks the whole path again each time it opens.
//
// Ports: SQLite item store, OpenSSL key store (its keys sealed inside the item store, through the
// same connection, so a key and its records land in one commit), fprintd or no biometry
// (options.biometry), the host's and Corvane's bundle folders, the defaults file, the
// CLOCK_BOOTTIME clock, uname for the device and libcurl for HTTPS.
//
// The namespace is `corvane::linux_platform`: the GNU dialects (-std=gnu++20, g++'s default)
// predefine a macro `linux`, so a namespace of that name could not be spelled there.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/error.h"
#include "corvane/platform_value.h"

namespace corvane::linux_platform {

inline constexpr std::string_view kItemStoreFileName = "items.sqlite";
inline constexpr std::string_view kKeyStoreKeyFileName = "keystore.key";
inline constexpr std::string_view kUserDefaultsFileName = "defaults.json";
// The application-identifier prefix of the item store's default access group when the host sets
// none (the Keychain reads it back as the bundle seed ID).
inline constexpr std::string_view kDefaultTeamId = "CORVANELNX";

// Which biometry the platform talks to.
enum class LinuxBiometry {
  none,     // no biometry: the biometric authenticator is not offered
  fprintd,  // the fingerprint daemon on the system D-Bus; without it or without a reader, the
            // same as none
};

struct LinuxPlatformOptions {
  // The host application's bundle folder (Info.plist with a CFBundleIdentifier, string tables,
  // resources). Required.
  std::filesystem::path hostBundleDirectory;
  // Where the stores live; default defaultDataDirectory(<bundle identifier>).
  std::optional<std::filesystem::path> dataDirectory;
  // Corvane's own bundle folder; default defaultFrameworkBundleDirectory().
  std::optional<std::filesystem::path> frameworkBundleDirectory;
  // The team identifier in front of the bundle identifier in the items' access group: ASCII
  // letters and digits only, since the bundle seed ID is read back as the text before the first
  // ".".
  std::string teamId = std::string(kDefaultTeamId);
  // True: every item-store write reaches the disk before the call returns (survives a power
  // loss). False: a write survives the process being killed but the last ones may be lost on
  // power loss; faster.
  bool durableWrites = true;
  // Whether the user's login counts as a device passcode (the pattern lock is offered only then).
  // True for a normal login session; false for a session nobody authenticated to.
  bool passcodeSet = true;
  // Shows the pattern and transaction screens (a terminal, a window, a test script). Without one
  // the pattern lock is not offered.
  std::shared_ptr<ScreenPresenter> screenPresenter;
  // The user's languages, best first ("fr-CA", "de"), which pick the bundles' localizations;
  // default: LANGUAGE, LC_ALL, LC_MESSAGES or LANG.
  std::optional<std::vector<std::string>> userLanguages;
  // The biometry behind the biometric authenticator.
  LinuxBiometry biometry = LinuxBiometry::none;
  // With fprintd: receives the prompt text when a fingerprint scan starts, on the background
  // thread (fprintd shows nothing itself). May be empty.
  std::function<void(std::string_view prompt)> biometryPrompt;
  // A PEM file of CA certificates that the HTTP client trusts besides the system's store (a
  // private deployment's CA, a test CA). Read once, when the platform is made.
  std::optional<std::filesystem::path> extraCaFile;
};

// Opens or creates every port. Absent, with the error, when the host bundle cannot be opened or
// has no usable CFBundleIdentifier, the framework bundle cannot be opened, the team identifier is
// malformed, the data folder cannot be made private or sits under a folder that another user can
// change (the error names that folder), a store in it cannot be made or opened, or the extra CA
// file cannot be read or holds no certificate.
[[nodiscard]] std::optional<Platform> makePlatform(const LinuxPlatformOptions& options,
                                                   Error* error);

// "$XDG_DATA_HOME/corvane/<bundle identifier>" when XDG_DATA_HOME is an absolute path, else
// "$HOME/.local/share/corvane/<bundle identifier>" (the home folder from the password database
// when HOME is unset or relative). Absent, with the error, when the bundle identifier cannot be a
// folder name (empty, ".", "..", or holding "/" or NUL) or no home folder is known.
[[nodiscard]] std::optional<std::filesystem::path> defaultDataDirectory(
    std::string_view bundleIdentifier, Error* error);
// The same rule over given values instead of the environment (absent for an unset variable).
[[nodiscard]] std::optional<std::filesystem::path> defaultDataDirectory(
    std::string_view bundleIdentifier, std::optional<std::string_view> xdgDataHome,
    std::optional<std::string_view> home, Error* error);

// Where `cmake --install` puts Corvane's bundle: "<prefix>/share/corvane/Corvane.bundle".
std::filesystem::path defaultFrameworkBundleDirectory();

}  // namespace corvane::linux_platform
