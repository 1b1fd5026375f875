#include "configuration/pattern_lock_policy.h"

#include "configuration/configuration.h"

#include <limits>

namespace corvane {

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isNonZeroDigit(char c) {
  return c >= '1' && c <= '9';
}
bool isTrimmedSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isBlank(std::string_view text) {
  for (char c : text) {
    if (!isTrimmedSpace(c)) return false;
  }
  return true;
}

// A decimal without a leading zero ([1-9][0-9]*) that fits in int64_t; absent otherwise.
std::optional<int64_t> parseDecimal(std::string_view field) {
  if (field.empty() || !isNonZeroDigit(field.front())) return std::nullopt;
  int64_t value = 0;
  for (char c : field) {
    if (!isDigit(c)) return std::nullopt;
    const int64_t digit = c - '0';
    if (value > (std::numeric_limits<int64_t>::max() - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (true) {
    const size_t end = text.find(separator, start);
    if (end == std::string_view::npos) {
      pieces.push_back(text.substr(start));
      return pieces;
    }
    pieces.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

// States of the recogniser of the two policy expressions taken together:
//   (S "|")* ( N "-lock" | ("n-" N ("-" N)*)* )   with N = [1-9][0-9]* and S = N "-" N ("-" N)*.
// A digit at the start of a segment opens either an "S|" or the final "N-lock"; the character after
// the first "-" decides which. "n" opens the endless tail, in which the expression lets an "n-N..."
// group follow another directly (no "|" between them).
enum class State {
  SegmentStart,    // start of text or after "|"; accepting (the endless tail may be empty)
  FirstNumber,     // inside the first number of a digit segment
  AfterFirstDash,  // after "N-": a second number or "lock"
  LaterNumber,     // inside the second or a later number of S
  AfterLaterDash,  // after "N-N(-N)*-": another number
  LockL,
  LockO,
  LockC,
  Locked,         // after "N-lock"; accepting, nothing may follow
  EndlessN,       // after "n"
  EndlessDash,    // after "n-N(-N)*-" or "n-"
  EndlessNumber,  // inside a number of the endless tail; accepting
  Reject,
};

State step(State state, char c) {
  switch (state) {
    case State::SegmentStart:
      if (isNonZeroDigit(c)) return State::FirstNumber;
      if (c == 'n') return State::EndlessN;
      return State::Reject;
    case State::FirstNumber:
      if (isDigit(c)) return State::FirstNumber;
      if (c == '-') return State::AfterFirstDash;
      return State::Reject;
    case State::AfterFirstDash:
      if (isNonZeroDigit(c)) return State::LaterNumber;
      if (c == 'l') return State::LockL;
      return State::Reject;
    case State::LaterNumber:
      if (isDigit(c)) return State::LaterNumber;
      if (c == '-') return State::AfterLaterDash;
      if (c == '|') return State::SegmentStart;
      return State::Reject;
    case State::AfterLaterDash:
      return isNonZeroDigit(c) ? State::LaterNumber : State::Reject;
    case State::LockL:
      return c == 'o' ? State::LockO : State::Reject;
    case State::LockO:
      return c == 'c' ? State::LockC : State::Reject;
    case State::LockC:
      return c == 'k' ? State::Locked : State::Reject;
    case State::EndlessN:
      return c == '-' ? State::EndlessDash : State::Reject;
    case State::EndlessDash:
      return isNonZeroDigit(c) ? State::EndlessNumber : State::Reject;
    case State::EndlessNumber:
      if (isDigit(c)) return State::EndlessNumber;
      if (c == '-') return State::EndlessDash;
      if (c == 'n') return State::EndlessN;
      return State::Reject;
    case State::Locked:
    case State::Reject:
      return State::Reject;
  }
  return State::Reject;
}

// Appends `copies` copies of `round` numbered from `count` + 1 on ("n" rounds keep their name);
// false when the policy would grow past kMaxPatternLockPolicyRounds.
bool appendRounds(std::vector<PatternLockPolicy>& rounds, PatternLockPolicy round, int64_t copies,
                  int64_t& count, bool numbered) {
  if (copies < 1 || static_cast<uint64_t>(copies) > kMaxPatternLockPolicyRounds - rounds.size()) {
    return false;
  }
  for (int64_t k = 1; k <= copies; ++k) {
    if (numbered) round.round = std::to_string(count + k);
    rounds.push_back(round);
  }
  if (numbered) count += copies;
  return true;
}

}  // namespace

bool matchesPatternLockPolicyGrammar(std::string_view text) {
  State state = State::SegmentStart;
  for (char c : text) {
    state = step(state, c);
    if (state == State::Reject) return false;
  }
  // A numbered segment may end the text too ("2-5"): its last round then applies for ever.
  return state == State::SegmentStart || state == State::Locked || state == State::EndlessNumber ||
         state == State::LaterNumber;
}

std::optional<std::vector<PatternLockPolicy>> getPatternLockPolicy(
    std::optional<std::string_view> text) {
  if (!text || isBlank(*text)) return std::nullopt;
  if (text->size() > kMaxPatternLockPolicyTextLength) return std::nullopt;
  if (!matchesPatternLockPolicyGrammar(*text)) return std::nullopt;

  std::vector<PatternLockPolicy> rounds;
  int64_t count = 0;
  for (std::string_view segment : split(*text, '|')) {
    // The endless expression also accepts a text ending in "|", which leaves an empty segment.
    const std::vector<std::string_view> fields = split(segment, '-');
    if (fields.size() < 2) return std::nullopt;

    PatternLockPolicy round;
    if (segment.find("lock") != std::string_view::npos) {
      std::optional<int64_t> times = parseDecimal(fields[0]);
      if (!times) return std::nullopt;
      round.timesPerRound = *times;
      round.isLockoutRound = true;
      if (!appendRounds(rounds, round, 1, count, true)) return std::nullopt;
      continue;
    }

    // Fields past the third are not used, but must still be plain decimals: the endless
    // expression lets "n-3n-4" through, whose fields "3n" and the like are no numbers.
    for (size_t i = 1; i < fields.size(); ++i) {
      for (char c : fields[i]) {
        if (!isDigit(c)) return std::nullopt;
      }
    }
    std::optional<int64_t> times = parseDecimal(fields[1]);
    if (!times) return std::nullopt;
    round.timesPerRound = *times;
    if (fields.size() >= 3) {
      std::optional<int64_t> duration = parseDecimal(fields[2]);
      if (!duration) return std::nullopt;
      round.durationSec = *duration;
      round.isTemplockRound = true;
    }
    if (fields[0] == "n") {
      round.round.assign(1, 'n');  // not = "n": GCC 12 warns falsely (-Wrestrict) there
      if (!appendRounds(rounds, round, 1, count, false)) return std::nullopt;
    } else {
      std::optional<int64_t> repeat = parseDecimal(fields[0]);
      if (!repeat || !appendRounds(rounds, round, *repeat, count, true)) return std::nullopt;
    }
  }
  return rounds;
}

std::optional<std::vector<PatternLockPolicy>> getPatternLockPolicy(const Configuration& config) {
  const std::optional<std::string> text = config.getPatternLockoutPolicy();
  return getPatternLockPolicy(text ? std::optional<std::string_view>(*text) : std::nullopt);
}

}  // namespace corvane
