// What one Corvane object owns besides its delegate: the platform's ports and the objects built
// over them (configuration, keychain, pattern store). Members refer to one another, so the order
// of declaration is the order of construction and the object never moves.
#pragma once

#include "configuration/configuration.h"
#include "corvane/corvane.h"
#include "corvane/platform_value.h"
#include "crypto/attestation_material.h"
#include "storage/keychain.h"
#include "storage/pattern_manager.h"

namespace corvane {

struct Corvane::Impl {
  // `platform` must be complete (Platform::missingPort answers absent).
  explicit Impl(Platform ports)
      : platform(std::move(ports)),
        configuration(*platform.hostBundle, *platform.frameworkBundle, *platform.userDefaults),
        keychain(*platform.itemStore, *platform.keyStore, *platform.biometry, configuration,
                 &attestation),
        patternManager(keychain) {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  Platform platform;
  Configuration configuration;
  WhiteboxAttestationKeySource attestation;
  Keychain keychain;
  PatternManager patternManager;
};

}  // namespace corvane
