// A Keychain over either the in-memory item store or the SQLite one in a temporary folder, with a
// fake key store, scripted biometry and a fake host bundle ("com.example.host").
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "configuration/configuration.h"
#include "corvane/secret_bytes.h"
#include "fakes/fake_host_bundle.h"
#include "fakes/fake_item_store.h"
#include "fakes/fake_key_store.h"
#include "fakes/fake_user_defaults.h"
#include "fakes/scripted_biometry.h"
#include "linux/sqlite_item_store.h"
#include "storage/keychain.h"
#include "test_support.h"

namespace corvane::testing {

enum class StoreKind { fake, sqlite };

inline std::string storeKindName(StoreKind kind) {
  return kind == StoreKind::fake ? "Fake" : "Sqlite";
}

class KeychainRig {
 public:
  static constexpr std::string_view kBundle = "com.example.host";
  static constexpr std::string_view kGroup = "CORVANELNX.com.example.host";

  explicit KeychainRig(StoreKind kind, bool defaultAccessGroup = true) {
    const std::optional<std::string> group =
        defaultAccessGroup ? std::optional<std::string>(std::string(kGroup)) : std::nullopt;
    if (kind == StoreKind::fake) {
      auto fake = std::make_unique<FakeItemStore>();
      fake->setDefaultAccessGroup(group);
      fake_ = fake.get();
      items_ = std::move(fake);
    } else {
      linux_platform::SqliteItemStore::Options options;
      options.synchronous = linux_platform::SqliteItemStore::Synchronous::normal;
      options.defaultAccessGroup = group;
      items_ = linux_platform::SqliteItemStore::open(file(), options, nullptr);
    }
    host.identifier = std::string(kBundle);
    keychain = std::make_unique<Keychain>(*items_, keys, biometry, configuration);
  }

  ItemStore& items() { return *items_; }
  // Null for the SQLite store.
  FakeItemStore* fake() { return fake_; }
  std::filesystem::path file() const { return dir_.path() / "items.sqlite"; }
  bool opened() const { return items_ != nullptr; }

  void setSecurityLevel(std::string_view level) {
    host.setInfo(kSdkConfigKey, settings::kBiometricSecurityLevel, std::string(level));
  }

  TempDir dir_;
  FakeKeyStore keys;
  ScriptedBiometry biometry;
  FakeHostBundle host;
  FakeHostBundle framework;
  FakeUserDefaults defaults;
  Configuration configuration{host, framework, defaults};
  std::unique_ptr<Keychain> keychain;

 private:
  std::unique_ptr<ItemStore> items_;
  FakeItemStore* fake_ = nullptr;
};

inline SecretBytes secret(std::string_view text) {
  return SecretBytes::fromText(text);
}

// A read's outcome as text: "!" when the store failed, "-" when nothing matched, else the value.
inline std::string shown(const Result<std::optional<SecretBytes>>& found) {
  if (!found) return "!";
  return *found ? std::string((*found)->exposeSecretText()) : "-";
}

}  // namespace corvane::testing
