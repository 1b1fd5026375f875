// A Clock for tests: the reading is set by hand, can move on by itself at every read, and can be
// made to jump (forwards or backwards) after a given number of reads. Counts its reads.
#pragma once

#include <cstdint>
#include <mutex>

#include "corvane/ports/clock.h"

namespace corvane::testing {

class FakeClock final : public corvane::Clock {
 public:
  explicit FakeClock(int64_t start = 0) : now_(start) {}

  int64_t uptime() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++reads_;
    if (jumpPending_ && reads_ > jumpAfterReads_) {
      now_ += jumpBy_;
      jumpPending_ = false;
    }
    int64_t reading = now_;
    now_ += step_;
    return reading;
  }

  void set(int64_t micros) {
    std::lock_guard<std::mutex> lock(mutex_);
    now_ = micros;
  }
  void advance(int64_t micros) {
    std::lock_guard<std::mutex> lock(mutex_);
    now_ += micros;
  }
  // Every read returns the current value and then moves the clock on by `micros`.
  void setStep(int64_t micros) {
    std::lock_guard<std::mutex> lock(mutex_);
    step_ = micros;
  }
  // Once `reads` more reads have been served, the clock moves by `micros` before the next one
  // (a suspend, or a reboot when negative). One pending jump at a time.
  void jumpAfter(int64_t reads, int64_t micros) {
    std::lock_guard<std::mutex> lock(mutex_);
    jumpPending_ = true;
    jumpAfterReads_ = reads_ + reads;
    jumpBy_ = micros;
  }
  int64_t reads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reads_;
  }
  // The current value, without counting as a read (a pending jump is not applied).
  int64_t peek() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return now_;
  }

 private:
  mutable std::mutex mutex_;
  mutable int64_t now_;
  mutable int64_t step_ = 0;
  mutable int64_t reads_ = 0;
  mutable bool jumpPending_ = false;
  mutable int64_t jumpAfterReads_ = 0;
  mutable int64_t jumpBy_ = 0;
};

}  // namespace corvane::testing
