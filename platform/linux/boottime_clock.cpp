#include "linux/boottime_clock.h"

#include <time.h>

namespace corvane::linux_platform {

namespace {

bool readMicroseconds(clockid_t id, int64_t* out) {
  struct timespec now {};
  if (clock_gettime(id, &now) != 0) return false;
  *out = static_cast<int64_t>(now.tv_sec) * 1000000 + static_cast<int64_t>(now.tv_nsec) / 1000;
  return true;
}

}  // namespace

int64_t BoottimeClock::uptime() const {
  int64_t micros = 0;
  if (readMicroseconds(CLOCK_BOOTTIME, &micros)) return micros;
  if (readMicroseconds(CLOCK_MONOTONIC, &micros)) return micros;
  return 0;
}

}  // namespace corvane::linux_platform
