#include "linux/bundle_directory.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "corvane/status_codes.h"

namespace corvane::linux_platform {

namespace {

namespace fs = std::filesystem;

// Bundle files are the application's own, but a bound keeps a damaged one from exhausting memory.
constexpr size_t kMaxBundleFileSize = 16 * 1024 * 1024;
// Deeper nesting than any information dictionary needs is refused rather than recursed into.
constexpr int kMaxPlistDepth = 64;

Error bundleError(std::string message) {
  return Error::corvane(code(CorvaneStatusCode::UNKNOWN), std::move(message));
}

// Reads a whole regular file of at most kMaxBundleFileSize bytes.
std::optional<Bytes> readFile(const fs::path& path, Error* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    setError(error, bundleError("cannot open " + path.string() + ": " + std::strerror(errno)));
    return std::nullopt;
  }
  Bytes data;
  uint8_t buffer[16384];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      setError(error, bundleError("cannot read " + path.string() + ": " + std::strerror(errno)));
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    if (data.size() + static_cast<size_t>(n) > kMaxBundleFileSize) {
      setError(error, bundleError(path.string() + " is too large"));
      ::close(fd);
      return std::nullopt;
    }
    data.insert(data.end(), buffer, buffer + n);
  }
  ::close(fd);
  return data;
}

// ---- Text decoding -------------------------------------------------------------------------

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Length of the longest prefix of `data` that is well-formed UTF-8 without NUL characters.
size_t validUtf8Prefix(ByteView data) {
  const std::string_view text = asText(data);
  size_t i = 0;
  while (i < text.size() && text[i] != '\0') {
    const size_t length = utf8SequenceLength(text, i);
    if (length == 0) break;
    i += length;
  }
  return i;
}

// The table's text as UTF-8, and whether all of it could be decoded.
std::pair<std::string, bool> decodeText(ByteView data) {
  if (data.size() >= 2 &&
      ((data[0] == 0xFF && data[1] == 0xFE) || (data[0] == 0xFE && data[1] == 0xFF))) {
    bool little = data[0] == 0xFF;
    std::string out;
    size_t i = 2;
    auto unitAt = [&](size_t at) -> uint32_t {
      return little ? static_cast<uint32_t>(data[at] | (data[at + 1] << 8))
                    : static_cast<uint32_t>((data[at] << 8) | data[at + 1]);
    };
    while (i + 1 < data.size()) {
      uint32_t unit = unitAt(i);
      i += 2;
      if (unit == 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) return {out, false};
      if (unit >= 0xD800 && unit <= 0xDBFF) {
        if (i + 1 >= data.size()) return {out, false};
        uint32_t low = unitAt(i);
        if (low < 0xDC00 || low > 0xDFFF) return {out, false};
        i += 2;
        unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
      }
      appendUtf8(out, unit);
    }
    return {out, i == data.size()};
  }
  if (data.size() >= 3 && data[0] == 0xEF && data[1] == 0xBB && data[2] == 0xBF) {
    data = data.subspan(3);
  }
  size_t valid = validUtf8Prefix(data);
  return {std::string(asText(data.first(valid))), valid == data.size()};
}

// ---- Strings table grammar -----------------------------------------------------------------

class StringsParser {
 public:
  explicit StringsParser(std::string_view text) : text_(text) {}

  StringsTable parse() {
    StringsTable table;
    for (;;) {
      if (!skipSpaceAndComments()) break;
      if (pos_ == text_.size()) return table;
      std::optional<std::string> key = parseString();
      if (!key || !skipSpaceAndComments() || pos_ == text_.size()) break;
      if (text_[pos_] == ';') {
        ++pos_;
        std::string value = *key;
        table.entries.insert_or_assign(std::move(*key), std::move(value));
        continue;
      }
      if (text_[pos_] != '=') break;
      ++pos_;
      if (!skipSpaceAndComments()) break;
      std::optional<std::string> value = parseString();
      if (!value || !skipSpaceAndComments() || pos_ == text_.size() || text_[pos_] != ';') break;
      ++pos_;
      table.entries.insert_or_assign(std::move(*key), std::move(*value));
    }
    table.complete = false;
    return table;
  }

