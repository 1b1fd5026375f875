// How an authenticator's display renders PNG transaction content: the PNG header fields and an
// optional palette.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "corvane/error.h"
#include "json/json_model.h"

namespace corvane {

struct RGBPaletteEntry {
  std::optional<int64_t> r;
  std::optional<int64_t> g;
  std::optional<int64_t> b;

  static constexpr std::string_view kModelName = "RGBPaletteEntry";
  static std::span<const jsonmodel::Property<RGBPaletteEntry>> properties();
  [[nodiscard]] static std::optional<RGBPaletteEntry> fromJson(const nlohmann::json& json,
                                                               Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const RGBPaletteEntry&) const = default;
};

struct DisplayPNGCharacteristicsDescriptor {
  std::optional<int64_t> width;
  std::optional<int64_t> height;
  std::optional<int64_t> bitDepth;
  std::optional<int64_t> colorType;
  std::optional<int64_t> compression;
  std::optional<int64_t> filter;
  std::optional<int64_t> interlace;
  std::optional<std::vector<RGBPaletteEntry>> plte;

  static constexpr std::string_view kModelName = "DisplayPNGCharacteristicsDescriptor";
  static std::span<const jsonmodel::Property<DisplayPNGCharacteristicsDescriptor>> properties();
  [[nodiscard]] static std::optional<DisplayPNGCharacteristicsDescriptor> fromJson(
      const nlohmann::json& json, Error* error = nullptr);
  nlohmann::json toJson() const;
  std::string toJsonString() const;
  bool operator==(const DisplayPNGCharacteristicsDescriptor&) const = default;
};

}  // namespace corvane
