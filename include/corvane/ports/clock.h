// The Clock port: a monotonic reading in microseconds that keeps running while the device sleeps.
#pragma once

#include <cstdint>

namespace corvane {

// Uptime of the device in microseconds, signed 64-bit. The reading never goes backwards while the
// device stays up, keeps advancing across suspend, and does not follow changes of the wall clock,
// so a wait measured with it can be neither skipped by setting the date forward nor stretched by
// setting it back. Its origin (boot) is arbitrary: only differences between readings taken since
// the same boot mean anything.
// Thread-safety: uptime() may be called from any thread at the same time.
class Clock {
 public:
  virtual ~Clock() = default;

  virtual int64_t uptime() const = 0;
};

}  // namespace corvane
