// The Linux Clock: CLOCK_BOOTTIME.
#pragma once

#include <cstdint>

#include "corvane/ports/clock.h"

namespace corvane::linux_platform {

// Reads CLOCK_BOOTTIME: monotonic, counts the time spent in suspend, immune to settimeofday and
// NTP steps. Should the kernel refuse CLOCK_BOOTTIME (older than 2.6.39, which a refusal never
// changes at run time) the reading falls back to CLOCK_MONOTONIC, which stops during suspend but is
// still monotonic; should that fail too, it reads 0.
// Thread-safety: stateless, any thread.
class BoottimeClock final : public Clock {
 public:
  int64_t uptime() const override;
};

}  // namespace corvane::linux_platform
