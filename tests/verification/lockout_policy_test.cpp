#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <limits>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "fakes/fake_clock.h"
#include "linux/boottime_clock.h"
#include "verification/pattern_lock_policy.h"
#include "verification/system_clock.h"

namespace corvane {
namespace {

using Rounds = std::vector<PatternLockPolicy>;

PatternLockPolicy plain(std::string round, int64_t times) {
  return PatternLockPolicy{std::move(round), times, std::nullopt, false, false};
}
PatternLockPolicy templock(std::string round, int64_t times, int64_t seconds) {
  return PatternLockPolicy{std::move(round), times, seconds, true, false};
}
PatternLockPolicy lockout(std::string round, int64_t times) {
  return PatternLockPolicy{std::move(round), times, std::nullopt, false, true};
}

// Every known answer of the parser in one place.
TEST(LockoutPolicyTest, KnownTexts) {
  const std::string int64Max = "9223372036854775807";
  const std::string int64Over = "9223372036854775808";
  const std::string longTail(4083, '1');  // unused fourth field making the text 4096 bytes long
  const struct {
    std::optional<std::string> text;
    std::optional<Rounds> expected;
  } cases[] = {
      {"3-lock", Rounds{lockout("1", 3)}},
      {"2-3|1-3-60|3-lock",
       Rounds{plain("1", 3), plain("2", 3), templock("3", 3, 60), lockout("4", 3)}},
      {"1-3-60|n-3-300", Rounds{templock("1", 3, 60), templock("n", 3, 300)}},
      {"n-4", Rounds{plain("n", 4)}},
      {"1-3|2-4-10|n-5",
       Rounds{plain("1", 3), templock("2", 4, 10), templock("3", 4, 10), plain("n", 5)}},
      // Fields past the third are not used.
      {"2-3-60-7|1-lock", Rounds{templock("1", 3, 60), templock("2", 3, 60), lockout("3", 1)}},
      {"1-5|n-3-300-9", Rounds{plain("1", 5), templock("n", 3, 300)}},
      {"1-" + int64Max + "-" + int64Max + "|" + int64Max + "-lock",
       Rounds{
           templock("1", std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::max()),
           lockout("2", std::numeric_limits<int64_t>::max())}},
      {"1-1-5-" + longTail + "|1-lock", Rounds{templock("1", 1, 5), lockout("2", 1)}},
      // Neither expression accepts a digit segment that is not followed by "|".
      {"2-5", std::nullopt},
      {"01-3", std::nullopt},
      {"0-3|1-lock", std::nullopt},
      {"1-0|1-lock", std::nullopt},
      {" 3-lock", std::nullopt},
      {"3-lock ", std::nullopt},
      {"3-lock\n", std::nullopt},
      {"1-3|", std::nullopt},
      {"2-5|", std::nullopt},
      {"", std::nullopt},
      {"   ", std::nullopt},
      {std::nullopt, std::nullopt},
      {"n-3|1-lock", std::nullopt},
      {"1-lock|2-3", std::nullopt},
      {"1-lock|1-lock", std::nullopt},
      {"n-3|n-4", std::nullopt},
      {"1-3-lock", std::nullopt},
      {"3-LOCK", std::nullopt},
      {"1-3||1-lock", std::nullopt},
      {"|1-lock", std::nullopt},
      // The endless expression accepts "n" groups run together; their fields are no numbers.
      {"n-3n-4", std::nullopt},
      {"1-3|n-3-5n-4-6", std::nullopt},
      {"n-3-5-6n-4", std::nullopt},
      {int64Over + "-lock", std::nullopt},
      {"1-" + int64Over + "|1-lock", std::nullopt},
      {"1-3-" + int64Over + "|1-lock", std::nullopt},
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
  const struct {
    std::string text;
    size_t rounds;  // 0: rejected
  } cases[] = {
      {"9999-3|1-lock", 10000},
      {"9999-3|n-3", 10000},
      {"10000-3|1-lock", 0},
      {"10000-3|n-3", 0},
      {"5000-1|5000-1|1-lock", 0},
      {"1000000000-3|1-lock", 0},
      {"9223372036854775807-3|1-lock", 0},
      {"10000-3|", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    std::optional<Rounds> rounds = getPatternLockPolicy(c.text);
    ASSERT_EQ(rounds.has_value(), c.rounds != 0);
    if (!rounds) continue;
    ASSERT_EQ(rounds->size(), c.rounds);
    EXPECT_EQ(rounds->front().round, "1");
    EXPECT_EQ((*rounds)[9998].round, "9999");
  }
}

bool regexAccepts(std::string_view text) {
  static const std::regex lockoutForm(std::string(kPatternLockPolicyLockoutExpression),
                                      std::regex::ECMAScript);
  static const std::regex endlessForm(std::string(kPatternLockPolicyEndlessExpression),
                                      std::regex::ECMAScript);
  const std::string copy(text);
  return std::regex_search(copy, lockoutForm) || std::regex_search(copy, endlessForm);
}

// Random texts: pieces of the grammar run together at random, and texts built segment by segment
// from right and wrong fields with right and wrong joins.
std::vector<std::string> generatedTexts() {
  static const char* const kPieces[] = {"1", "2",     "9",    "0",   "10",  "07",  "-",   "-",  "|",
                                        "|", "n",     "lock", "loc", "l",   "k",   " ",   "\n", "x",
                                        "N", "-lock", "n-",   "3-",  "12-", "|n-", "1-3|"};
  static const char* const kHeads[] = {"1", "12", "n", "n", "0", "05", "", "x"};
  static const char* const kFields[] = {"3", "40", "7", "lock", "0", "n", "", "7n", "1 "};
  static const char* const kJoins[] = {"|", "|", "|", "", "||", "-"};
  std::mt19937 random(20240611);
  auto pick = [&random](const auto& list) { return std::string(list[random() % std::size(list)]); };
  std::vector<std::string> texts;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    const int pieces = static_cast<int>(random() % 10);
    for (int k = 0; k < pieces; ++k) text += pick(kPieces);
    texts.push_back(std::move(text));
  }
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    const int segments = static_cast<int>(random() % 5);
    for (int k = 0; k < segments; ++k) {
      if (k > 0) text += pick(kJoins);
      text += pick(kHeads);
      const int fields = 1 + static_cast<int>(random() % 3);
      for (int f = 0; f < fields; ++f) text += "-" + pick(kFields);
    }
    if (random() % 8 == 0) text += "|";
    texts.push_back(std::move(text));
  }
  return texts;
}

TEST(LockoutPolicyTest, MatcherEqualsBothExpressions) {
  int accepted = 0;
  for (const std::string& text : generatedTexts()) {
    const bool expected = regexAccepts(text);
    accepted += expected ? 1 : 0;
    ASSERT_EQ(matchesPatternLockPolicyGrammar(text), expected) << '"' << text << '"';
  }
  EXPECT_GT(accepted, 2000);  // the generator reaches both sides
}

// Every cut and every one-byte change of the valid texts: a text the expressions reject is never
// parsed, and a parsed text always yields at least one round.
TEST(LockoutPolicyTest, MutatedTextsNeverParseOutsideTheGrammar) {
  const std::string valid[] = {"2-3|1-3-60|3-lock", "1-3-60|n-3-300", "12-4-600|n-9"};
  const std::string junk = "0n-|l 9x\n";
  for (const std::string& text : valid) {
    std::vector<std::string> mutants;
    for (size_t cut = 0; cut <= text.size(); ++cut) mutants.push_back(text.substr(0, cut));
    for (size_t at = 0; at < text.size(); ++at) {
      for (char c : junk) {
        std::string changed = text;
        changed[at] = c;
        mutants.push_back(changed);
        mutants.push_back(text.substr(0, at) + c + text.substr(at));
      }
    }
    for (const std::string& mutant : mutants) {
      std::optional<Rounds> rounds = getPatternLockPolicy(mutant);
      if (!regexAccepts(mutant) || mutant.ends_with('|')) {
        EXPECT_FALSE(rounds.has_value()) << '"' << mutant << '"';
      } else if (rounds) {
        EXPECT_FALSE(rounds->empty()) << '"' << mutant << '"';
      }
    }
  }
}

TEST(LockoutClockTest, DelayUsesTheNarrowProduct) {
  constexpr int64_t kNow = 5'000'000'000;
  const struct {
    PatternLockPolicy round;
    int64_t expectedDelta;
  } cases[] = {
      {plain("1", 3), 0},
      {lockout("2", 3), 0},
      {PatternLockPolicy{"1", 3, 60, false, false}, 0},  // the flag decides, not the field
      {templock("1", 3, 1), 1'000'000},
      {templock("1", 3, 60), 60'000'000},
      {templock("1", 3, 2147), 2'147'000'000},
      {templock("1", 3, 2148), -2'146'967'296},
      {templock("1", 3, 3000), -1'294'967'296},
      {templock("1", 3, 4294), -967'296},
      {templock("1", 3, 4295), 32'704},
      {templock("1", 3, 4'294'967'356), 60'000'000},
      {templock("1", 3, -1), -1'000'000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.round.durationSec.value_or(-999));
    testing::FakeClock clock(kNow);
    SystemClock systemClock(clock);
    EXPECT_EQ(systemClock.delayRetryPatternLockTime(12345, c.round), kNow + c.expectedDelta);
    EXPECT_EQ(clock.reads(), 1);
  }
}

TEST(LockoutClockTest, RemainingSecondsTruncateTowardZero) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  const struct {
    int64_t now;
    int64_t deadline;
    int64_t expected;
  } cases[] = {
      {10'000'000, 11'500'000, 1},      {10'000'000, 10'500'000, 0},
      {10'000'000, 10'999'999, 0},      {10'000'000, 11'000'000, 1},
      {10'000'000, 10'000'000, 0},      {10'000'000, 9'000'000, 0},
      {10'000'000, 70'000'000, 60},     {0, kMax, 9'223'372'036'854},
      {kMin, kMax, 18'446'744'073'709}, {kMax, kMin, 0},
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

  // A 3,000-second wait wraps to a deadline in the past: no wait at all.
  const int64_t wrapped = systemClock.delayRetryPatternLockTime(0, templock("1", 3, 3000));
  EXPECT_LT(wrapped, systemClock.uptime());
  EXPECT_EQ(systemClock.checkCanRetryPatternLock(wrapped), 0);
}

int64_t directBoottime() {
  struct timespec now {};
  EXPECT_EQ(clock_gettime(CLOCK_BOOTTIME, &now), 0);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}

TEST(LockoutBoottimeClockTest, MonotonicMicrosecondsOfBoottime) {
  linux::BoottimeClock clock;
  SystemClock systemClock(clock);
  const int64_t before = directBoottime();
  int64_t last = systemClock.uptime();
  EXPECT_GE(last, before);
  for (int i = 0; i < 10000; ++i) {
    const int64_t reading = clock.uptime();
    ASSERT_GE(reading, last);
    last = reading;
  }
  EXPECT_LE(last, directBoottime());

  const int64_t start = clock.uptime();
  usleep(20'000);
  const int64_t elapsed = clock.uptime() - start;
  EXPECT_GE(elapsed, 20'000);
  EXPECT_LT(elapsed, 20'000'000);  // microseconds, not nanoseconds
}

}  // namespace
}  // namespace corvane