 private:
  static bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
  }
  static bool isWordChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
  }
  // What a one-letter escape stands for; \" \\ \' and any other character stand for themselves.
  static char escapedCharacter(char e) {
    constexpr std::string_view kLetters = "ntrabfv";
    constexpr std::string_view kMeanings = "\n\t\r\a\b\f\v";
    size_t at = kLetters.find(e);
    return at == std::string_view::npos ? e : kMeanings[at];
  }
  static int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  // False on an unterminated block comment.
  bool skipSpaceAndComments() {
    while (pos_ < text_.size()) {
      if (isSpace(text_[pos_])) {
        ++pos_;
      } else if (text_.substr(pos_, 2) == "//") {
        size_t end = text_.find('\n', pos_);
        pos_ = end == std::string_view::npos ? text_.size() : end + 1;
      } else if (text_.substr(pos_, 2) == "/*") {
        size_t end = text_.find("*/", pos_ + 2);
        if (end == std::string_view::npos) return false;
        pos_ = end + 2;
      } else {
        break;
      }
    }
    return true;
  }

  std::optional<std::string> parseString() {
    if (pos_ < text_.size() && text_[pos_] == '"') return parseQuoted();
    size_t start = pos_;
    while (pos_ < text_.size() && isWordChar(text_[pos_])) {
      // A comment may follow a word without a blank in between.
      if (text_.substr(pos_, 2) == "//" || text_.substr(pos_, 2) == "/*") break;
      ++pos_;
    }
    if (pos_ == start) return std::nullopt;
    return std::string(text_.substr(start, pos_ - start));
  }

  // One to four hex digits after \U; absent when there are none.
  std::optional<uint32_t> parseHexUnit() {
    uint32_t unit = 0;
    int digits = 0;
    while (digits < 4 && pos_ < text_.size() && hexValue(text_[pos_]) >= 0) {
      unit = (unit << 4) | static_cast<uint32_t>(hexValue(text_[pos_]));
      ++pos_;
      ++digits;
    }
    if (digits == 0) return std::nullopt;
    return unit;
  }

  std::optional<std::string> parseQuoted() {
    ++pos_;  // opening quote
    std::string out;
    while (pos_ < text_.size()) {
      char c = text_[pos_++];
      if (c == '"') return out;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ == text_.size()) return std::nullopt;
      char e = text_[pos_++];
      if (e != 'U' && e != 'u') {
        out += escapedCharacter(e);
        continue;
      }
      std::optional<uint32_t> unit = parseHexUnit();
      if (!unit || *unit == 0 || (*unit >= 0xDC00 && *unit <= 0xDFFF)) return std::nullopt;
      uint32_t cp = *unit;
      if (cp >= 0xD800 && cp <= 0xDBFF) {
        // A high surrogate must be followed by an escaped low surrogate.
        if (text_.substr(pos_, 2) != "\\U" && text_.substr(pos_, 2) != "\\u") {
          return std::nullopt;
        }
        pos_ += 2;
        std::optional<uint32_t> low = parseHexUnit();
        if (!low || *low < 0xDC00 || *low > 0xDFFF) return std::nullopt;
        cp = 0x10000 + ((cp - 0xD800) << 10) + (*low - 0xDC00);
      }
      appendUtf8(out, cp);
    }
    return std::nullopt;  // unterminated
  }

  std::string_view text_;
  size_t pos_ = 0;
};

// ---- Property lists ------------------------------------------------------------------------

