#include <gtest/gtest.h>
#include <zlib.h>

#include "foundation/utils.h"

namespace corvane {
namespace {

Bytes bytesOf(std::initializer_list<int> values) {
  Bytes out;
  for (int v : values) out.push_back(static_cast<uint8_t>(v));
  return out;
}

TEST(Base64UrlTest, KnownAnswers) {
  const std::pair<Bytes, std::string> cases[] = {
      {{}, ""},
      {bytesOf({0x41}), "QQ"},
      {bytesOf({0x41, 0x42}), "QUI"},
      {bytesOf({0x41, 0x42, 0x43}), "QUJD"},
      {bytesOf({0xFB, 0xFF}), "-_8"},
      {bytesOf({0xFF, 0xFF, 0xFF}), "____"},
  };
  for (const auto& [data, text] : cases) {
    EXPECT_EQ(Utils::base64URLSafeStringFromData(data), text);
    EXPECT_EQ(Utils::decodeBase64Url(text), data) << text;
  }
  EXPECT_EQ(Utils::decodeBase64Url("QQ=="), bytesOf({0x41}));
}

TEST(Base64UrlTest, DecodeRejectsMalformedText) {
  for (const char* text : {"Q", "QUJDQ", "Q===", "QQ=A", "=QQQ", "QU JD", "QUJ*", "QQ==QQ"}) {
    EXPECT_FALSE(Utils::decodeBase64Url(text).has_value()) << text;
  }
}

TEST(Base64UrlTest, AlphabetCheck) {
  EXPECT_TRUE(Utils::isBase64urlString("AZaz09-_"));
  EXPECT_TRUE(Utils::isBase64urlString(" QU\tJD\r\nQQ \n"));
  for (const char* text : {"QUJD=", "QU+D", "QU/D", "QU\xC3\xA9"}) {
    EXPECT_FALSE(Utils::isBase64urlString(text)) << text;
  }
}

TEST(Sha256Test, Vectors) {
  EXPECT_EQ(Utils::sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Utils::sha256("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  const auto raw = Utils::sha256BackData("abc");
  EXPECT_EQ(raw[0], 0xBA);
  EXPECT_EQ(raw[31], 0xAD);
}

TEST(HexTest, LenientParseAndRendering) {
  const std::pair<std::string, Bytes> cases[] = {
      {"0a 1B f", bytesOf({0x0A, 0x1B})},
      {"f", {}},
      {"7z", bytesOf({0x07})},
      {"-1", bytesOf({0xFF})},
      {"DEADbeef", bytesOf({0xDE, 0xAD, 0xBE, 0xEF})},
  };
  for (const auto& [text, bytes] : cases) EXPECT_EQ(Utils::hexString2NSData(text), bytes) << text;
  EXPECT_EQ(hexadecimalString(bytesOf({0x00, 0x0F, 0xA0, 0xFF})), "000fa0ff");
}

Bytes deflateWith(ByteView input, int windowBits) {
  z_stream s{};
  deflateInit2(&s, Z_BEST_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
  Bytes out(deflateBound(&s, input.size()) + 32);
  s.next_in = const_cast<Bytef*>(input.data());
  s.avail_in = static_cast<uInt>(input.size());
  s.next_out = out.data();
  s.avail_out = static_cast<uInt>(out.size());
  deflate(&s, Z_FINISH);
  out.resize(s.total_out);
  deflateEnd(&s);
  return out;
}

TEST(InflateTest, GzipAndZlibAndEmpty) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "white-box table " + std::to_string(i % 7) + ";";
  for (int windowBits : {31, 15}) {  // gzip member, zlib stream
    const auto out = Utils::uncompressGZip(deflateWith(asBytes(text), windowBits));
    ASSERT_TRUE(out.has_value()) << windowBits;
    EXPECT_EQ(asText(*out), text);
  }
  const auto empty = Utils::uncompressGZip({});
  ASSERT_TRUE(empty.has_value());
  EXPECT_TRUE(empty->empty());
}

TEST(InflateTest, CorruptTruncatedOrBombIsAbsent) {
  const std::string text = "registration data for the relying party";
  const Bytes gz = deflateWith(asBytes(text), 31);
  for (size_t cut = 1; cut < gz.size(); ++cut) {
    EXPECT_FALSE(Utils::uncompressGZip(ByteView(gz).first(cut)).has_value()) << cut;
  }
  for (size_t bit = 0; bit < gz.size() * 8; ++bit) {
    Bytes bad = gz;
    bad[bit / 8] ^= static_cast<uint8_t>(1 << (bit % 8));
    const auto out = Utils::uncompressGZip(bad);
    if (out) {
      EXPECT_EQ(asText(*out), text) << bit;  // only bits of ignored header fields
    }
  }
  EXPECT_FALSE(Utils::uncompressGZip(asBytes("not compressed at all")).has_value());
  EXPECT_FALSE(Utils::uncompressGZip(deflateWith(Bytes(80u * 1024 * 1024), 31)).has_value());
}

TEST(TextPredicateTest, AaidFormatAndUtf16Length) {
  EXPECT_FALSE(Utils::checkAaidFormat(std::nullopt));
  EXPECT_TRUE(Utils::checkAaidFormat("abcd#EF01"));
  for (const char* t : {"0F3D#00020", "0F3D-0002", "0F3D#002", "0F3G#0002", "0F3D#0002\n"}) {
    EXPECT_FALSE(Utils::checkAaidFormat(t)) << t;
  }
  EXPECT_EQ(utf16Length("\xC3\xA9"), 1u);
  EXPECT_EQ(utf16Length("\xF0\x9F\x98\x80"), 2u);  // an emoji is a surrogate pair
  EXPECT_EQ(utf16Length("\xE5\x9C"), 2u);          // truncated sequence
}

TEST(GeometryTest, PointLiesInJoin) {
  struct Case {
    Point p, p1, p2;
    bool inside;
  };
  const Case cases[] = {
      {{1, 1}, {0, 0}, {2, 2}, true},   {{0, 0}, {0, 0}, {2, 2}, false},
      {{1, 10}, {1, 0}, {1, 9}, false}, {{1, 2}, {0, 0}, {2, 2}, false},
      {{1, 1}, {2, 2}, {0, 0}, true},   {{1, 0.5}, {0, 0}, {3, 1.5}, true},
  };
  for (const auto& c : cases) EXPECT_EQ(Utils::point(c.p, c.p1, c.p2), c.inside) << c.p.x;
  EXPECT_FALSE(Utils::isValue(2.0000001, 1, 2));
  EXPECT_TRUE(Utils::isValue(2, 1, 2));
}

}  // namespace
}  // namespace corvane
