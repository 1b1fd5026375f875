#include "linux/user_defaults_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "test_files.h"
#include "test_support.h"

namespace corvane::linux_platform {
namespace {

namespace fs = std::filesystem;

class UserDefaultsFileTest : public ::testing::Test {
 protected:
  std::unique_ptr<UserDefaultsFile> open() { return UserDefaultsFile::open(file, nullptr); }
  testing::TempDir dir;
  fs::path file = dir.path() / "app" / "defaults.json";
};

TEST_F(UserDefaultsFileTest, ValuesSurviveReopenIn0600FileReplacedAtomically) {
  {
    auto defaults = open();
    ASSERT_NE(defaults, nullptr);
    defaults->setBool("installed", true);
    defaults->setString("lang", "zh-Hant-TW");
    ASSERT_TRUE(defaults->synchronize(nullptr));
  }
  EXPECT_EQ(testing::modeOf(file), 0600u);
  auto defaults = open();
  ASSERT_NE(defaults, nullptr);
  EXPECT_TRUE(defaults->getBool("installed"));
  EXPECT_EQ(defaults->getString("lang"), "zh-Hant-TW");
  EXPECT_FALSE(defaults->getString("installed").has_value());

  // A reader holding the old file keeps seeing it whole: the new one is renamed over it.
  const std::string oldText = testing::readFile(file);
  int fd = ::open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  defaults->setString("k", std::string(4096, 'n'));
  ASSERT_TRUE(defaults->synchronize(nullptr));
  std::string seen(oldText.size() + 1, '\0');
  seen.resize(static_cast<size_t>(::pread(fd, seen.data(), seen.size(), 0)));
  ::close(fd);
  EXPECT_EQ(seen, oldText);
  EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1);
}

TEST_F(UserDefaultsFileTest, CorruptFileReadsEmptyUntilTheNextWrite) {
  fs::create_directories(file.parent_path());
  for (const std::string content : {"garbage", "[]", "{\"a\":tru}", "{\"a\":true"}) {
    testing::writeFile(file, content);
    auto defaults = open();
    ASSERT_NE(defaults, nullptr);
    ASSERT_TRUE(defaults->loadError()) << content;
    EXPECT_NE(defaults->loadError()->localizedDescription().find(file.string()), std::string::npos);
    EXPECT_FALSE(defaults->getBool("a"));
    EXPECT_TRUE(defaults->synchronize(nullptr));
    EXPECT_EQ(testing::readFile(file), content);
  }
  open()->setString("b", "new");
  auto defaults = open();
  EXPECT_FALSE(defaults->loadError());
  EXPECT_EQ(defaults->getString("b"), "new");
}

}  // namespace
}  // namespace corvane::linux_platform
