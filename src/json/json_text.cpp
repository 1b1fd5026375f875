#include "json/json_text.h"

#include "foundation/utils.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "json/json_model.h"

namespace corvane::jsonmodel {

namespace {

using nlohmann::json;

// SAX handler that builds the DOM and stops at the depth bound or the first parse error.
class BoundedDomBuilder {
 public:
  BoundedDomBuilder(json& root, size_t maxDepth) : root_(root), maxDepth_(maxDepth) {}

  bool null() { return put(json(nullptr)); }
  bool boolean(bool value) { return put(json(value)); }
  bool number_integer(json::number_integer_t value) { return put(json(value)); }
  bool number_unsigned(json::number_unsigned_t value) { return put(json(value)); }
  bool number_float(json::number_float_t value, const json::string_t&) { return put(json(value)); }
  bool string(json::string_t& value) { return put(json(std::move(value))); }
  bool binary(json::binary_t&) { return false; }  // JSON text has no binary values

  bool start_object(std::size_t) { return open(json::object()); }
  bool key(json::string_t& key) {
    pendingMember_ = &(*stack_.back())[key];
    return true;
  }
  bool end_object() {
    stack_.pop_back();
    return true;
  }
  bool start_array(std::size_t) { return open(json::array()); }
  bool end_array() {
    stack_.pop_back();
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const json::exception& exception) {
    message_ = exception.what();
    return false;
  }

  bool tooDeep() const { return tooDeep_; }
  const std::string& message() const { return message_; }

 private:
  json* place(json&& value) {
    if (stack_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    json& container = *stack_.back();
    if (container.is_array()) {
      container.push_back(std::move(value));
      return &container.back();
    }
    *pendingMember_ = std::move(value);
    return pendingMember_;
  }
  bool put(json&& value) {
    place(std::move(value));
    return true;
  }
  bool open(json&& container) {
    if (stack_.size() >= maxDepth_) {
      tooDeep_ = true;
      return false;
    }
    stack_.push_back(place(std::move(container)));
    return true;
  }

  json& root_;
  size_t maxDepth_;
  std::vector<json*> stack_;
  json* pendingMember_ = nullptr;
  bool tooDeep_ = false;
  std::string message_;
};

// The parser quotes the token it stopped at, which may be megabytes of request text or bytes
// that are not UTF-8. The description keeps printable ASCII only and is cut to a bounded length.
constexpr size_t kMaxDescriptionLength = 256;

std::string boundedDescription(const std::string& message) {
  std::string out;
  out.reserve(std::min(message.size(), kMaxDescriptionLength));
  for (char c : message) {
    if (out.size() == kMaxDescriptionLength - 3) {
      out += "...";
      break;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += (byte >= 0x20 && byte < 0x7f) ? c : '?';
  }
  return out;
}

Error badJson(std::string message) {
  return Error(kJSONModelErrorDomain, static_cast<int64_t>(JSONModelErrorCode::kBadJSON),
               std::move(message));
}

}  // namespace

std::optional<nlohmann::json> parseJson(std::string_view text, Error* error, size_t maxDepth) {
  try {
    json root;
    BoundedDomBuilder builder(root, maxDepth);
    if (json::sax_parse(text, &builder)) return root;
    if (builder.tooDeep()) {
      setError(error,
               badJson("JSON text is nested deeper than " + std::to_string(maxDepth) + " levels."));
    } else if (!builder.message().empty()) {
      setError(error, badJson(boundedDescription(builder.message())));
    } else {
      setError(error, badJson("JSON text could not be parsed."));
    }
  } catch (const std::exception& e) {
    // Only allocation failure can get here; it is reported like any unreadable text.
    setError(error, badJson(std::string("JSON text could not be parsed: ") + e.what()));
  }
  return std::nullopt;
}

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string dumpJson(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

bool truthValue(const nlohmann::json& value) {
  if (value.is_boolean()) return *value.get_ptr<const bool*>();
  if (value.is_number_float()) return *value.get_ptr<const double*>() != 0.0;
  if (value.is_number_unsigned()) return *value.get_ptr<const uint64_t*>() != 0;
  if (value.is_number_integer()) return *value.get_ptr<const int64_t*>() != 0;
  if (!value.is_string()) return false;
  const std::string& text = *value.get_ptr<const std::string*>();
  size_t i = text.find_first_not_of(" \t\n\r\f\v");
  if (i == std::string::npos) return false;
  if (text[i] == '+' || text[i] == '-') {
    ++i;
    while (i < text.size() && text[i] == '0') ++i;
  }
  if (i >= text.size()) return false;
  char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

bool appendJsonString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  size_t at = 0;
  while (at < text.size()) {
    const auto c = static_cast<unsigned char>(text[at]);
    if (c >= 0x80) {
      const size_t length = utf8SequenceLength(text, at);
      if (length == 0) return false;
      out.append(text.substr(at, length));
      at += length;
      continue;
    }
    switch (c) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\b':
        out.append("\\b");
        break;
      case '\f':
        out.append("\\f");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      default:
        if (c < 0x20) {
          out.append("\\u00");
          out.push_back(kHex[c >> 4]);
          out.push_back(kHex[c & 0x0F]);
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
    ++at;
  }
  out.push_back('"');
  return true;
}

size_t jsonCapacity(std::initializer_list<std::string_view> texts) {
  size_t size = 64;
  for (std::string_view text : texts) size += 6 * text.size() + 16;
  return size;
}

}  // namespace corvane::jsonmodel
