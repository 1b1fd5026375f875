// The lockout clock: the uptime reading and the arithmetic of retry deadlines.
#pragma once

#include <cstdint>

#include "configuration/pattern_lock_policy.h"
#include "corvane/ports/clock.h"

namespace corvane {

// Deadlines of the pattern lockout, in microseconds of the Clock port's uptime. The clock must
// outlive this object. Thread-safety: as the Clock it reads.
class SystemClock {
 public:
  explicit SystemClock(const Clock& clock) : clock_(&clock) {}

  // The current reading in microseconds.
  int64_t uptime() const;

  // The deadline after failing `patternLockPolicy`: now, plus its wait for a temporary-lock round.
  // The wait in microseconds is durationSec * 1,000,000 in 64 bits (saturating), so a wait of an
  // hour is an hour. The first argument is not used.
  int64_t delayRetryPatternLockTime(int64_t unused,
                                    const PatternLockPolicy& patternLockPolicy) const;

  // Whole seconds still to wait until `deadline`, truncated toward zero; 0 when an attempt is
  // allowed (a remaining 0.9 s reads as 0).
  int64_t checkCanRetryPatternLock(int64_t deadline) const;

 private:
  const Clock* clock_;
};

}  // namespace corvane
