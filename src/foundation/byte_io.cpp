#include "foundation/byte_io.h"

namespace corvane {

void ByteWriter::addU16(uint16_t value) {
  bytes_.push_back(static_cast<uint8_t>(value));
  bytes_.push_back(static_cast<uint8_t>(value >> 8));
}

void ByteWriter::addU32(uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8)
    bytes_.push_back(static_cast<uint8_t>(value >> shift));
}

void ByteWriter::addElement(uint16_t tag, ByteView value) {
  if (value.size() > kMaxLength) {
    failed_ = true;
    return;
  }
  addU16(tag);
  addU16(static_cast<uint16_t>(value.size()));
  addBytes(value);
}

ByteWriter::Element::Element(ByteWriter& writer, uint16_t tag) : writer_(&writer) {
  writer.addU16(tag);
  lengthAt_ = writer.size();
  writer.addU16(0);
}

void ByteWriter::Element::close() {
  if (!open_) return;
  open_ = false;
  Bytes& bytes = writer_->bytes_;
  // A writer that was released while the element was open has nothing left to patch.
  if (bytes.size() < lengthAt_ + 2) return;
  const size_t length = bytes.size() - lengthAt_ - 2;
  if (length > kMaxLength) writer_->failed_ = true;
  bytes[lengthAt_] = static_cast<uint8_t>(length);
  bytes[lengthAt_ + 1] = static_cast<uint8_t>(length >> 8);
}

std::optional<uint8_t> ByteReader::readU8() {
  if (data_.empty()) return std::nullopt;
  const uint8_t value = data_[0];
  data_ = data_.subspan(1);
  return value;
}

std::optional<uint16_t> ByteReader::peekU16() const {
  if (data_.size() < 2) return std::nullopt;
  return static_cast<uint16_t>(data_[0] | (data_[1] << 8));
}

std::optional<uint16_t> ByteReader::readU16() {
  const std::optional<uint16_t> value = peekU16();
  if (value) data_ = data_.subspan(2);
  return value;
}

std::optional<uint32_t> ByteReader::readU32() {
  if (data_.size() < 4) return std::nullopt;
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | data_[static_cast<size_t>(i)];
  data_ = data_.subspan(4);
  return value;
}

std::optional<ByteView> ByteReader::readBytes(size_t count) {
  if (data_.size() < count) return std::nullopt;
  const ByteView out = data_.first(count);
  data_ = data_.subspan(count);
  return out;
}

bool ByteReader::skip(size_t count) {
  return readBytes(count).has_value();
}

std::optional<TlvElement> ByteReader::readElement() {
  if (data_.size() < 4) return std::nullopt;
  const size_t length = static_cast<size_t>(data_[2] | (data_[3] << 8));
  if (data_.size() - 4 < length) return std::nullopt;
  TlvElement element;
  element.tag = static_cast<uint16_t>(data_[0] | (data_[1] << 8));
  element.whole = data_.first(4 + length);
  element.value = ByteReader(data_.subspan(4, length));
  data_ = data_.subspan(4 + length);
  return element;
}

std::optional<ByteReader> ByteReader::readElement(uint16_t tag) {
  if (peekU16() != tag) return std::nullopt;
  std::optional<TlvElement> element = readElement();
  if (!element) return std::nullopt;
  return element->value;
}

}  // namespace corvane
