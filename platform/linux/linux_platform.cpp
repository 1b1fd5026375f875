#include "corvane/linux_platform.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "corvane/linux_event_loop.h"
#include "corvane/status_codes.h"
#include "foundation/private_paths.h"
#include "linux/boottime_clock.h"
#include "linux/bundle_directory.h"
#include "linux/curl_http_client.h"
#include "linux/fprintd_biometry.h"
#include "linux/linux_device_info.h"
#include "linux/no_biometry.h"
#include "linux/openssl_key_store.h"
#include "linux/sqlite_item_store.h"
#include "linux/store_key.h"
#include "linux/user_defaults_file.h"

// The build passes the installed location of resources/ (see install() in CMakeLists.txt).
#ifndef CORVANE_FRAMEWORK_BUNDLE_DIR
#error "CORVANE_FRAMEWORK_BUNDLE_DIR must name the installed framework bundle folder"
#endif

namespace corvane::linux_platform {

static_assert(kDefaultTeamId == SqliteItemStore::kDefaultTeamId);
static_assert(kKeyStoreKeyFileName == OpenSslKeyStore::kKeyFileName);

namespace {

Error platformError(std::string message) {
  return Error::corvane(code(CorvaneStatusCode::UNKNOWN), std::move(message));
}

// Fills the slot with `inner` prefixed by what was being done, keeping its domain and code.
void failWith(Error* error, std::string_view what, const Error& inner) {
  std::string message(what);
  if (!inner.localizedDescription().empty()) message += ": " + inner.localizedDescription();
  setError(error, Error(inner.domain(), inner.code(), std::move(message)));
}

bool isTeamId(std::string_view teamId) {
  if (teamId.empty()) return false;
  for (char c : teamId) {
    const bool alphanumeric =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    if (!alphanumeric) return false;
  }
  return true;
}

bool isFolderName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

bool isAbsolute(std::optional<std::string_view> path) {
  return path && !path->empty() && path->front() == '/';
}

// The home folder from the password database; absent when there is no entry.
std::optional<std::string> homeFromPasswordDatabase() {
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr || found->pw_dir == nullptr) {
    return std::nullopt;
  }
  return std::string(found->pw_dir);
}

std::unique_ptr<BundleDirectory> openBundle(
    const std::filesystem::path& root, const std::optional<std::vector<std::string>>& languages,
    Error* error) {
  return languages ? BundleDirectory::open(root, *languages, error)
                   : BundleDirectory::open(root, error);
}

}  // namespace

std::optional<std::filesystem::path> defaultDataDirectory(
    std::string_view bundleIdentifier, std::optional<std::string_view> xdgDataHome,
    std::optional<std::string_view> home, Error* error) {
  if (!isFolderName(bundleIdentifier)) {
    setError(error, platformError("The bundle identifier \"" + std::string(bundleIdentifier) +
                                  "\" cannot name a data folder"));
    return std::nullopt;
  }
  // The base directory rules: an unset, empty or relative XDG_DATA_HOME is ignored.
  std::filesystem::path base;
  if (isAbsolute(xdgDataHome)) {
    base = std::filesystem::path(*xdgDataHome);
  } else if (isAbsolute(home)) {
    base = std::filesystem::path(*home) / ".local" / "share";
  } else {
    setError(error, platformError("No data folder: neither XDG_DATA_HOME nor a home folder is an "
                                  "absolute path"));
    return std::nullopt;
  }
  return base / "corvane" / std::string(bundleIdentifier);
}

std::optional<std::filesystem::path> defaultDataDirectory(std::string_view bundleIdentifier,
                                                          Error* error) {
  auto variable = [](const char* name) -> std::optional<std::string_view> {
    const char* value = std::getenv(name);
    return value != nullptr ? std::optional<std::string_view>(value) : std::nullopt;
  };
  std::optional<std::string_view> home = variable("HOME");
  std::optional<std::string> passwordHome;
  if (!isAbsolute(home)) {
    passwordHome = homeFromPasswordDatabase();
    home = passwordHome;
  }
  return defaultDataDirectory(bundleIdentifier, variable("XDG_DATA_HOME"), home, error);
}

std::filesystem::path defaultFrameworkBundleDirectory() {
  return std::filesystem::path(CORVANE_FRAMEWORK_BUNDLE_DIR);
}

