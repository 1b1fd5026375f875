#include "wbgen/bundle.h"

#include <zlib.h>

#include <limits>

namespace wbgen {

namespace {

// A nested array of `dims` (outermost first) over a flat row-major array.
template <typename T>
void appendNested(std::string& out, std::span<const T> values, std::span<const size_t> dims) {
  out.push_back('[');
  if (dims.size() == 1) {
    for (size_t i = 0; i < dims[0]; ++i) {
      if (i) out.push_back(',');
      out += std::to_string(values[i]);
    }
  } else {
    const size_t stride = values.size() / dims[0];
    for (size_t i = 0; i < dims[0]; ++i) {
      if (i) out.push_back(',');
      appendNested(out, values.subspan(i * stride, stride), dims.subspan(1));
    }
  }
  out.push_back(']');
}

constexpr size_t kRoundDims[] = {13, 16, 256};
constexpr size_t kBlockDims[] = {16, 256};

}  // namespace

std::optional<corvane::Bytes> gzip(corvane::ByteView data) {
  if (data.size() > std::numeric_limits<uInt>::max()) return std::nullopt;
  z_stream stream{};
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    return std::nullopt;
  }
  corvane::Bytes out(deflateBound(&stream, static_cast<uLong>(data.size())));
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  const int status = deflate(&stream, Z_FINISH);
  const size_t produced = stream.total_out;
  deflateEnd(&stream);
  if (status != Z_STREAM_END) return std::nullopt;
  out.resize(produced);
  return out;
}

std::string data1Json(std::span<const uint32_t> tyboxes, std::span<const uint8_t> tboxesLast,
                      std::span<const uint32_t> mbl) {
  std::string out = "{\"Tyboxes\":";
  appendNested(out, tyboxes, kRoundDims);
  out += ",\"TboxesLast\":";
  appendNested(out, tboxesLast, kBlockDims);
  out += ",\"MBL\":";
  appendNested(out, mbl, kRoundDims);
  out += "}";
  return out;
}

std::string data2Json(std::span<const uint8_t> externalEncoding) {
  std::string out = "{\"permutations\":";
  appendNested(out, externalEncoding, kBlockDims);
  out += "}";
  return out;
}

std::optional<std::string> packBundleField(std::string_view json) {
  const auto compressed = gzip(corvane::asBytes(json));
  if (!compressed) return std::nullopt;
  return corvane::Utils::base64URLSafeStringFromData(*compressed);
}

}  // namespace wbgen
