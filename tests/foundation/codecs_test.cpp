#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <zlib.h>

#include <cmath>
#include <limits>
#include <set>

#include "foundation/utils.h"

namespace corvane {
namespace {

Bytes bytesOf(std::initializer_list<int> values) {
  Bytes out;
  for (int v : values) out.push_back(static_cast<uint8_t>(v));
  return out;
}

TEST(Base64UrlTest, KnownAnswers) {
  struct Case {
    Bytes data;
    std::string text;
  };
  const Case cases[] = {
      {{}, ""},
      {bytesOf({0x41}), "QQ"},
      {bytesOf({0x41, 0x42}), "QUI"},
      {bytesOf({0x41, 0x42, 0x43}), "QUJD"},
      {bytesOf({0xFB, 0xFF}), "-_8"},
      {bytesOf({0xFB, 0xEF, 0xBE}), "----"},
      {bytesOf({0xFF, 0xFF, 0xFF}), "____"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Utils::base64URLSafeStringFromData(c.data), c.text);
    EXPECT_EQ(Utils::decodeBase64Url(c.text), c.data) << c.text;
  }
}

TEST(Base64UrlTest, RoundTripsEveryLengthAgainstOpenSsl) {
  for (size_t length = 0; length < 200; ++length) {
    Bytes data(length);
    RAND_bytes(data.data(), static_cast<int>(data.size()));
    const std::string url = Utils::base64URLSafeStringFromData(data);
    EXPECT_TRUE(Utils::isBase64urlString(url));
    EXPECT_EQ(url.find('='), std::string::npos);
    EXPECT_EQ(Utils::decodeBase64Url(url), data);

    // Same text as OpenSSL's standard base64 after the alphabet swap and without padding.
    std::string standard(4 * ((length + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(standard.data()), data.data(),
                                  static_cast<int>(length));
    standard.resize(static_cast<size_t>(n));
    while (!standard.empty() && standard.back() == '=') standard.pop_back();
    for (char& c : standard) c = c == '+' ? '-' : c == '/' ? '_' : c;
    EXPECT_EQ(url, standard);
  }
}

TEST(Base64UrlTest, DecodeRejectsMalformedText) {
  for (const char* text : {"Q", "QUJDQ", "Q===", "QQ=A", "=QQQ", "QU JD", "QU\nJD", "QUJ*", "QUJ.",
                           "QQ==QQ", "\xC3\xA9QQ"}) {
    EXPECT_FALSE(Utils::decodeBase64Url(text).has_value()) << text;
  }
  // Standard-alphabet symbols and trailing padding are accepted: the alphabet is not checked.
  EXPECT_EQ(Utils::decodeBase64Url("+/8"), bytesOf({0xFB, 0xFF}));
  EXPECT_EQ(Utils::decodeBase64Url("QQ=="), bytesOf({0x41}));
  EXPECT_EQ(Utils::decodeBase64Url("QQ="), bytesOf({0x41}));
}

TEST(Base64UrlTest, AlphabetCheck) {
  EXPECT_TRUE(Utils::isBase64urlString(""));
  EXPECT_TRUE(Utils::isBase64urlString("AZaz09-_"));
  EXPECT_TRUE(Utils::isBase64urlString(" QU\tJD\r\nQQ \n"));
  EXPECT_TRUE(Utils::isBase64urlString("QU\xC2\xA0JD\xE2\x80\xA8"));  // no-break space, U+2028
  for (const char* text : {"QUJD=", "QU+D", "QU/D", "QU.D", "QU\xC3\xA9", "\xFF", "\xE2\x80"}) {
    EXPECT_FALSE(Utils::isBase64urlString(text)) << text;
  }
  EXPECT_FALSE(Utils::isBase64urlString(std::string("QU\0JD", 5)));
}

TEST(Sha256Test, Vectors) {
  EXPECT_EQ(Utils::sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Utils::sha256("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Utils::sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  // UTF-8 bytes of the text: "é" is C3 A9.
  EXPECT_EQ(Utils::sha256("\xC3\xA9"), hexadecimalString(Utils::sha256BackData("\xC3\xA9")));
  const auto raw = Utils::sha256BackData("abc");
  EXPECT_EQ(raw[0], 0xBA);
  EXPECT_EQ(raw[31], 0xAD);
}

TEST(HexTest, LenientParse) {
  struct Case {
    std::string text;
    Bytes bytes;
  };
  const Case cases[] = {
      {"0a 1B f", bytesOf({0x0A, 0x1B})},
      {"", {}},
      {"f", {}},
      {"7z", bytesOf({0x07})},
      {"zz", bytesOf({0x00})},
      {"-1", bytesOf({0xFF})},
      {"\t5", bytesOf({0x05})},
      {"DEADbeef", bytesOf({0xDE, 0xAD, 0xBE, 0xEF})},
      {"  ", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(Utils::hexString2NSData(c.text), c.bytes) << c.text;
}

TEST(HexTest, RenderingRoundTrips) {
  EXPECT_EQ(hexadecimalString({}), "");
  EXPECT_EQ(hexadecimalString(bytesOf({0x00, 0x0F, 0xA0, 0xFF})), "000fa0ff");
  Bytes all(256);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(Utils::hexString2NSData(hexadecimalString(all)), all);
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
  // Highly compressible input makes the output buffer grow many times.
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "white-box table " + std::to_string(i % 7) + ";";
  const ByteView plain = asBytes(text);
  for (int windowBits : {31, 15}) {  // gzip member, zlib stream
    const auto out = Utils::uncompressGZip(deflateWith(plain, windowBits));
    ASSERT_TRUE(out.has_value()) << windowBits;
    EXPECT_EQ(asText(*out), text);
  }
  const auto empty = Utils::uncompressGZip({});
  ASSERT_TRUE(empty.has_value());
  EXPECT_TRUE(empty->empty());
}

TEST(InflateTest, CorruptOrTruncatedInputIsAbsent) {
  const std::string text = "registration data for the relying party";
  const Bytes gz = deflateWith(asBytes(text), 31);
  for (size_t cut = 1; cut < gz.size(); ++cut) {
    EXPECT_FALSE(Utils::uncompressGZip(ByteView(gz).first(cut)).has_value()) << cut;
  }
  // Every flipped bit either fails (header, data or CRC check) or, never, yields other text.
  for (size_t bit = 0; bit < gz.size() * 8; ++bit) {
    Bytes bad = gz;
    bad[bit / 8] ^= static_cast<uint8_t>(1 << (bit % 8));
    const auto out = Utils::uncompressGZip(bad);
    if (out) {
      EXPECT_EQ(asText(*out), text) << bit;  // only bits of ignored header fields
    }
  }
  EXPECT_FALSE(Utils::uncompressGZip(asBytes("not compressed at all")).has_value());
  EXPECT_FALSE(Utils::uncompressGZip(bytesOf({0x1F})).has_value());
}

TEST(InflateTest, OutputIsBounded) {
  const Bytes zeros(80u * 1024 * 1024);
  EXPECT_FALSE(Utils::uncompressGZip(deflateWith(zeros, 31)).has_value());
}

TEST(RandomTest, BytesAndIdentifiers) {
  EXPECT_EQ(Utils::randomBytesWithLength(0)->size(), 0u);
  const auto a = Utils::randomBytesWithLength(32);
  const auto b = Utils::randomBytesWithLength(32);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->size(), 32u);
  EXPECT_NE(*a, *b);

  EXPECT_EQ(randomStringWithLength(0), "");
  EXPECT_EQ(randomStringWithLength(-5), "");
  const std::string s = randomStringWithLength(6200);
  ASSERT_EQ(s.size(), 6200u);
  std::set<char> seen(s.begin(), s.end());
  EXPECT_EQ(seen.size(), 62u);  // every symbol shows up in a long draw
  for (char c : seen) EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << c;
}

TEST(TextPredicateTest, StringIsBlank) {
  EXPECT_TRUE(Utils::stringIsBlank(std::nullopt));
  for (const char* t : {"", " ", "\t \t", "\xC2\xA0", "\xE3\x80\x80"}) {
    EXPECT_TRUE(Utils::stringIsBlank(t)) << t;
  }
  for (const char* t : {"\n", " \r ", "a", " a ", "\xFF"})
    EXPECT_FALSE(Utils::stringIsBlank(t)) << t;
}

TEST(TextPredicateTest, AaidFormat) {
  EXPECT_FALSE(Utils::checkAaidFormat(std::nullopt));
  for (const char* t : {"0F3D#0002", "abcd#EF01", "0000#0000"}) {
    EXPECT_TRUE(Utils::checkAaidFormat(t)) << t;
  }
  for (const char* t : {"0F3D#00020", "0F3D-0002", "0F3D#002", "0F3G#0002", "0F3D#0002\n",
                        " 0F3D#0002", "", "0F3D#000g", "0F3D##002"}) {
    EXPECT_FALSE(Utils::checkAaidFormat(t)) << t;
  }
}

TEST(TextPredicateTest, Utf16Length) {
  EXPECT_EQ(utf16Length(""), 0u);
  EXPECT_EQ(utf16Length("abc"), 3u);
  EXPECT_EQ(utf16Length("\xC3\xA9"), 1u);          // é
  EXPECT_EQ(utf16Length("\xE5\x9C\x96"), 1u);      // 圖
  EXPECT_EQ(utf16Length("\xF0\x9F\x98\x80"), 2u);  // an emoji is a surrogate pair
  EXPECT_EQ(utf16Length("\xFF\xFE"), 2u);          // invalid bytes count one each
  EXPECT_EQ(utf16Length("\xE5\x9C"), 2u);          // truncated sequence
}

TEST(GeometryTest, ValueBetween) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(Utils::isValue(1, 1, 2));
  EXPECT_TRUE(Utils::isValue(2, 1, 2));
  EXPECT_FALSE(Utils::isValue(2.0000001, 1, 2));
  EXPECT_FALSE(Utils::isValue(nan, 0, 1));
  EXPECT_FALSE(Utils::isValue(0.5, nan, 1));
  EXPECT_FALSE(Utils::isValue(0.5, 0, nan));
}

TEST(GeometryTest, PointLiesInJoin) {
  struct Case {
    Point p, p1, p2;
    bool inside;
  };
  const Case cases[] = {
      {{1, 1}, {0, 0}, {2, 2}, true},   {{0, 0}, {0, 0}, {2, 2}, false},
      {{2, 2}, {0, 0}, {2, 2}, false},  {{1, 5}, {1, 0}, {1, 9}, true},
      {{1, 10}, {1, 0}, {1, 9}, false}, {{1, 2}, {0, 0}, {2, 2}, false},
      {{3, 3}, {0, 0}, {2, 2}, false},  {{1, 1}, {2, 2}, {0, 0}, true},
      {{5, 0}, {0, 0}, {10, 0}, true},  {{1, 0.5}, {0, 0}, {3, 1.5}, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Utils::point(c.p, c.p1, c.p2), c.inside)
        << c.p.x << "," << c.p.y << " in " << c.p1.x << "," << c.p1.y << "-" << c.p2.x << ","
        << c.p2.y;
  }
  // No tolerance: a point off the line by rounding is not on it.
  EXPECT_FALSE(Utils::point({1, 1.0000000001}, {0, 0}, {2, 2}));
}

}  // namespace
}  // namespace corvane
