#include "linux/bundle_directory.h"

#include <gtest/gtest.h>

#include "test_files.h"
#include "test_support.h"

namespace corvane::linux_platform {
namespace {

namespace fs = std::filesystem;
using testing::writeFile;
using Entries = std::map<std::string, std::string, std::less<>>;

// UTF-16LE with a byte-order mark, from ASCII text, then `tail` as it is.
Bytes utf16le(std::string_view ascii, std::string_view tail = "") {
  Bytes out{0xFF, 0xFE};
  for (char c : ascii) out.insert(out.end(), {static_cast<uint8_t>(c), 0});
  out.insert(out.end(), tail.begin(), tail.end());
  return out;
}

TEST(StringsTableTest, KnownAnswers) {
  struct Case {
    Bytes data;
    Entries entries;
    bool complete;
  };
  const Case cases[] = {
      {{}, {}, true},
      {toBytes("/* head */\n\"a\"/*x*/=// line\n\"b\" ; "), {{"a", "b"}}, true},
      {toBytes(R"("k" = "q\" s\\ n\n t\t a\' \U00e9 \UD83D\uDE00 \z";)"),
       {{"k", "q\" s\\ n\n t\t a' \xC3\xA9 \xF0\x9F\x98\x80 z"}},
       true},
      {toBytes(R"("only"; key.one = value_2; "a"="1";"a"="2";)"),
       {{"only", "only"}, {"key.one", "value_2"}, {"a", "2"}},
       true},
      {toBytes("\xEF\xBB\xBF\"a\" = \"b\";"), {{"a", "b"}}, true},
      {utf16le(R"("a" = "b"; "c" = "\U00e9";)"), {{"a", "b"}, {"c", "\xC3\xA9"}}, true},
      // Malformed: the entries before the fault stay, nothing after it.
      {toBytes(R"("a"="1"; "b"="2" "c"="3";)"), {{"a", "1"}}, false},
      {toBytes(R"("a"="1"; "b" "2"; "c"="3";)"), {{"a", "1"}}, false},
      {toBytes(R"("a"="1"; "b"="2;)"), {{"a", "1"}}, false},
      {toBytes(R"("a"="1"; /* "b"="2";)"), {{"a", "1"}}, false},
      {toBytes(R"("a"="1"; "b"="\UD83D x";)"), {{"a", "1"}}, false},
      {toBytes(R"("a"="1"; "b"="\U0000";)"), {{"a", "1"}}, false},
      {toBytes("\"a\"=\"1\"; \"b\"=\"\xC0\xAF\";"), {{"a", "1"}}, false},
      {utf16le(R"("a"="1";)", "x"), {{"a", "1"}}, false},
  };
  for (const Case& c : cases) {
    StringsTable table = parseStringsTable(c.data);
    EXPECT_EQ(table.entries, c.entries) << asText(c.data);
    EXPECT_EQ(table.complete, c.complete) << asText(c.data);
  }
}

const std::string kInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>CFBundleIdentifier</key><string>com.example.app</string>
  <key>flag</key><true/>
  <key>count</key><integer>-3</integer>
  <key>ratio</key><real>0.5</real>
  <key>list</key><array><string>a</string><false/></array>
  <key>blob</key><data>AAEC</data>
  <key>zandrel_fido_sdk_config</key>
  <dict><key>escaped</key><string>a &amp; b &lt;c&gt;</string></dict>
</dict>
</plist>
)";

TEST(PropertyListTest, ReadsEveryType) {
  Error error;
  std::optional<InfoValue> info = parsePropertyList(toBytes(kInfoPlist), &error);
  ASSERT_TRUE(info.has_value()) << error.localizedDescription();
  EXPECT_EQ(*info->member("CFBundleIdentifier")->string(), "com.example.app");
  EXPECT_EQ(info->member("flag")->boolean(), true);
  EXPECT_EQ(info->member("count")->integer(), -3);
  EXPECT_EQ(info->member("ratio")->real(), 0.5);
  EXPECT_EQ(*info->member("list"), InfoValue(InfoValue::Array{InfoValue("a"), InfoValue(false)}));
  EXPECT_EQ(info->member("blob"), nullptr);  // data has no counterpart
  std::string_view path[] = {"zandrel_fido_sdk_config", "escaped"};
  ASSERT_NE(info->find(path), nullptr);
  EXPECT_EQ(*info->find(path)->string(), "a & b <c>");
}

TEST(PropertyListTest, RefusesNonDictionariesAndDamage) {
  for (std::string_view text :
       {std::string_view(""), std::string_view("not a plist"),
        std::string_view("<plist version=\"1.0\"><string>a</string></plist>")}) {
    Error error;
    EXPECT_FALSE(parsePropertyList(toBytes(text), &error).has_value()) << text;
    EXPECT_EQ(error.domain(), kCorvaneErrorDomain);
  }
  // Every truncation and every bit flip either parses to a dictionary or is refused.
  const Bytes data = toBytes(kInfoPlist);
  auto dictionaryOrRefused = [](ByteView bytes) {
    std::optional<InfoValue> info = parsePropertyList(bytes, nullptr);
    return !info || info->dictionary() != nullptr;
  };
  for (size_t i = 0; i < data.size(); ++i) {
    EXPECT_TRUE(dictionaryOrRefused(ByteView(data).first(i))) << "length " << i;
    for (int bit = 0; bit < 8; ++bit) {
      Bytes flipped = data;
      flipped[i] ^= static_cast<uint8_t>(1 << bit);
      EXPECT_TRUE(dictionaryOrRefused(flipped)) << "byte " << i << " bit " << bit;
    }
  }
}

class BundleDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const fs::path& root = dir.path();
    writeFile(root / "Info.plist", kInfoPlist);
    writeFile(root / "en.lproj/Localizable.strings", "\"greeting\" = \"Hello\";");
    writeFile(root / "Base.lproj/Localizable.strings", "\"only_base\" = \"Base only\";");
    writeFile(root / "fr.lproj/Localizable.strings",
              "\"greeting\" = \"Bonjour\";\n\"broken\" = \"x\" \"after\" = \"y\";");
    writeFile(root / "page.html", "<p>root</p>");
    writeFile(root / "fr.lproj/local.html", "<p>fr</p>");
  }
  std::unique_ptr<BundleDirectory> open(std::vector<std::string> languages) {
    Error error;
    auto bundle = BundleDirectory::open(dir.path(), languages, &error);
    EXPECT_NE(bundle, nullptr) << error.localizedDescription();
    return bundle;
  }
  testing::TempDir dir;
};

