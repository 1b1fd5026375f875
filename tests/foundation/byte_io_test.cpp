// ByteWriter and ByteReader: known layouts, the 16-bit length cut, and a reader that never moves
// on a failed read, whatever the cut or the declared length.
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

TEST(ByteWriterTest, KnownLayouts) {
  ByteWriter writer;
  writer.addU8(0xA1);
  writer.addU16(0xB2C3);
  writer.addU32(0x01020304);
  writer.addBytes(hex("FFEE"));
  writer.addElement(0x2E0B, hex("3031"));
  writer.addElement(0x2E10, {});
  {
    ByteWriter::Element outer = writer.openElement(0x3E01);
    writer.addU8(0x77);
    {
      ByteWriter::Element inner = writer.openElement(0x3E03);
      writer.addElement(0x2E0D, hex("0102030405"));
    }
    ByteWriter::Element empty = writer.openElement(0x2E06);
    empty.close();
    empty.close();  // a second close changes nothing
    writer.addU8(0x88);
  }
  EXPECT_EQ(copy(writer.bytes()), hex("A1 C3B2 04030201 FFEE"
                                      "0B2E 0200 3031"
                                      "102E 0000"
                                      "013E 1300 77"
                                      "  033E 0900 0D2E 0500 0102030405"
                                      "  062E 0000"
                                      "  88"));
  const size_t size = writer.size();
  EXPECT_EQ(writer.release().size(), size);
  EXPECT_EQ(writer.size(), 0u);
}

TEST(ByteWriterTest, LengthKeepsItsLow16Bits) {
  for (const auto& [size, length] : {std::pair<size_t, std::string_view>{65535, "FFFF"},
                                     {65536, "0000"},
                                     {65537, "0100"},
                                     {70000, "7011"}}) {
    const Bytes value(size, 0x5A);
    ByteWriter whole;
    whole.addElement(0x2E0C, value);
    ByteWriter opened;
    {
      ByteWriter::Element element = opened.openElement(0x2E0C);
      opened.addBytes(value);
    }
    for (const ByteWriter* writer : {&whole, &opened}) {
      ASSERT_EQ(writer->size(), size + 4);
      EXPECT_EQ(copy(writer->bytes().first(4)), hex(std::string("0C2E") + std::string(length)))
          << size;
    }
  }
}

TEST(ByteReaderTest, ReadsWhatTheWriterWrote) {
  const Bytes data = hex("A1 C3B2 04030201 0B2E 0300 303132 013E 0800 0D2E 0400 AABBCCDD EE");
  ByteReader reader(data);
  EXPECT_EQ(reader.readU8(), 0xA1);
  EXPECT_EQ(reader.peekU16(), 0xB2C3);
  EXPECT_EQ(reader.readU16(), 0xB2C3);
  EXPECT_EQ(reader.readU32(), 0x01020304u);
  EXPECT_FALSE(reader.readElement(0x2E0C));  // wrong tag: nothing read
  std::optional<ByteReader> aaid = reader.readElement(0x2E0B);
  ASSERT_TRUE(aaid);
  EXPECT_EQ(copy(aaid->rest()), hex("303132"));
  std::optional<TlvElement> outer = reader.readElement();
  ASSERT_TRUE(outer);
  EXPECT_EQ(outer->tag, 0x3E01);
  EXPECT_EQ(copy(outer->whole), hex("013E 0800 0D2E 0400 AABBCCDD"));
  std::optional<ByteReader> counters = outer->value.readElement(0x2E0D);
  ASSERT_TRUE(counters);
  EXPECT_TRUE(outer->value.empty());
  EXPECT_EQ(counters->readU32(), 0xDDCCBBAAu);
  EXPECT_FALSE(counters->readU8());  // the sub-reader ends with its value
  EXPECT_EQ(reader.remaining(), 1u);
  EXPECT_EQ(copy(reader.readBytes(1).value_or(ByteView())), hex("EE"));
  EXPECT_TRUE(reader.empty());
  EXPECT_FALSE(reader.readElement());
  EXPECT_TRUE(reader.skip(0));
  EXPECT_FALSE(reader.skip(1));
}

// Every read on every prefix of the input either succeeds with the right value or fails without
// moving the reader.
TEST(ByteReaderTest, FailedReadsDoNotAdvanceAtAnyCut) {
  ByteWriter writer;
  {
    ByteWriter::Element outer = writer.openElement(0x3E02);
    writer.addElement(0x2E0F, hex("4162336445356737"));
    writer.addElement(0x2E10, {});
  }
  const Bytes data = writer.release();
  for (size_t cut = 0; cut <= data.size(); ++cut) {
    const ByteView prefix = ByteView(data).first(cut);
    ByteReader reader(prefix);
    auto unmoved = [&] { return reader.remaining() == cut; };
    if (cut < 4) {
      EXPECT_FALSE(reader.readU32());
      EXPECT_TRUE(unmoved());
    }
    if (cut < 2) {
      EXPECT_FALSE(reader.readU16());
      EXPECT_FALSE(reader.peekU16());
      EXPECT_TRUE(unmoved());
    }
    EXPECT_FALSE(reader.readBytes(cut + 1));
    EXPECT_FALSE(reader.skip(cut + 1));
    EXPECT_TRUE(unmoved());
    if (cut < data.size()) {
      EXPECT_FALSE(reader.readElement()) << cut;
      EXPECT_FALSE(reader.readElement(0x3E02)) << cut;
      EXPECT_TRUE(unmoved()) << cut;
    } else {
      std::optional<TlvElement> element = reader.readElement();
      ASSERT_TRUE(element);
      EXPECT_EQ(copy(element->whole), data);
      EXPECT_TRUE(reader.empty());
    }
  }
}

TEST(ByteReaderTest, DeclaredLengthsPastTheEndFail) {
  const Bytes value(40, 0x11);
  for (uint32_t declared = 0; declared <= 0xFFFF; ++declared) {
    Bytes data = hex("0C2E");
    data.push_back(static_cast<uint8_t>(declared));
    data.push_back(static_cast<uint8_t>(declared >> 8));
    data.insert(data.end(), value.begin(), value.end());
    ByteReader reader(data);
    std::optional<TlvElement> element = reader.readElement();
    if (declared <= value.size()) {
      ASSERT_TRUE(element) << declared;
      EXPECT_EQ(element->value.remaining(), declared);
      EXPECT_EQ(reader.remaining(), value.size() - declared);
    } else {
      ASSERT_FALSE(element) << declared;
      EXPECT_EQ(reader.remaining(), data.size());
    }
  }
}

}  // namespace
}  // namespace corvane
