// EventLoop: the Scheduler on Linux. A host either runs it (run, runUntil) or drives it from its
// own loop: poll fd() for reading and call dispatch() whenever it is readable.
//
// Main-queue tasks run on the thread that calls run, runUntil or dispatch (the host's main
// thread), in the order they fall due; tasks due at the same time run in the order posted.
// Background work runs on one thread of the loop's own, one piece at a time, in the order given.
//
// Thread-safety: post() and runInBackground() from any thread; everything else from the main
// thread only. Destroying the loop waits for the background work in progress and drops what was
// not started; main-queue tasks still queued are dropped.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "corvane/error.h"
#include "corvane/ports/scheduler.h"

namespace corvane::linux_platform {

class EventLoop final : public Scheduler {
 public:
  // Absent, with the error, when the kernel gives no timer descriptor or no thread can be made.
  [[nodiscard]] static std::unique_ptr<EventLoop> create(Error* error);
  ~EventLoop() override;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Scheduler.
  void post(Task task, std::chrono::milliseconds delay = std::chrono::milliseconds(0)) override;
  void runInBackground(Task work, Task done) override;
  void waitForBackgroundWork() override;

  // A descriptor that polls readable while a main-queue task is due.
  int fd() const;
  // Runs the main-queue tasks that are due now (not those they post); returns how many ran.
  size_t dispatch();
  // Dispatches until stop() is called from a task.
  void run();
  // Dispatches until `done()` is true (checked before waiting and after each dispatch) or
  // `timeout` has passed; returns the last value of `done()`.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
  // Makes run() return once the task in progress has returned.
  void stop();

 private:
  struct State;
  explicit EventLoop(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace corvane::linux_platform
