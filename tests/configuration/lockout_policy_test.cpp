#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <limits>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "configuration/pattern_lock_policy.h"
#include "fakes/fake_clock.h"
#include "linux/boottime_clock.h"
#include "verification/system_clock.h"

namespace corvane {
namespace {

using Rounds = std::vector<PatternLockPolicy>;
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

PatternLockPolicy plain(std::string round, int64_t times) {
  return PatternLockPolicy{std::move(round), times, std::nullopt, false, false};
}
PatternLockPolicy templock(std::string round, int64_t times, int64_t seconds) {
  return PatternLockPolicy{std::move(round), times, seconds, true, false};
}
PatternLockPolicy lockout(std::string round, int64_t times) {
  return PatternLockPolicy{std::move(round), times, std::nullopt, false, true};
}

TEST(LockoutPolicyTest, KnownTexts) {
  const std::string max = "9223372036854775807", over = "9223372036854775808";
  const std::string longTail(4083, '1');  // unused fourth field: the text is 4096 bytes long
  const struct {
    std::optional<std::string> text;
    std::optional<Rounds> expected;
  } cases[] = {
      {"3-lock", Rounds{lockout("1", 3)}},
      {"2-3|1-3-60|3-lock",
       Rounds{plain("1", 3), plain("2", 3), templock("3", 3, 60), lockout("4", 3)}},
      {"1-3|2-4-10|n-5",
       Rounds{plain("1", 3), templock("2", 4, 10), templock("3", 4, 10), plain("n", 5)}},
      {"2-3-60-7|1-lock", Rounds{templock("1", 3, 60), templock("2", 3, 60), lockout("3", 1)}},
      {"1-5|n-3-300-9", Rounds{plain("1", 5), templock("n", 3, 300)}},
      {"1-" + max + "-" + max + "|" + max + "-lock",
       Rounds{templock("1", kMax, kMax), lockout("2", kMax)}},
      {"1-1-5-" + longTail + "|1-lock", Rounds{templock("1", 1, 5), lockout("2", 1)}},
      {"2-5", Rounds{plain("1", 5), plain("2", 5)}},
      {"1-3|2-5-10", Rounds{plain("1", 3), templock("2", 5, 10), templock("3", 5, 10)}},
      {"01-3", std::nullopt},
      {"0-3|1-lock", std::nullopt},
      {"1-0|1-lock", std::nullopt},
      {" 3-lock", std::nullopt},
      {"3-lock\n", std::nullopt},
      {"2-5|", std::nullopt},
      {"", std::nullopt},
      {std::nullopt, std::nullopt},
      {"n-3|1-lock", std::nullopt},
      {"1-lock|2-3", std::nullopt},
      {"n-3|n-4", std::nullopt},
      {"1-3-lock", std::nullopt},
      {"1-3||1-lock", std::nullopt},
      {"n-3n-4", std::nullopt},
      {"n-3-5-6n-4", std::nullopt},
      {over + "-lock", std::nullopt},
      {"1-3-" + over + "|1-lock", std::nullopt},
      {"1-1-5-" + longTail + "1|1-lock", std::nullopt},  // 4097 bytes
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.value_or("(absent)").substr(0, 80));
    std::optional<std::string_view> text;
    if (c.text) text = *c.text;
    EXPECT_EQ(getPatternLockPolicy(text), c.expected);
  }
}

TEST(LockoutPolicyTest, RoundCountIsCapped) {
  for (const std::string text : {"9999-3|1-lock", "9999-3|n-3"}) {
    std::optional<Rounds> rounds = getPatternLockPolicy(text);
    ASSERT_TRUE(rounds) << text;
    ASSERT_EQ(rounds->size(), 10000u);
    EXPECT_EQ((*rounds)[9998].round, "9999");
  }
  for (const std::string text :
       {"10000-3|1-lock", "10000-3|n-3", "5000-1|5000-1|1-lock", "9223372036854775807-3|1-lock"}) {
    EXPECT_FALSE(getPatternLockPolicy(text)) << text;
  }
}

bool regexAccepts(const std::string& text) {
  static const std::regex lockoutForm{std::string(kPatternLockPolicyLockoutExpression)};
  static const std::regex endlessForm{std::string(kPatternLockPolicyEndlessExpression)};
  static const std::regex numberedForm{std::string(kPatternLockPolicyNumberedExpression)};
  return std::regex_search(text, lockoutForm) || std::regex_search(text, endlessForm) ||
         std::regex_search(text, numberedForm);
}

// Random texts built from right and wrong fields and joins: the matcher equals the expressions.
TEST(LockoutPolicyTest, MatcherEqualsTheExpressions) {
  static const char* const kHeads[] = {"1", "12", "n", "n", "0", "05", "", "x"};
  static const char* const kFields[] = {"3", "40", "7", "lock", "0", "n", "", "7n", "1 "};
  static const char* const kJoins[] = {"|", "|", "|", "", "||", "-"};
  std::mt19937 random(20240611);
  auto pick = [&random](const auto& list) { return std::string(list[random() % std::size(list)]); };
  int accepted = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (int k = 0, segments = static_cast<int>(random() % 5); k < segments; ++k) {
      if (k > 0) text += pick(kJoins);
      text += pick(kHeads);
      for (int f = 0, n = 1 + static_cast<int>(random() % 3); f < n; ++f)
        text += "-" + pick(kFields);
    }
    if (random() % 8 == 0) text += "|";
    const bool expected = regexAccepts(text);
    accepted += expected ? 1 : 0;
    ASSERT_EQ(matchesPatternLockPolicyGrammar(text), expected) << '"' << text << '"';
    if (!expected || text.ends_with('|')) {
      EXPECT_FALSE(getPatternLockPolicy(text)) << text;
    }
  }
  EXPECT_GT(accepted, 2000);
}