std::optional<InfoValue> convertNode(plist_t node, int depth) {
  if (depth > kMaxPlistDepth) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return InfoValue(flag != 0);
    }
    case PLIST_UINT: {
      // Negative integers are kept as their two's-complement 64-bit pattern.
      uint64_t number = 0;
      plist_get_uint_val(node, &number);
      return InfoValue(static_cast<int64_t>(number));
    }
    case PLIST_REAL: {
      double number = 0;
      plist_get_real_val(node, &number);
      return InfoValue(number);
    }
    case PLIST_STRING: {
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      if (text == nullptr) return InfoValue(std::string());
      return InfoValue(std::string(text, static_cast<size_t>(length)));
    }
    case PLIST_ARRAY: {
      InfoValue::Array items;
      uint32_t count = plist_array_get_size(node);
      for (uint32_t i = 0; i < count; ++i) {
        std::optional<InfoValue> item = convertNode(plist_array_get_item(node, i), depth + 1);
        if (item) items.push_back(std::move(*item));
      }
      return InfoValue(std::move(items));
    }
    case PLIST_DICT: {
      InfoValue dictionary;
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      if (iter == nullptr) return dictionary;
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, iter, &key, &value);
        if (key == nullptr) break;
        std::string name(key);
        std::free(key);
        if (value == nullptr) continue;
        std::optional<InfoValue> member = convertNode(value, depth + 1);
        if (member) dictionary.set(std::move(name), std::move(*member));
      }
      std::free(iter);
      return dictionary;
    }
    default:
      return std::nullopt;
  }
}

bool isSafeFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// "fr_CA.UTF-8@euro" gives "fr-CA"; "C" and "POSIX" give the empty text.
std::string normalizeLanguage(std::string_view language) {
  size_t cut = language.find_first_of(".@");
  if (cut != std::string_view::npos) language = language.substr(0, cut);
  if (language == "C" || language == "POSIX") return {};
  std::string tag(language);
  std::replace(tag.begin(), tag.end(), '_', '-');
  return tag;
}

bool sameTag(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    auto fold = [](char c) {
      if (c == '_') return '-';
      return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    };
    return fold(x) == fold(y);
  });
}

}  // namespace

StringsTable parseStringsTable(ByteView data) {
  auto [text, decoded] = decodeText(data);
  StringsTable table = StringsParser(text).parse();
  if (!decoded) table.complete = false;
  return table;
}

std::optional<InfoValue> parsePropertyList(ByteView data, Error* error) {
  if (data.empty() || data.size() > kMaxBundleFileSize) {
    setError(error, bundleError("property list is empty or too large"));
    return std::nullopt;
  }
  plist_t root = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(data.data()), static_cast<uint32_t>(data.size()),
                    &root);
  if (root == nullptr) {
    setError(error, bundleError("property list cannot be parsed"));
    return std::nullopt;
  }
  std::optional<InfoValue> value;
  if (plist_get_node_type(root) == PLIST_DICT) value = convertNode(root, 0);
  plist_free(root);
  if (!value) setError(error, bundleError("property list root is not a dictionary"));
  return value;
}

std::unique_ptr<BundleDirectory> BundleDirectory::open(const fs::path& root, Error* error) {
  return open(root, userLanguagesFromEnvironment(), error);
}

std::unique_ptr<BundleDirectory> BundleDirectory::open(const fs::path& root,
                                                       std::vector<std::string> userLanguages,
                                                       Error* error) {
  std::error_code ec;
  if (!fs::is_directory(root, ec)) {
    setError(error, bundleError("bundle directory not found: " + root.string()));
    return nullptr;
  }
  std::unique_ptr<BundleDirectory> bundle(new BundleDirectory());
  bundle->root_ = root;

  fs::path infoPath = root / "Info.plist";
  if (fs::exists(infoPath, ec)) {
    std::optional<Bytes> data = readFile(infoPath, error);
    if (!data) return nullptr;
    std::optional<InfoValue> info = parsePropertyList(*data, error);
    if (!info) return nullptr;
    bundle->info_ = std::move(*info);
  }

  fs::directory_iterator it(root, ec);
  for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
    const fs::path& path = it->path();
    std::error_code typeError;
    if (path.extension() != ".lproj" || !it->is_directory(typeError)) continue;
    StringsTable table;
    fs::path tablePath = path / "Localizable.strings";
    if (fs::is_regular_file(tablePath, typeError)) {
      // An unreadable table counts as an empty one: texts then fall back to other tables.
      if (std::optional<Bytes> data = readFile(tablePath, nullptr)) {
        table = parseStringsTable(*data);
      } else {
        table.complete = false;
      }
    }
    bundle->tables_.insert_or_assign(path.stem().string(), std::move(table));
  }

  std::vector<std::string> available;
  for (const auto& [name, table] : bundle->tables_) {
    if (name != "Base") available.push_back(name);
  }
  auto addPreferred = [&](const std::string& name) {
    if (std::find(bundle->preferred_.begin(), bundle->preferred_.end(), name) ==
        bundle->preferred_.end()) {
      bundle->preferred_.push_back(name);
    }
  };
  for (const std::string& language : userLanguages) {
    std::string tag = normalizeLanguage(language);
    while (!tag.empty()) {
      auto match = std::find_if(available.begin(), available.end(),
                                [&](const std::string& name) { return sameTag(name, tag); });
      if (match != available.end()) {
        addPreferred(*match);
        break;
      }
      size_t dash = tag.rfind('-');
      tag.resize(dash == std::string::npos ? 0 : dash);
    }
  }
  const InfoValue* region = bundle->info_.member("CFBundleDevelopmentRegion");
  addPreferred(region != nullptr && region->string() != nullptr && !region->string()->empty()
                   ? *region->string()
                   : std::string("en"));
  return bundle;
}

