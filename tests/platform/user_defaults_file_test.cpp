#include "linux/user_defaults_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "test_files.h"
#include "test_support.h"

namespace corvane::linux {
namespace {

namespace fs = std::filesystem;

class UserDefaultsFileTest : public ::testing::Test {
 protected:
  std::unique_ptr<UserDefaultsFile> open() {
    Error error;
    auto defaults = UserDefaultsFile::open(file, &error);
    EXPECT_NE(defaults, nullptr) << error.localizedDescription();
    return defaults;
  }
  testing::TempDir dir;
  fs::path file = dir.path() / "app" / "data" / "defaults.json";
};

TEST_F(UserDefaultsFileTest, ValuesSurviveReopen) {
  {
    auto defaults = open();
    ASSERT_NE(defaults, nullptr);
    EXPECT_FALSE(defaults->getBool("Corvane.installed"));
    EXPECT_FALSE(defaults->getString("Corvane.preferredLanguage").has_value());
    defaults->setBool("Corvane.installed", true);
    defaults->setBool("Corvane.initiated", false);
    defaults->setString("Corvane.preferredLanguage", "zh-Hant-TW");
    defaults->setString("gone", "x");
    defaults->remove("gone");
    EXPECT_FALSE(fs::exists(file));  // nothing written before synchronize
    ASSERT_TRUE(defaults->synchronize(nullptr));
  }
  auto defaults = open();
  ASSERT_NE(defaults, nullptr);
  EXPECT_FALSE(defaults->wasCorrupt());
  EXPECT_TRUE(defaults->getBool("Corvane.installed"));
  EXPECT_FALSE(defaults->getBool("Corvane.initiated"));
  EXPECT_EQ(defaults->getString("Corvane.preferredLanguage"), "zh-Hant-TW");
  EXPECT_FALSE(defaults->getString("gone").has_value());
  // A value of the other type reads as absent.
  EXPECT_FALSE(defaults->getBool("Corvane.preferredLanguage"));
  EXPECT_FALSE(defaults->getString("Corvane.installed").has_value());
}

TEST_F(UserDefaultsFileTest, PendingChangesAreWrittenOnDestruction) {
  open()->setString("k", "v");
  EXPECT_EQ(open()->getString("k"), "v");
}

TEST_F(UserDefaultsFileTest, FileIs0600InFolders0700) {
  auto defaults = open();
  ASSERT_NE(defaults, nullptr);
  EXPECT_EQ(testing::modeOf(file.parent_path()), 0700u);
  EXPECT_EQ(testing::modeOf(file.parent_path().parent_path()), 0700u);
  defaults->setBool("a", true);
  ASSERT_TRUE(defaults->synchronize(nullptr));
  EXPECT_EQ(testing::modeOf(file), 0600u);
}

TEST_F(UserDefaultsFileTest, ReplacesTheFileAtomically) {
  auto defaults = open();
  ASSERT_NE(defaults, nullptr);
  defaults->setString("k", "old");
  ASSERT_TRUE(defaults->synchronize(nullptr));
  std::string oldText = testing::readFile(file);

  // A reader holding the old file keeps seeing it whole: the new one is renamed over it, never
  // rewritten in place.
  int fd = ::open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  defaults->setString("k", std::string(4096, 'n'));
  ASSERT_TRUE(defaults->synchronize(nullptr));
  std::string seen(oldText.size() + 1, '\0');
  ssize_t n = ::pread(fd, seen.data(), seen.size(), 0);
  ::close(fd);
  ASSERT_EQ(n, static_cast<ssize_t>(oldText.size()));
  seen.resize(static_cast<size_t>(n));
  EXPECT_EQ(seen, oldText);
  EXPECT_NE(testing::readFile(file).find(std::string(4096, 'n')), std::string::npos);

  // No temporary file is left behind.
  size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(file.parent_path())) ++entries;
  EXPECT_EQ(entries, 1u);
}

TEST_F(UserDefaultsFileTest, FailedWriteKeepsChangesPending) {
  auto defaults = open();
  ASSERT_NE(defaults, nullptr);
  defaults->setBool("a", true);
  fs::remove_all(file.parent_path());
  Error error;
  EXPECT_FALSE(defaults->synchronize(&error));
  EXPECT_FALSE(error.localizedDescription().empty());
  EXPECT_TRUE(defaults->getBool("a"));
  fs::create_directories(file.parent_path());
  EXPECT_TRUE(defaults->synchronize(nullptr));
  EXPECT_TRUE(open()->getBool("a"));
}

TEST_F(UserDefaultsFileTest, CorruptFileReadsEmptyAndIsKeptUntilTheNextWrite) {
  const std::string valid = R"({"a":true,"b":"text"})";
  std::vector<std::string> corrupt = {"garbage",  "[]",          "null",
                                      "\"text\"", "{\"a\":tru}", std::string("{\"a\"\0:1}", 8)};
  for (size_t length = 0; length < valid.size(); ++length)
    corrupt.push_back(valid.substr(0, length));
  fs::create_directories(file.parent_path());
  for (const std::string& content : corrupt) {
    SCOPED_TRACE(content);
    testing::writeFile(file, content);
    auto defaults = open();
    ASSERT_NE(defaults, nullptr);
    EXPECT_TRUE(defaults->wasCorrupt());
    EXPECT_FALSE(defaults->getBool("a"));
    EXPECT_TRUE(defaults->synchronize(nullptr));  // nothing changed: nothing written
    EXPECT_EQ(testing::readFile(file), content);
  }
  {
    auto defaults = open();
    defaults->setString("b", "new");
    ASSERT_TRUE(defaults->synchronize(nullptr));
    EXPECT_FALSE(defaults->wasCorrupt());
  }
  auto defaults = open();
  EXPECT_FALSE(defaults->wasCorrupt());
  EXPECT_EQ(defaults->getString("b"), "new");
}

TEST_F(UserDefaultsFileTest, OnlyScalarMembersAreKept) {
  fs::create_directories(file.parent_path());
  testing::writeFile(file, R"({"flag":true,"list":[1,2],"obj":{"x":1},"text":"t"})");
  auto defaults = open();
  ASSERT_NE(defaults, nullptr);
  EXPECT_FALSE(defaults->wasCorrupt());
  EXPECT_TRUE(defaults->getBool("flag"));
  EXPECT_EQ(defaults->getString("text"), "t");
  defaults->setBool("flag", false);
  ASSERT_TRUE(defaults->synchronize(nullptr));
  EXPECT_EQ(testing::readFile(file).find("list"), std::string::npos);
}

TEST_F(UserDefaultsFileTest, OpenFailsWhenAFolderIsAFile) {
  fs::create_directories(dir.path() / "app");
  testing::writeFile(dir.path() / "app" / "data", "not a folder");
  Error error;
  EXPECT_EQ(UserDefaultsFile::open(file, &error), nullptr);
  EXPECT_FALSE(error.localizedDescription().empty());
}

}  // namespace
}  // namespace corvane::linux
