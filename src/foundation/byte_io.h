// ByteWriter and ByteReader: little-endian integers, byte runs and TLV elements (a 16-bit tag, a
// 16-bit length, then the value; both little-endian), as the UAF assertions are laid out.
//
// The writer appends; a nested element is opened, filled and closed, and its length is written
// when it closes. A value longer than a 16-bit length can carry (65,535 bytes) is refused, not cut:
// the writer fails and stays failed, as BoringSSL's CBB does, so that no caller can send a length
// that makes the rest of the value parse as further elements. The reader walks a span it does not own, advances only when a read succeeds, and
// hands out an element's value as a sub-reader bounded to that value. Neither throws or reads
// outside its bytes, so the reader is safe on untrusted input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "foundation/utils.h"

namespace corvane {

class ByteWriter {
 public:
  ByteWriter() = default;
  // Reserves room for `capacity` bytes up front.
  explicit ByteWriter(size_t capacity) { bytes_.reserve(capacity); }

  void addU8(uint8_t value) { bytes_.push_back(value); }
  void addU16(uint16_t value);
  void addU32(uint32_t value);
  void addBytes(ByteView bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

  // One whole element: tag, the value's length, the value. A value over 65,535 bytes writes
  // nothing and fails the writer.
  void addElement(uint16_t tag, ByteView value);

  // An open element: its tag and a zero length are written when it opens; close() (or the
  // destructor) fills in the number of bytes written since. More than 65,535 fails the writer.
  // Elements nest; close them in the reverse order of opening (scopes do that by themselves).
  class Element {
   public:
    Element(ByteWriter& writer, uint16_t tag);
    ~Element() { close(); }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;
    // Idempotent.
    void close();

   private:
    ByteWriter* writer_;
    size_t lengthAt_;
    bool open_ = true;
  };
  [[nodiscard]] Element openElement(uint16_t tag) { return Element(*this, tag); }

  // False once a value was refused; then nothing the writer holds may be used.
  [[nodiscard]] bool ok() const { return !failed_; }
  size_t size() const { return bytes_.size(); }
  ByteView bytes() const { return bytes_; }
  // Hands the bytes over, absent when the writer failed, and leaves the writer empty.
  [[nodiscard]] std::optional<Bytes> finish() {
    Bytes out;
    out.swap(bytes_);
    if (failed_) return std::nullopt;
    return out;
  }

 private:
  static constexpr size_t kMaxLength = 0xFFFF;

  Bytes bytes_;
  bool failed_ = false;
};

struct TlvElement;

class ByteReader {
 public:
  ByteReader() = default;
  explicit ByteReader(ByteView data) : data_(data) {}

  size_t remaining() const { return data_.size(); }
  bool empty() const { return data_.empty(); }
  // The bytes not read yet.
  ByteView rest() const { return data_; }

  // Each read either succeeds and advances, or fails (absent or false) and leaves the reader
  // where it was.
  [[nodiscard]] std::optional<uint8_t> readU8();
  [[nodiscard]] std::optional<uint16_t> readU16();
  [[nodiscard]] std::optional<uint32_t> readU32();
  [[nodiscard]] std::optional<ByteView> readBytes(size_t count);
  [[nodiscard]] bool skip(size_t count);
  // The next two bytes as a little-endian number, without advancing (the next element's tag).
  [[nodiscard]] std::optional<uint16_t> peekU16() const;

  // One element of any tag. Fails when the header or the value is cut short.
  [[nodiscard]] std::optional<TlvElement> readElement();
  // One element, only when its tag is `tag`; the value as a sub-reader.
  [[nodiscard]] std::optional<ByteReader> readElement(uint16_t tag);

 private:
  ByteView data_;
};

struct TlvElement {
  uint16_t tag = 0;
  ByteReader value;  // bounded to the value
  ByteView whole;    // tag, length and value, as they stand in the input
};

}  // namespace corvane
