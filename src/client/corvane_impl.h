// What one Corvane object owns besides its delegate: the platform's ports and the objects built
// over them (configuration, keychain, pattern store). Members refer to one another, so the order
// of declaration is the order of construction and the object never moves.
#pragma once

#include "client/facet_trust.h"
#include "configuration/configuration.h"
#include "corvane/corvane.h"
#include "corvane/platform_value.h"
#include "corvane/status_codes.h"
#include "crypto/attestation_material.h"
#include "foundation/result.h"
#include "storage/keychain.h"
#include "storage/pattern_manager.h"

namespace corvane {

struct Corvane::Impl {
  // `platform` must be complete (Platform::missingPort answers absent).
  explicit Impl(Platform ports)
      : platform(std::move(ports)),
        configuration(*platform.hostBundle, *platform.frameworkBundle, *platform.userDefaults),
        facetTrust(configuration, *platform.httpClient),
        keychain(*platform.itemStore, *platform.keyStore, *platform.biometry, configuration,
                 &attestation),
        patternManager(keychain) {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // Whether the library has run over these stores before: the installation marker, or, for data
  // kept before the marker existed, the "Corvane.installed" flag (such data gets its marker now,
  // so that a settings file lost later cannot make it look fresh). An error when the item store
  // cannot be read.
  Result<bool> installedBefore() {
    Result<bool> marked = keychain.isInstallationMarked();
    if (!marked || *marked) return marked;
    if (!platform.userDefaults->getBool(kUserDefaultsInstalledKey)) return false;
    // Marked at the next start when it cannot be now; the flag still says installed.
    static_cast<void>(keychain.markInstallation());
    return true;
  }
  // Writes the marker and the two flags; false when the marker could not be written. A fresh
  // installation needs no first-initialisation step, so "Corvane.initiated" is set too. A flush
  // that fails keeps the flags pending in memory for the next one; the marker is what counts.
  bool markInstalled() {
    if (keychain.markInstallation() != StoreStatus::ok) return false;
    UserDefaults& defaults = *platform.userDefaults;
    defaults.setBool(kUserDefaultsInstalledKey, true);
    defaults.setBool(kUserDefaultsInitiatedKey, true);
    static_cast<void>(defaults.synchronize(nullptr));
    return true;
  }

  Platform platform;
  Configuration configuration;
  // The caller's facet ID and the trusted-facets check of the registration, authentication and
  // deregistration flows.
  FacetTrust facetTrust;
  WhiteboxAttestationKeySource attestation;
  Keychain keychain;
  PatternManager patternManager;
};

}  // namespace corvane
