// ByteWriter and ByteReader: known layouts, lengths past 16 bits refused, and a reader that never
// moves on a failed read, whatever the cut or the declared length.
#include "foundation/byte_io.h"

#include <gtest/gtest.h>

#include <optional>

namespace corvane {
namespace {

Bytes hex(std::string_view text) {
  return Utils::hexString2NSData(text);
}

Bytes copy(ByteView bytes) {
  return Bytes(bytes.begin(), bytes.end());
}

TEST(ByteWriterTest, KnownLayoutsAndLengthsOver16BitsFailTheWriter) {
  ByteWriter writer;
  writer.addU8(0xA1);
  writer.addU16(0xB2C3);
  writer.addU32(0x01020304);
  writer.addElement(0x2E0B, hex("3031"));
  {
    ByteWriter::Element outer = writer.openElement(0x3E01);
    writer.addU8(0x77);
    writer.addElement(0x2E0D, hex("0102"));
    ByteWriter::Element empty = writer.openElement(0x2E06);
    empty.close();
    empty.close();  // a second close changes nothing
  }
  EXPECT_EQ(copy(writer.bytes()), hex("A1 C3B2 04030201 0B2E 0200 3031 013E 0B00 77"
                                      "0D2E 0200 0102 062E 0000"));
  // 65,535 is the last length that fits; past it the writer fails and stays failed, whole or
  // opened, and hands out nothing.
  for (size_t size : {size_t{65535}, size_t{65536}, size_t{70000}}) {
    ByteWriter whole, opened;
    whole.addElement(0x2E0C, Bytes(size, 0x5A));
    {
      ByteWriter::Element element = opened.openElement(0x2E0C);
      opened.addBytes(Bytes(size, 0x5A));
    }
    for (ByteWriter* w : {&whole, &opened}) {
      w->addElement(0x2E0B, hex("3031"));
      EXPECT_EQ(w->ok(), size == 65535) << size;
      const std::optional<Bytes> out = w->finish();
      ASSERT_EQ(out.has_value(), size == 65535) << size;
      if (out) {
        EXPECT_EQ(copy(ByteView(*out).first(4)), hex("0C2E FFFF"));
      }
    }
  }
}

// Every read on every prefix either succeeds with the right value or fails without moving.
TEST(ByteReaderTest, FailedReadsDoNotAdvanceAtAnyCut) {
  const Bytes data = hex("023E 1000 0F2E 0800 4162336445356737 102E 0000");
  for (size_t cut = 0; cut <= data.size(); ++cut) {
    ByteReader reader(ByteView(data).first(cut));
    if (cut < 4) {
      EXPECT_FALSE(reader.readU32());
    }
    if (cut < 2) {
      EXPECT_FALSE(reader.readU16() || reader.peekU16());
    }
    EXPECT_FALSE(reader.readBytes(cut + 1) || reader.skip(cut + 1));
    if (cut < data.size()) {
      EXPECT_FALSE(reader.readElement() || reader.readElement(0x3E02)) << cut;
      EXPECT_EQ(reader.remaining(), cut) << cut;
    } else {
      EXPECT_FALSE(reader.readElement(0x3E01));  // wrong tag: nothing read
      std::optional<TlvElement> element = reader.readElement();
      ASSERT_TRUE(element);
      EXPECT_EQ(element->tag, 0x3E02);
      EXPECT_EQ(copy(element->whole), data);
      std::optional<ByteReader> nonce = element->value.readElement(0x2E0F);
      ASSERT_TRUE(nonce);
      EXPECT_EQ(nonce->readU32(), 0x64336241u);
      EXPECT_EQ(nonce->readU16(), 0x3545);
      EXPECT_EQ(nonce->peekU16(), 0x3767);
      EXPECT_EQ(nonce->readU8(), 0x67);
      EXPECT_EQ(copy(nonce->rest()), hex("37"));
      EXPECT_FALSE(nonce->skip(2));  // the sub-reader ends with its value
      EXPECT_TRUE(reader.empty() && reader.skip(0));
    }
  }
}

}  // namespace
}  // namespace corvane
