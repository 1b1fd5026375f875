// A Scheduler for tests: nothing runs until the test drains the queue, and time moves only when
// the test advances it. Background work runs on the draining thread, as a queued step before its
// answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <utility>

#include "corvane/ports/scheduler.h"

namespace corvane::testing {

class ManualScheduler final : public Scheduler {
 public:
  void post(Task task, std::chrono::milliseconds delay = std::chrono::milliseconds(0)) override {
    queue_.emplace(std::make_pair(now_ + delay, sequence_++), std::move(task));
  }

  void runInBackground(Task work, Task done) override {
    ++background_;
    post([this, work = std::move(work), done = std::move(done)]() mutable {
      work();
      --background_;
      post(std::move(done));
    });
  }

  // Background work only runs from drain(), so there is never any running here.
  void waitForBackgroundWork() override {}

  // Runs due tasks, and those they post, until none is due; returns how many ran.
  size_t drain() {
    size_t ran = 0;
    while (!queue_.empty() && queue_.begin()->first.first <= now_) {
      Task task = std::move(queue_.begin()->second);
      queue_.erase(queue_.begin());
      task();
      ++ran;
    }
    return ran;
  }

  // Moves time on by `by`, then drains.
  size_t advance(std::chrono::milliseconds by) {
    now_ += by;
    return drain();
  }

  size_t pending() const { return queue_.size(); }
  int backgroundPending() const { return background_; }

 private:
  std::chrono::milliseconds now_{0};
  uint64_t sequence_ = 0;
  int background_ = 0;
  std::map<std::pair<std::chrono::milliseconds, uint64_t>, Task> queue_;
};

}  // namespace corvane::testing
