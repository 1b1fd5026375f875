// The pattern lockout policy: its rounds and the parser of the configured policy text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// One round of the lockout policy. A plain value: copies are independent.
struct PatternLockPolicy {
  // The 1-based round number in decimal ("1", "2", ...), or "n" for a round that repeats for ever.
  std::string round;
  // Attempts allowed in this round.
  int64_t timesPerRound = 0;
  // Seconds to wait after failing this round; present only in a temporary-lock round.
  std::optional<int64_t> durationSec;
  // True when the round carries a wait (durationSec).
  bool isTemplockRound = false;
  // True for the final round whose failure deletes the registration.
  bool isLockoutRound = false;

  bool operator==(const PatternLockPolicy&) const = default;
};

// Longest policy text accepted, in bytes; a longer one is invalid.
inline constexpr size_t kMaxPatternLockPolicyTextLength = 4096;
// Most rounds a policy may expand to; a text asking for more is invalid.
inline constexpr size_t kMaxPatternLockPolicyRounds = 10000;

// The two forms a policy text may take: segments "R-T" or "R-T-D" joined by "|", ending either in
// a lockout round "T-lock" or (optionally) in an endless round "n-T" / "n-T-D". Numbers are
// decimals without a leading zero. These are the anchored expressions the text must match:
inline constexpr std::string_view kPatternLockPolicyLockoutExpression =
    "^([1-9][0-9]*-[1-9][0-9]*(-[1-9][0-9]*)*[|]){0,}([1-9][0-9]*-lock){1}$";
inline constexpr std::string_view kPatternLockPolicyEndlessExpression =
    "^([1-9][0-9]*-[1-9][0-9]*(-[1-9][0-9]*)*[|]){0,}([n]-[1-9][0-9]*(-[1-9][0-9]*)*){0,}$";
// Beyond the two: numbered segments only, the last one without "|" ("2-5").
inline constexpr std::string_view kPatternLockPolicyNumberedExpression =
    "^([1-9][0-9]*-[1-9][0-9]*(-[1-9][0-9]*)*[|]){0,}[1-9][0-9]*-[1-9][0-9]*(-[1-9][0-9]*)*$";

// True when the text matches one of the three expressions above (the third accepts "2-5": two
// rounds of 5, the last of them applying for ever). A linear scan with no recursion and no
// allocation.
bool matchesPatternLockPolicyGrammar(std::string_view text);

// Parses the configured policy text into its rounds: list index i is the round entered after i
// failed rounds. Absent when the text is absent, blank, longer than
// kMaxPatternLockPolicyTextLength, matches neither expression, ends in "|", has a field that is
// not a decimal or does not fit in 64 bits, or expands to more than kMaxPatternLockPolicyRounds
// rounds. A segment with more than three fields uses only the first three.
[[nodiscard]] std::optional<std::vector<PatternLockPolicy>> getPatternLockPolicy(
    std::optional<std::string_view> text);

class Configuration;
// The configured policy (host first, then the framework's own), parsed as above.
[[nodiscard]] std::optional<std::vector<PatternLockPolicy>> getPatternLockPolicy(
    const Configuration& config);

}  // namespace corvane
