#include "linux/bundle_directory.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "test_files.h"
#include "test_support.h"

namespace corvane::linux {
namespace {

namespace fs = std::filesystem;
using testing::writeFile;
using Entries = std::map<std::string, std::string, std::less<>>;

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

// UTF-16 with a byte-order mark, from ASCII text.
Bytes utf16(std::string_view ascii, bool littleEndian) {
  Bytes out = littleEndian ? Bytes{0xFF, 0xFE} : Bytes{0xFE, 0xFF};
  for (char c : ascii) {
    uint8_t b = static_cast<uint8_t>(c);
    if (littleEndian) {
      out.insert(out.end(), {b, 0});
    } else {
      out.insert(out.end(), {0, b});
    }
  }
  return out;
}

Bytes withTail(Bytes data, std::initializer_list<uint8_t> tail) {
  data.insert(data.end(), tail);
  return data;
}

// ---- Strings tables ------------------------------------------------------------------------

TEST(StringsTableTest, KnownAnswers) {
  struct Case {
    const char* name;
    Bytes data;
    Entries entries;
    bool complete;
  };
  const Case cases[] = {
      {"empty", {}, {}, true},
      {"one entry", bytesOf(R"("a" = "b";)"), {{"a", "b"}}, true},
      {"comments everywhere",
       bytesOf("/* head */\n\"a\"/*x*/=// line\n\"b\" /* y */ ; // tail"),
       {{"a", "b"}},
       true},
      {"escapes",
       bytesOf(R"("k" = "q\" s\\ n\n t\t r\r a\' \U00e9 \UD83D\uDE00 \z";)"),
       {{"k", "q\" s\\ n\n t\t r\r a' \xC3\xA9 \xF0\x9F\x98\x80 z"}},
       true},
      {"short hex escape", bytesOf(R"("k" = "\U41!";)"), {{"k", "A!"}}, true},
      {"raw line break and UTF-8",
       bytesOf("\"k\" = \"l1\nl2 \xE2\x82\xAC\";"),
       {{"k", "l1\nl2 \xE2\x82\xAC"}},
       true},
      {"lone key", bytesOf(R"("only";)"), {{"only", "only"}}, true},
      {"unquoted words", bytesOf("key.one = value_2;"), {{"key.one", "value_2"}}, true},
      {"duplicate: last wins", bytesOf(R"("a"="1";"a"="2";)"), {{"a", "2"}}, true},
      {"UTF-8 byte-order mark", bytesOf("\xEF\xBB\xBF\"a\" = \"b\";"), {{"a", "b"}}, true},
      {"UTF-16LE",
       utf16(R"("a" = "b"; "c" = "\U00e9";)", true),
       {{"a", "b"}, {"c", "\xC3\xA9"}},
       true},
      {"UTF-16BE", utf16(R"("a" = "b";)", false), {{"a", "b"}}, true},
      // Malformed: the entries before the fault stay, nothing after it.
      {"missing semicolon", bytesOf(R"("a"="1"; "b"="2" "c"="3";)"), {{"a", "1"}}, false},
      {"missing equals", bytesOf(R"("a"="1"; "b" "2"; "c"="3";)"), {{"a", "1"}}, false},
      {"unterminated string", bytesOf(R"("a"="1"; "b"="2;)"), {{"a", "1"}}, false},
      {"unterminated comment", bytesOf(R"("a"="1"; /* "b"="2";)"), {{"a", "1"}}, false},
      {"junk character", bytesOf(R"("a"="1"; ! "b"="2";)"), {{"a", "1"}}, false},
      {"value missing", bytesOf(R"("a"="1"; "b"=;)"), {{"a", "1"}}, false},
      {"lone high surrogate", bytesOf(R"("a"="1"; "b"="\UD83D x";)"), {{"a", "1"}}, false},
      {"lone low surrogate", bytesOf(R"("a"="1"; "b"="\UDE00";)"), {{"a", "1"}}, false},
      {"escape without digits", bytesOf(R"("a"="1"; "b"="\Ux";)"), {{"a", "1"}}, false},
      {"NUL escape", bytesOf(R"("a"="1"; "b"="\U0000";)"), {{"a", "1"}}, false},
      {"invalid UTF-8", bytesOf("\"a\"=\"1\"; \"b\"=\"\xC3\x28\";"), {{"a", "1"}}, false},
      {"overlong UTF-8", bytesOf("\"a\"=\"1\"; \"b\"=\"\xC0\xAF\";"), {{"a", "1"}}, false},
      {"UTF-16 odd length", withTail(utf16(R"("a"="1";)", true), {'x'}), {{"a", "1"}}, false},
      {"UTF-16 unpaired surrogate",
       withTail(utf16(R"("a"="1";"b"=")", true), {0x3D, 0xD8, 'x', 0}),
       {{"a", "1"}},
       false},
  };
  for (const Case& c : cases) {
    StringsTable table = parseStringsTable(c.data);
    EXPECT_EQ(table.entries, c.entries) << c.name;
    EXPECT_EQ(table.complete, c.complete) << c.name;
  }
}

const std::string kSampleTable =
    "/* sample */\n"
    "\"alpha\" = \"first \\\"text\\\"\";\n"
    "// comment\n"
    "\"bravo\" = \"line\\nbreak \\U00e9\";\n"
    "charlie = word;\n"
    "\"delta_key\";\n"
    "\"echo\" = \"last\";\n";

TEST(StringsTableTest, EveryCutKeepsOnlyWholeEntries) {
  StringsTable full = parseStringsTable(bytesOf(kSampleTable));
  ASSERT_TRUE(full.complete);
  ASSERT_EQ(full.entries.size(), 5u);
  for (size_t length = 0; length < kSampleTable.size(); ++length) {
    StringsTable cut = parseStringsTable(bytesOf(kSampleTable.substr(0, length)));
    for (const auto& [key, value] : cut.entries) {
      auto it = full.entries.find(key);
      ASSERT_NE(it, full.entries.end()) << "length " << length << " key " << key;
      EXPECT_EQ(it->second, value) << "length " << length;
    }
  }
}

TEST(StringsTableTest, EveryBitFlipKeepsTheEntriesBeforeIt) {
  Bytes data = bytesOf(kSampleTable);
  for (size_t i = 0; i < data.size(); ++i) {
    StringsTable before = parseStringsTable(ByteView(data).first(i));
    for (int bit = 0; bit < 8; ++bit) {
      Bytes flipped = data;
      flipped[i] ^= static_cast<uint8_t>(1 << bit);
      StringsTable table = parseStringsTable(flipped);
      for (const auto& [key, value] : before.entries) {
        auto it = table.entries.find(key);
        ASSERT_NE(it, table.entries.end()) << "byte " << i << " bit " << bit;
        EXPECT_EQ(it->second, value);
      }
    }
  }
}

// ---- Property lists ------------------------------------------------------------------------

const std::string kInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>CFBundleIdentifier</key><string>com.example.app</string>
  <key>CFBundleDevelopmentRegion</key><string>en</string>
  <key>flag</key><true/>
  <key>count</key><integer>-3</integer>
  <key>ratio</key><real>0.5</real>
  <key>list</key><array><string>a</string><false/></array>
  <key>blob</key><data>AAEC</data>
  <key>zandrel_fido_sdk_config</key>
  <dict>
    <key>zandrel_fido_pattern_lockout_policy</key><string>3-lock</string>
    <key>escaped</key><string>a &amp; b &lt;c&gt;</string>
  </dict>
</dict>
</plist>
)";

TEST(PropertyListTest, ReadsEveryType) {
  Error error;
  std::optional<InfoValue> info = parsePropertyList(bytesOf(kInfoPlist), &error);
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
        std::string_view("<plist version=\"1.0\"><array><string>a</string></array></plist>"),
        std::string_view("<plist version=\"1.0\"><string>a</string></plist>")}) {
    Error error;
    EXPECT_FALSE(parsePropertyList(bytesOf(text), &error).has_value()) << text;
    EXPECT_EQ(error.domain(), kCorvaneErrorDomain);
    EXPECT_FALSE(error.localizedDescription().empty());
  }
  // Every truncation and every bit flip either parses to a dictionary or is refused; none crashes.
  const Bytes data = bytesOf(kInfoPlist);
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

// ---- Bundle directory ----------------------------------------------------------------------

class BundleDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const fs::path& root = dir.path();
    writeFile(root / "Info.plist", kInfoPlist);
    writeFile(root / "en.lproj/Localizable.strings",
              "\"greeting\" = \"Hello\";\n\"only_en\" = \"English only\";");
    writeFile(root / "Base.lproj/Localizable.strings",
              "\"greeting\" = \"Base hello\";\n\"only_base\" = \"Base only\";");
    // Malformed after its first entry.
    writeFile(root / "fr.lproj/Localizable.strings",
              "\"greeting\" = \"Bonjour\";\n\"broken\" = \"x\" \"after\" = \"y\";");
    fs::create_directories(root / "de.lproj");  // a localization without a table
    writeFile(root / "page.html", "<p>root</p>");
    writeFile(root / "fr.lproj/local.html", "<p>fr</p>");
    writeFile(root / "Base.lproj/local.html", "<p>base</p>");
    writeFile(root / "README", "plain");
    fs::create_directories(root / "folder.html");
  }
  std::unique_ptr<BundleDirectory> open(std::vector<std::string> languages) {
    Error error;
    std::unique_ptr<BundleDirectory> bundle = BundleDirectory::open(dir.path(), languages, &error);
    EXPECT_NE(bundle, nullptr) << error.localizedDescription();
    return bundle;
  }
  testing::TempDir dir;
};