std::vector<std::string> BundleDirectory::userLanguagesFromEnvironment() {
  std::vector<std::string> languages;
  auto valueOf = [](const char* name) -> std::string_view {
    const char* value = std::getenv(name);
    return value != nullptr ? std::string_view(value) : std::string_view();
  };
  std::string_view list = valueOf("LANGUAGE");
  while (!list.empty()) {
    size_t colon = list.find(':');
    std::string_view item = list.substr(0, colon);
    if (!normalizeLanguage(item).empty()) languages.emplace_back(item);
    list = colon == std::string_view::npos ? std::string_view() : list.substr(colon + 1);
  }
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    std::string_view value = valueOf(name);
    if (!value.empty()) {
      if (!normalizeLanguage(value).empty()) languages.emplace_back(value);
      break;
    }
  }
  return languages;
}

std::vector<std::string> BundleDirectory::localizations() const {
  std::vector<std::string> names;
  for (const auto& [name, table] : tables_) names.push_back(name);
  return names;
}

std::string BundleDirectory::bundleIdentifier() const {
  const InfoValue* identifier = info_.member("CFBundleIdentifier");
  return identifier != nullptr && identifier->string() != nullptr ? *identifier->string()
                                                                  : std::string();
}

std::optional<InfoValue> BundleDirectory::infoValueAtPath(
    std::span<const std::string_view> path) const {
  const InfoValue* value = info_.find(path);
  if (value == nullptr) return std::nullopt;
  return *value;
}

std::optional<std::string> BundleDirectory::localizedString(
    std::string_view key, std::optional<std::string_view> localization) const {
  auto lookUp = [&](std::string_view name) -> std::optional<std::string> {
    auto table = tables_.find(name);
    if (table == tables_.end()) return std::nullopt;
    auto entry = table->second.entries.find(key);
    if (entry == table->second.entries.end()) return std::nullopt;
    return entry->second;
  };
  if (localization) return lookUp(*localization);
  for (const std::string& name : preferred_) {
    if (std::optional<std::string> text = lookUp(name)) return text;
  }
  return lookUp("Base");
}

std::vector<std::string> BundleDirectory::preferredLocalizations() const {
  return preferred_;
}

std::optional<fs::path> BundleDirectory::pathForResource(std::string_view name,
                                                         std::string_view type) const {
  if (!isSafeFileName(name) || type.find('/') != std::string_view::npos ||
      type.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  std::string fileName(name);
  if (!type.empty()) fileName.append(".").append(type);
  std::vector<fs::path> folders{root_};
  for (const std::string& localization : preferred_)
    folders.push_back(root_ / (localization + ".lproj"));
  folders.push_back(root_ / "Base.lproj");
  for (const fs::path& folder : folders) {
    fs::path candidate = folder / fileName;
    std::error_code ec;
    if (fs::is_regular_file(candidate, ec)) return candidate;
  }
  return std::nullopt;
}

}  // namespace corvane::linux_platform