TEST_F(BundleDirectoryTest, InfoStringsAndResources) {
  auto bundle = open({"fr_FR.UTF-8"});
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.app");
  EXPECT_EQ(bundle->infoString({"zandrel_fido_sdk_config", "escaped"}), "a & b <c>");
  EXPECT_FALSE(bundle->infoString({"flag"}).has_value());  // not a text
  EXPECT_EQ(bundle->preferredLocalizations(), (std::vector<std::string>{"fr", "en"}));
  EXPECT_EQ(bundle->localizedString("greeting", "fr"), "Bonjour");
  EXPECT_FALSE(bundle->localizedString("broken", "fr").has_value());  // after the fault
  EXPECT_FALSE(bundle->localizedString("greeting", "../en").has_value());
  EXPECT_FALSE(bundle->localizedString("only_base", "en").has_value());  // no fallback by name
  EXPECT_EQ(bundle->localizedString("only_base", std::nullopt), "Base only");
  EXPECT_EQ(bundle->pathForResource("local", "html"), dir.path() / "fr.lproj/local.html");
  EXPECT_EQ(bundle->pathForResource("page", "html"), dir.path() / "page.html");
  EXPECT_FALSE(bundle->pathForResource("../page", "html").has_value());
}

TEST_F(BundleDirectoryTest, OpenFailures) {
  writeFile(dir.path() / "damaged" / "Info.plist", "<plist><dict><key>a</key>");
  for (const char* name : {"absent", "damaged"}) {
    Error error;
    EXPECT_EQ(BundleDirectory::open(dir.path() / name, {}, &error), nullptr) << name;
    EXPECT_FALSE(error.localizedDescription().empty()) << name;
  }
}

}  // namespace
}  // namespace corvane::linux_platform