TEST_F(BundleDirectoryTest, InformationDictionary) {
  auto bundle = open({"en"});
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.app");
  EXPECT_EQ(bundle->infoString({"zandrel_fido_sdk_config", "zandrel_fido_pattern_lockout_policy"}),
            "3-lock");
  EXPECT_FALSE(bundle->infoString({"zandrel_fido_sdk_config", "missing"}).has_value());
  EXPECT_FALSE(bundle->infoString({"flag"}).has_value());  // not a text
  EXPECT_FALSE(bundle->infoValue({"flag", "deeper"}).has_value());
  EXPECT_EQ(bundle->infoValue({"count"}), InfoValue(-3));
  EXPECT_EQ(bundle->localizations(), (std::vector<std::string>{"Base", "de", "en", "fr"}));
}

TEST_F(BundleDirectoryTest, LocalizedStrings) {
  auto bundle = open({"fr_FR.UTF-8"});
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->preferredLocalizations(), (std::vector<std::string>{"fr", "en"}));
  EXPECT_EQ(bundle->localizedString("greeting", "fr"), "Bonjour");
  EXPECT_EQ(bundle->localizedString("greeting", "en"), "Hello");
  EXPECT_EQ(bundle->localizedString("greeting", "Base"), "Base hello");
  EXPECT_FALSE(bundle->localizedString("broken", "fr").has_value());  // after the fault
  EXPECT_FALSE(bundle->localizedString("after", "fr").has_value());
  EXPECT_FALSE(bundle->localizedString("greeting", "de").has_value());
  EXPECT_FALSE(bundle->localizedString("greeting", "it").has_value());
  EXPECT_FALSE(bundle->localizedString("greeting", "../en").has_value());
  EXPECT_FALSE(bundle->localizedString("only_base", "en").has_value());  // no fallback by name
  // The default table: preferred localizations in order, then Base.
  EXPECT_EQ(bundle->localizedString("greeting", std::nullopt), "Bonjour");
  EXPECT_EQ(bundle->localizedString("only_en", std::nullopt), "English only");
  EXPECT_EQ(bundle->localizedString("only_base", std::nullopt), "Base only");
  EXPECT_FALSE(bundle->localizedString("nowhere", std::nullopt).has_value());
}

