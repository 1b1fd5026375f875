#include "client/messages/display_png_characteristics.h"

namespace corvane {

using jsonmodel::Presence;
using jsonmodel::property;

std::span<const jsonmodel::Property<RGBPaletteEntry>> RGBPaletteEntry::properties() {
  static constexpr jsonmodel::Property<RGBPaletteEntry> kTable[] = {
      property<&RGBPaletteEntry::r>("r", Presence::kRequired),
      property<&RGBPaletteEntry::g>("g", Presence::kRequired),
      property<&RGBPaletteEntry::b>("b", Presence::kRequired),
  };
  return kTable;
}

std::optional<RGBPaletteEntry> RGBPaletteEntry::fromJson(const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<RGBPaletteEntry>(json, error);
}
nlohmann::json RGBPaletteEntry::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string RGBPaletteEntry::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

std::span<const jsonmodel::Property<DisplayPNGCharacteristicsDescriptor>>
DisplayPNGCharacteristicsDescriptor::properties() {
  using D = DisplayPNGCharacteristicsDescriptor;
  static constexpr jsonmodel::Property<D> kTable[] = {
      property<&D::width>("width", Presence::kRequired),
      property<&D::height>("height", Presence::kRequired),
      property<&D::bitDepth>("bitDepth", Presence::kRequired),
      property<&D::colorType>("colorType", Presence::kRequired),
      property<&D::compression>("compression", Presence::kRequired),
      property<&D::filter>("filter", Presence::kRequired),
      property<&D::interlace>("interlace", Presence::kRequired),
      property<&D::plte>("plte", Presence::kOptional),
  };
  return kTable;
}

std::optional<DisplayPNGCharacteristicsDescriptor> DisplayPNGCharacteristicsDescriptor::fromJson(
    const nlohmann::json& json, Error* error) {
  return jsonmodel::fromJson<DisplayPNGCharacteristicsDescriptor>(json, error);
}
nlohmann::json DisplayPNGCharacteristicsDescriptor::toJson() const {
  return jsonmodel::toJson(*this);
}
std::string DisplayPNGCharacteristicsDescriptor::toJsonString() const {
  return jsonmodel::toJsonText(*this);
}

}  // namespace corvane
