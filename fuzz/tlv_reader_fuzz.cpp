// Walks any input with ByteReader as nested TLV elements and writes what it read back with
// ByteWriter: the bytes must come out exactly as they went in. A value that reads completely as a
// sequence of elements is walked as nested elements (as the assertion, KRD, signed-data,
// attestation and extension elements are); any other value, and bytes that do not form an
// element, are copied as they stand.
#include <cstddef>
#include <cstdint>
#include <optional>

#include "foundation/byte_io.h"

namespace {

using corvane::ByteReader;
using corvane::ByteView;
using corvane::ByteWriter;
using corvane::TlvElement;

// Deep enough for anything the library builds (four levels) and far more; bounded so that a
// hostile input of nested empty headers cannot exhaust the stack.
constexpr int kMaxDepth = 64;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// True when `bytes` is a non-empty run of whole elements.
bool isElementSequence(ByteView bytes) {
  ByteReader reader(bytes);
  if (reader.empty()) return false;
  while (!reader.empty()) {
    if (!reader.readElement()) return false;
  }
  return true;
}

void walk(ByteReader reader, ByteWriter& writer, int depth) {
  while (!reader.empty()) {
    const size_t before = reader.remaining();
    std::optional<TlvElement> element = reader.readElement();
    if (!element) {
      // A failed read leaves the reader where it was.
      check(reader.remaining() == before);
      writer.addBytes(reader.rest());
      return;
    }
    check(reader.remaining() == before - element->whole.size());
    check(element->whole.size() == 4 + element->value.remaining());
    check(element->whole.data() + 4 == element->value.rest().data());
    // The tag-checked read finds the same element.
    ByteReader again(element->whole);
    std::optional<ByteReader> value = again.readElement(element->tag);
    check(value && again.empty() && value->rest().data() == element->value.rest().data());

    if (depth < kMaxDepth && isElementSequence(element->value.rest())) {
      ByteWriter::Element nested = writer.openElement(element->tag);
      walk(element->value, writer, depth + 1);
    } else {
      writer.addElement(element->tag, element->value.rest());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ByteView input(data, size);
  ByteWriter writer(size);
  walk(ByteReader(input), writer, 0);
  check(writer.ok());  // every length read back fits in 16 bits
  const ByteView output = writer.bytes();
  check(output.size() == input.size());
  for (size_t i = 0; i < size; ++i) check(output[i] == input[i]);

  // Plain reads never overrun and never advance on failure.
  ByteReader reader(input);
  while (reader.readU32()) {
  }
  check(reader.remaining() < 4);
  const size_t left = reader.remaining();
  check(!reader.readBytes(left + 1) && reader.remaining() == left);
  return 0;
}
