#include "verification/system_clock.h"

#include <limits>

namespace corvane {

namespace {

constexpr int64_t kMicrosPerSecond = 1000000;

// The wait of a round in microseconds, saturating instead of overflowing.
int64_t waitMicros(int64_t durationSec) {
  int64_t product = 0;
  if (!__builtin_mul_overflow(durationSec, kMicrosPerSecond, &product)) return product;
  return durationSec > 0 ? std::numeric_limits<int64_t>::max()
                         : std::numeric_limits<int64_t>::min();
}

int64_t saturatingAdd(int64_t a, int64_t b) {
  int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

}  // namespace

int64_t SystemClock::uptime() const {
  return clock_->uptime();
}

int64_t SystemClock::delayRetryPatternLockTime(int64_t /*unused*/,
                                               const PatternLockPolicy& patternLockPolicy) const {
  const int64_t now = uptime();
  if (!patternLockPolicy.isTemplockRound) return now;
  return saturatingAdd(now, waitMicros(patternLockPolicy.durationSec.value_or(0)));
}

int64_t SystemClock::checkCanRetryPatternLock(int64_t deadline) const {
  const int64_t now = uptime();
  if (now >= deadline) return 0;
  // deadline - now lies in [1, 2^64 - 1]: exact in unsigned arithmetic, and its quotient by
  // 1,000,000 fits in int64_t.
  const uint64_t remaining = static_cast<uint64_t>(deadline) - static_cast<uint64_t>(now);
  return static_cast<int64_t>(remaining / kMicrosPerSecond);
}

}  // namespace corvane