TEST(LockoutClockTest, DelayIsTheWholeWait) {
  constexpr int64_t kNow = 5'000'000'000;
  const struct {
    PatternLockPolicy round;
    int64_t expectedDelta;
  } cases[] = {
      {plain("1", 3), 0},
      {lockout("2", 3), 0},
      {PatternLockPolicy{"1", 3, 60, false, false}, 0},  // the flag decides, not the field
      {templock("1", 3, 60), 60'000'000},
      {templock("1", 3, 2148), 2'148'000'000},
      {templock("1", 3, 3600), 3'600'000'000},
      {templock("1", 3, 4'294'967'356), 4'294'967'356'000'000},
      {templock("1", 3, -1), -1'000'000},
      {templock("1", 3, kMax / 1000), kMax - kNow},  // saturates
  };
  for (const auto& c : cases) {
    testing::FakeClock clock(kNow);
    EXPECT_EQ(SystemClock(clock).delayRetryPatternLockTime(12345, c.round), kNow + c.expectedDelta)
        << c.round.durationSec.value_or(-999);
    EXPECT_EQ(clock.reads(), 1);
  }
}

TEST(LockoutClockTest, RemainingSecondsTruncateTowardZero) {
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  const struct {
    int64_t now, deadline, expected;
  } cases[] = {
      {10'000'000, 10'999'999, 0},
      {10'000'000, 11'000'000, 1},
      {10'000'000, 9'000'000, 0},
      {10'000'000, 70'000'000, 60},
      {0, kMax, 9'223'372'036'854},
      {kMin, kMax, 18'446'744'073'709},
      {kMax, kMin, 0},
  };
  for (const auto& c : cases) {
    testing::FakeClock clock(c.now);
    EXPECT_EQ(SystemClock(clock).checkCanRetryPatternLock(c.deadline), c.expected)
        << c.now << " -> " << c.deadline;
  }
}

TEST(LockoutClockTest, WaitsFollowTheClock) {
  testing::FakeClock clock(1'000'000);
  SystemClock systemClock(clock);
  const int64_t shortWait = systemClock.delayRetryPatternLockTime(0, templock("1", 3, 60));
  EXPECT_EQ(systemClock.checkCanRetryPatternLock(shortWait), 60);
  clock.advance(58'500'000);
  EXPECT_EQ(systemClock.checkCanRetryPatternLock(shortWait), 1);
  clock.jumpAfter(0, 1'000'000);  // the device sleeps for a second
  EXPECT_EQ(systemClock.checkCanRetryPatternLock(shortWait), 0);
  // An hour is an hour.
  const int64_t hour = systemClock.delayRetryPatternLockTime(0, templock("1", 3, 3600));
  EXPECT_EQ(systemClock.checkCanRetryPatternLock(hour), 3600);
}

TEST(LockoutBoottimeClockTest, MonotonicMicrosecondsOfBoottime) {
  linux_platform::BoottimeClock clock;
  struct timespec now {};
  ASSERT_EQ(clock_gettime(CLOCK_BOOTTIME, &now), 0);
  const int64_t start = SystemClock(clock).uptime();
  EXPECT_GE(start, static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000);
  usleep(20'000);
  const int64_t elapsed = clock.uptime() - start;
  EXPECT_GE(elapsed, 20'000);
  EXPECT_LT(elapsed, 20'000'000);  // microseconds, not nanoseconds
}

}  // namespace
}  // namespace corvane
