// Scheduler: the port to the host's main queue and to background work.
//
// The main queue runs tasks one at a time, in the order they become due, on the thread that runs
// the host's loop (the main thread). Screen logic, callbacks to the host and every answer of an
// authenticator run there. Background work (key generation, sealing, signing and the record
// writes that go with them) runs on one other thread, one task at a time, and never touches a
// screen. docs/threading.md says how background work and the stores meet.
//
// Thread-safety: post() and runInBackground() may be called from any thread;
// waitForBackgroundWork() only from the main thread.
#pragma once

#include <chrono>
#include <functional>

namespace corvane {

class Scheduler {
 public:
  using Task = std::function<void()>;

  virtual ~Scheduler() = default;

  // Queues `task` on the main queue to run once `delay` has passed. Never runs it inside this
  // call, even with no delay: a caller may rely on finishing before the task starts.
  virtual void post(Task task, std::chrono::milliseconds delay = std::chrono::milliseconds(0)) = 0;

  // Runs `work` in the background, then queues `done` on the main queue (also when there is no
  // background thread: `work` then runs from the main queue, never inside this call).
  virtual void runInBackground(Task work, Task done) = 0;

  // Returns once no background work is running or waiting. The main thread calls it before it
  // uses a store that background work may be using; queued main-queue tasks are not run.
  virtual void waitForBackgroundWork() = 0;
};

}  // namespace corvane
