// A host application driving the facade over the real Linux stores in a temporary data directory,
// with the scripted presenter and the manual queue, and the requests it sends.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "corvane/corvane.h"
#include "corvane/linux_platform.h"
#include "fakes/fake_item_store.h"
#include "fakes/manual_scheduler.h"
#include "fakes/scripted_presenter.h"
#include "test_files.h"
#include "test_support.h"

namespace corvane {

inline void PrintTo(const Error& error, std::ostream* out) {
  *out << error.code() << " \"" << error.localizedDescription() << "\"";
}

namespace facade {

using nlohmann::json;
constexpr std::string_view kFacet = "ios:bundle-id:com.example.host";
inline const std::initializer_list<uint32_t> kPattern = {0, 1, 2, 5, 8, 7};

struct Outcome {
  bool registration;
  std::optional<std::string> response;
  Error error;
};

class Recorder final : public AuthUIControllerDelegate {
 public:
  std::vector<Outcome> outcomes;
  void onRegistrationComplete(std::optional<std::string> response, const Error& error) override {
    outcomes.push_back({true, std::move(response), error});
  }
  void onAuthenticationComplete(std::optional<std::string> response, const Error& error) override {
    outcomes.push_back({false, std::move(response), error});
  }
};

inline json header(std::string_view op, json extra = json::object()) {
  json h = {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", op}, {"serverData", "sd-1"}};
  h.update(extra);
  return h;
}
inline json acceptPattern() {
  return {{"accepted", json::array({json::array({{{"aaid", {"0F3D#0002"}}}})})}};
}

inline std::string registrationRequest(std::string_view user, json headerExtra = json::object(),
                                       json policy = acceptPattern()) {
  return json::array({{{"header", header("Reg", std::move(headerExtra))},
                       {"challenge", "Y2hhbGxlbmdl"},
                       {"username", user},
                       {"policy", std::move(policy)}}})
      .dump();
}
inline std::string authenticationRequest(json headerExtra = json::object(),
                                         std::optional<json> transaction = std::nullopt,
                                         json policy = acceptPattern()) {
  json message = {{"header", header("Auth", std::move(headerExtra))},
                  {"challenge", "YXV0aC1jaGFsbGVuZ2U"},
                  {"policy", std::move(policy)}};
  if (transaction) message["transaction"] = *transaction;
  return json::array({message}).dump();
}

// The host's bundle ("Host.app") under `root`.
inline void writeHostBundle(const std::filesystem::path& root, bool patternActive = true) {
  testing::writeFile(
      root / "Host.app" / "Info.plist",
      std::string(R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                  "<key>CFBundleIdentifier</key><string>com.example.host</string>"
                  "<key>zandrel_fido_sdk_config</key><dict>"
                  "<key>zandrel_fido_pattern_lockout_policy</key><string>2-3|3-lock</string>"
                  "<key>zandrel_fido_pattern_lock_active</key>") +
          (patternActive ? "<string>Y</string>"
                         : "<string>N</string><key>zandrel_fido_biometric_active</key>"
                           "<string>N</string>") +
          "</dict></dict></plist>");
}

class Host {
 public:
  struct Setup {
    bool patternActive = true;
    // An existing folder holding "Host.app" and "data"; a fresh temporary one when absent.
    std::optional<std::filesystem::path> root = {};
    bool durableWrites = false;
    std::optional<std::filesystem::path> extraCaFile = {};
    // Changes the Linux platform before Corvane is made (fake stores, for example).
    std::function<void(Platform&)> adjust = {};
  };

  explicit Host(bool patternActive = true) : Host(Setup{.patternActive = patternActive}) {}
  explicit Host(const Setup& setup) : root(setup.root.value_or(dir.path())) {
    if (!setup.root) writeHostBundle(root, setup.patternActive);
    linux_platform::LinuxPlatformOptions options;
    options.hostBundleDirectory = root / "Host.app";
    options.dataDirectory = root / "data";
    options.frameworkBundleDirectory = testing::resourcesDir();
    options.durableWrites = setup.durableWrites;
    if (setup.extraCaFile) options.extraCaFile = *setup.extraCaFile;
    Error error;
    std::optional<Platform> platform = linux_platform::makePlatform(options, &error);
    EXPECT_TRUE(platform) << error.localizedDescription();
    if (!platform) return;
    platform->scheduler = scheduler;
    platform->screenPresenter = presenter;
    if (setup.adjust) setup.adjust(*platform);
    items = platform->itemStore;
    keys = platform->keyStore;
    corvane = Corvane::create(recorder, std::move(*platform), &error);
    EXPECT_TRUE(corvane) << error.localizedDescription();
  }

  // Draws the pattern on each pattern screen that comes up, `times` times.
  void draw(int times = 1) {
    scheduler->drain();
    for (int i = 0; i < times; ++i) {
      ASSERT_TRUE(presenter->draw(kPattern));
      scheduler->drain();
    }
  }
  const Outcome& last() const { return recorder->outcomes.back(); }

  testing::TempDir dir;
  std::filesystem::path root;
  std::shared_ptr<testing::ManualScheduler> scheduler =
      std::make_shared<testing::ManualScheduler>();
  std::shared_ptr<testing::ScriptedPresenter> presenter =
      std::make_shared<testing::ScriptedPresenter>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<ItemStore> items;  // the stores the facade was given
  std::shared_ptr<KeyStore> keys;
  std::unique_ptr<Corvane> corvane;
};

// A fake item store that gives new items the host's access group, as the Linux one does.
inline std::shared_ptr<testing::FakeItemStore> fakeItemStore() {
  auto items = std::make_shared<testing::FakeItemStore>();
  items->setDefaultAccessGroup("CORVANELNX.com.example.host");
  return items;
}

// A host over the Linux platform with these item and key stores in place of its own.
inline Host::Setup withStores(std::shared_ptr<ItemStore> items, std::shared_ptr<KeyStore> keys) {
  Host::Setup setup;
  setup.adjust = [items, keys](Platform& platform) {
    platform.itemStore = items;
    platform.keyStore = keys;
  };
  return setup;
}

}  // namespace facade
}  // namespace corvane