TEST_F(BundleDirectoryTest, PreferredLocalizationsFollowTheUserLanguages) {
  fs::create_directories(dir.path() / "zh-Hant.lproj");
  fs::create_directories(dir.path() / "pt_BR.lproj");
  struct Case {
    std::vector<std::string> languages;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {{}, {"en"}},
      {{"C", "POSIX"}, {"en"}},
      {{"fr_CA.UTF-8@euro"}, {"fr", "en"}},
      {{"it", "de-AT", "fr"}, {"de", "fr", "en"}},
      {{"zh-Hant-TW"}, {"zh-Hant", "en"}},
      {{"zh_TW"}, {"en"}},  // zh-TW is not zh-Hant, and there is no plain zh
      {{"PT-br"}, {"pt_BR", "en"}},
      {{"Base"}, {"en"}},
      {{"en_GB", "fr"}, {"en", "fr"}},
  };
  for (const Case& c : cases) {
    auto bundle = open(c.languages);
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle->preferredLocalizations(), c.expected)
        << ::testing::PrintToString(c.languages);
  }
}

TEST_F(BundleDirectoryTest, UserLanguagesFromEnvironment) {
  const char* names[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
  std::vector<std::optional<std::string>> saved;
  for (const char* name : names) {
    const char* value = std::getenv(name);
    saved.push_back(value ? std::optional<std::string>(value) : std::nullopt);
    ::unsetenv(name);
  }
  ::setenv("LANGUAGE", "fr_CA:C:de", 1);
  ::setenv("LC_MESSAGES", "C", 1);
  ::setenv("LANG", "it_IT.UTF-8", 1);
  EXPECT_EQ(BundleDirectory::userLanguagesFromEnvironment(),
            (std::vector<std::string>{"fr_CA", "de"}));  // LC_MESSAGES is "C": skipped, LANG unread
  ::unsetenv("LANGUAGE");
  ::unsetenv("LC_MESSAGES");
  EXPECT_EQ(BundleDirectory::userLanguagesFromEnvironment(),
            (std::vector<std::string>{"it_IT.UTF-8"}));
  for (size_t i = 0; i < saved.size(); ++i) {
    if (saved[i]) {
      ::setenv(names[i], saved[i]->c_str(), 1);
    } else {
      ::unsetenv(names[i]);
    }
  }
}

TEST_F(BundleDirectoryTest, Resources) {
  auto bundle = open({"fr"});
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->pathForResource("page", "html"), dir.path() / "page.html");
  EXPECT_EQ(bundle->pathForResource("README", ""), dir.path() / "README");
  EXPECT_EQ(bundle->pathForResource("local", "html"), dir.path() / "fr.lproj/local.html");
  auto english = open({"en"});
  EXPECT_EQ(english->pathForResource("local", "html"), dir.path() / "Base.lproj/local.html");
  for (auto [name, type] :
       std::vector<std::pair<std::string, std::string>>{{"missing", "html"},
                                                        {"page", "htm"},
                                                        {"folder", "html"},
                                                        {"", "html"},
                                                        {"..", ""},
                                                        {".", ""},
                                                        {"../page", "html"},
                                                        {"fr.lproj/local", "html"},
                                                        {"page", "html/x"},
                                                        {std::string("page\0x", 6), "html"}}) {
    EXPECT_FALSE(bundle->pathForResource(name, type).has_value()) << name << "." << type;
  }
}

TEST_F(BundleDirectoryTest, OpenFailures) {
  Error error;
  EXPECT_EQ(BundleDirectory::open(dir.path() / "absent", {}, &error), nullptr);
  EXPECT_FALSE(error.localizedDescription().empty());

  writeFile(dir.path() / "Info.plist", "<plist><dict><key>a</key>");
  error = Error();
  EXPECT_EQ(BundleDirectory::open(dir.path(), {}, &error), nullptr);
  EXPECT_FALSE(error.localizedDescription().empty());

  // Without an Info.plist the bundle opens with an empty dictionary.
  fs::remove(dir.path() / "Info.plist");
  auto bundle = open({});
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->bundleIdentifier(), "");
  EXPECT_EQ(bundle->preferredLocalizations(), (std::vector<std::string>{"en"}));
  EXPECT_EQ(bundle->localizedString("greeting", std::nullopt), "Hello");
}

}  // namespace
}  // namespace corvane::linux
