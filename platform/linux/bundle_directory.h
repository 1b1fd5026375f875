// The Linux HostBundle: a directory laid out as an application or framework bundle.
//
//   <root>/Info.plist                          information dictionary (XML or binary property list)
//   <root>/<lang>.lproj/Localizable.strings    string table of one localization ("en", "Base", ...)
//   <root>/<name>.<type>                       resource files (also looked for in the .lproj
//   folders)
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/error.h"
#include "corvane/platform.h"
#include "foundation/utils.h"

namespace corvane::linux_platform {

// The entries of one Localizable.strings file. Parsing stops at the first malformed point (bad
// encoding, unterminated string or comment, missing "=" or ";"); the entries before it are kept
// and `complete` is false.
struct StringsTable {
  std::map<std::string, std::string, std::less<>> entries;
  bool complete = true;
};

// Parses a string table: UTF-8 (with or without byte-order mark) or UTF-16 with a byte-order mark;
// `"key" = "value";` entries (a lone `"key";` maps the key to itself; keys and values may also be
// unquoted words); comments /* */ and //; escapes \" \\ \' \n \t \r \a \b \f \v and \Uhhhh (one to
// four hex digits, surrogate pairs joined). A later duplicate key replaces the earlier one.
StringsTable parseStringsTable(ByteView data);

// Parses a property list whose root is a dictionary; absent (and the error) otherwise.
// Members of types without an InfoValue counterpart (data, date) are left out.
[[nodiscard]] std::optional<InfoValue> parsePropertyList(ByteView data, Error* error);

class BundleDirectory final : public HostBundle {
 public:
  // Opens the bundle at `root`, reading its Info.plist and every string table once. A missing
  // Info.plist gives an empty dictionary; a missing root or an unreadable or malformed Info.plist
  // gives null and the error. `userLanguages` ranks the localizations (tags such as "fr-CA" or
  // locale names such as "fr_CA.UTF-8"); the first overload takes them from the environment.
  static std::unique_ptr<BundleDirectory> open(const std::filesystem::path& root, Error* error);
  static std::unique_ptr<BundleDirectory> open(const std::filesystem::path& root,
                                               std::vector<std::string> userLanguages,
                                               Error* error);

  // The user's languages from LANGUAGE, else LC_ALL, LC_MESSAGES or LANG ("C" and "POSIX" skipped).
  static std::vector<std::string> userLanguagesFromEnvironment();

  const std::filesystem::path& root() const { return root_; }
  // The names of the bundle's .lproj folders, sorted.
  std::vector<std::string> localizations() const;

  std::string bundleIdentifier() const override;
  [[nodiscard]] std::optional<InfoValue> infoValueAtPath(
      std::span<const std::string_view> path) const override;
  // Without a localization: the preferred localizations in order, then "Base"; the first table
  // that has the key answers.
  [[nodiscard]] std::optional<std::string> localizedString(
      std::string_view key, std::optional<std::string_view> localization) const override;
  // The localizations matching the user's languages (exactly, then by dropping trailing subtags),
  // followed by the development region ("CFBundleDevelopmentRegion", "en" when unset).
  std::vector<std::string> preferredLocalizations() const override;
  // Looks in the root first, then in the preferred localizations' folders and "Base.lproj". Names
  // with "/" or equal to "." or ".." are refused.
  [[nodiscard]] std::optional<std::filesystem::path> pathForResource(
      std::string_view name, std::string_view type) const override;

 private:
  BundleDirectory() = default;

  std::filesystem::path root_;
  InfoValue info_;
  // Localization name to table; every .lproj folder has an entry, empty without a table file.
  std::map<std::string, StringsTable, std::less<>> tables_;
  std::vector<std::string> preferred_;
};

}  // namespace corvane::linux_platform