std::optional<Platform> makePlatform(const LinuxPlatformOptions& options, Error* error) {
  if (!isTeamId(options.teamId)) {
    setError(error, platformError("The team identifier \"" + options.teamId +
                                  "\" must be ASCII letters and digits"));
    return std::nullopt;
  }
  if (options.hostBundleDirectory.empty()) {
    setError(error, platformError("No host bundle folder given"));
    return std::nullopt;
  }

  Error inner;
  std::shared_ptr<BundleDirectory> host =
      openBundle(options.hostBundleDirectory, options.userLanguages, &inner);
  if (!host) {
    failWith(error, "Cannot open the host bundle", inner);
    return std::nullopt;
  }
  const std::string bundleIdentifier = host->bundleIdentifier();
  if (bundleIdentifier.empty()) {
    setError(error, platformError("The host bundle " + options.hostBundleDirectory.string() +
                                  " has no CFBundleIdentifier"));
    return std::nullopt;
  }
  std::shared_ptr<BundleDirectory> framework =
      openBundle(options.frameworkBundleDirectory.value_or(defaultFrameworkBundleDirectory()),
                 options.userLanguages, &inner);
  if (!framework) {
    failWith(error, "Cannot open Corvane's bundle", inner);
    return std::nullopt;
  }

  CurlHttpClient::Options httpOptions;
  httpOptions.extraCaFile = options.extraCaFile;
  std::shared_ptr<CurlHttpClient> http = CurlHttpClient::open(httpOptions, &inner);
  if (!http) {
    failWith(error, "Cannot set up the HTTP client", inner);
    return std::nullopt;
  }

  std::optional<std::filesystem::path> dataDirectory = options.dataDirectory;
  if (!dataDirectory) dataDirectory = defaultDataDirectory(bundleIdentifier, error);
  if (!dataDirectory) return std::nullopt;
  // The folder is opened once; every store reaches its files through this descriptor.
  std::shared_ptr<const PrivateDirectory> folder = PrivateDirectory::open(*dataDirectory, &inner);
  if (!folder) {
    failWith(error, "Cannot make the data folder", inner);
    return std::nullopt;
  }
  // One store key seals the item values and the private keys.
  std::shared_ptr<const StoreKey> storeKey = StoreKey::load(*folder, kKeyStoreKeyFileName, &inner);
  if (!storeKey) {
    failWith(error, "Cannot read the store key", inner);
    return std::nullopt;
  }

  SqliteItemStore::Options itemOptions;
  itemOptions.synchronous = options.durableWrites ? SqliteItemStore::Synchronous::full
                                                  : SqliteItemStore::Synchronous::normal;
  itemOptions.storeKey = storeKey;
  itemOptions.defaultAccessGroup =
      SqliteItemStore::defaultAccessGroupFor(bundleIdentifier, options.teamId);
  std::shared_ptr<SqliteItemStore> items =
      SqliteItemStore::open(folder, kItemStoreFileName, itemOptions, &inner);
  if (!items) {
    failWith(error, "Cannot open the item store", inner);
    return std::nullopt;
  }
  // The key store shares the library's connection, so that a key and the records naming it land
  // in one commit (a registration's transaction holds both), and has no default access group: its
  // sealed keys stay out of the library's label-wide wipes, which name the access group. Key work
  // runs as background work while the main thread leaves the stores alone
  // (docs/threading.md), so one connection serves both threads, one at a time.
  std::shared_ptr<SqliteItemStore> keyItems = items->shareConnection(std::nullopt);
  std::shared_ptr<UserDefaultsFile> defaults =
      UserDefaultsFile::open(folder, kUserDefaultsFileName, &inner);
  if (!defaults) {
    failWith(error, "Cannot open the user defaults", inner);
    return std::nullopt;
  }

  Platform platform;
  platform.itemStore = std::move(items);
  if (options.biometry == LinuxBiometry::fprintd) {
    FprintdBiometry::Options biometryOptions;
    biometryOptions.onPrompt = options.biometryPrompt;
    platform.biometry = std::make_shared<FprintdBiometry>(storeKey, std::move(biometryOptions));
  } else {
    platform.biometry = std::make_shared<NoBiometry>();
  }
  platform.keyStore = std::make_shared<OpenSslKeyStore>(std::move(keyItems), std::move(storeKey));
  platform.hostBundle = std::move(host);
  platform.frameworkBundle = std::move(framework);
  platform.userDefaults = std::move(defaults);
  platform.clock = std::make_shared<BoottimeClock>();
  platform.deviceInfo = std::make_shared<LinuxDeviceInfo>(options.passcodeSet);
  platform.httpClient = std::move(http);
  Error loopError;
  std::shared_ptr<EventLoop> loop = EventLoop::create(&loopError);
  if (!loop) {
    failWith(error, "Cannot start the event loop", loopError);
    return std::nullopt;
  }
  platform.scheduler = std::move(loop);
  platform.screenPresenter = options.screenPresenter;
  // The record database lives in the same private folder, opened and checked above.
  platform.recordDatabaseDirectory = folder->path();
  return platform;
}

}  // namespace corvane::linux_platform
