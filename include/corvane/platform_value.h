// Platform: the set of port objects one Corvane object runs on.
//
// A host builds it once, from its own implementations or with
// corvane::linux_platform::makePlatform, and hands it to Corvane, which keeps it for its whole
// life. The ports are shared so that a host (or a test) can keep a handle on one it wants to look
// at, and so that ports built over one another (a key store that keeps its sealed keys in an item
// store) can share what they are built on.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "corvane/platform.h"
#include "corvane/ports/biometry.h"
#include "corvane/ports/clock.h"
#include "corvane/ports/device_info.h"
#include "corvane/ports/http_client.h"
#include "corvane/ports/item_store.h"
#include "corvane/ports/key_store.h"
#include "corvane/ports/scheduler.h"
#include "corvane/ports/screen_presenter.h"

namespace corvane {

struct Platform {
  // Generic-password items: registration records, pattern data, the authenticators' key.
  std::shared_ptr<ItemStore> itemStore;
  // The users' P-256 signing keys.
  std::shared_ptr<KeyStore> keyStore;
  std::shared_ptr<BiometryPort> biometry;
  // The host application's bundle (settings, colours, texts) and Corvane's own bundle, which is
  // the fallback for settings and texts and names the library's version.
  std::shared_ptr<HostBundle> hostBundle;
  std::shared_ptr<HostBundle> frameworkBundle;
  // The application's persistent flags ("Corvane.installed", "Corvane.initiated", the language).
  std::shared_ptr<UserDefaults> userDefaults;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<DeviceInfo> deviceInfo;
  // Fetches the trusted-facets documents of other parties' application identifiers.
  std::shared_ptr<HttpClient> httpClient;
  // The main queue and the background thread: every answer reaches the host through it.
  std::shared_ptr<Scheduler> scheduler;
  // Shows the pattern and transaction screens. Optional: without one, the authenticators that need
  // a screen (the pattern lock) are not offered.
  std::shared_ptr<ScreenPresenter> screenPresenter;
  // The folder that holds the record database ("Database/Model.sqlite" beneath it: the users'
  // white-box tables). The folder must be private to the user (0700, ancestors closed to other
  // users); the record database checks that at every opening.
  std::filesystem::path recordDatabaseDirectory;

  // The name of the first port that is missing (the member name above; an empty record database
  // folder counts as missing), or absent when every port is present.
  [[nodiscard]] std::optional<std::string_view> missingPort() const {
    if (!itemStore) return "itemStore";
    if (!keyStore) return "keyStore";
    if (!biometry) return "biometry";
    if (!hostBundle) return "hostBundle";
    if (!frameworkBundle) return "frameworkBundle";
    if (!userDefaults) return "userDefaults";
    if (!clock) return "clock";
    if (!deviceInfo) return "deviceInfo";
    if (!httpClient) return "httpClient";
    if (!scheduler) return "scheduler";
    if (recordDatabaseDirectory.empty()) return "recordDatabaseDirectory";
    return std::nullopt;
  }
};

}  // namespace corvane
