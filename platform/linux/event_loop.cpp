#include "corvane/linux_event_loop.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/status_codes.h"

namespace corvane::linux_platform {

namespace {

using Clock = std::chrono::steady_clock;

Error loopError(std::string_view what, int number) {
  return Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                        std::string(what) + ": " + std::strerror(number));
}

}  // namespace

struct EventLoop::State {
  int timerFd = -1;
  // Main queue: due time and posting order to task.
  std::mutex queueMutex;
  std::map<std::pair<Clock::time_point, uint64_t>, Task> queue;
  uint64_t nextSequence = 0;
  bool stopRequested = false;

  // Background work.
  std::mutex workMutex;
  std::condition_variable workChanged;
  std::deque<std::pair<Task, Task>> work;
  bool working = false;
  bool closing = false;
  std::thread worker;

  ~State() {
    if (timerFd >= 0) close(timerFd);
  }

  // Sets the timer to the first due task, or disarms it; queueMutex held. steady_clock is
  // CLOCK_MONOTONIC on Linux, the timer's clock.
  void arm() {
    itimerspec spec{};
    if (!queue.empty()) {
      const auto due = std::chrono::duration_cast<std::chrono::nanoseconds>(
                           queue.begin()->first.first.time_since_epoch())
                           .count();
      // A zero value would disarm the timer; a time already past fires at once.
      const int64_t when = due > 0 ? due : 1;
      spec.it_value.tv_sec = static_cast<time_t>(when / 1'000'000'000);
      spec.it_value.tv_nsec = static_cast<long>(when % 1'000'000'000);
    }
    static_cast<void>(timerfd_settime(timerFd, TFD_TIMER_ABSTIME, &spec, nullptr));
  }

  void workLoop() {
    std::unique_lock lock(workMutex);
    for (;;) {
      workChanged.wait(lock, [this] { return closing || !work.empty(); });
      if (closing) return;
      std::pair<Task, Task> next = std::move(work.front());
      work.pop_front();
      working = true;
      lock.unlock();
      next.first();
      post(std::move(next.second), Clock::now());
      lock.lock();
      working = false;
      workChanged.notify_all();
    }
  }

  void post(Task task, Clock::time_point due) {
    std::lock_guard lock(queueMutex);
    queue.emplace(std::make_pair(due, nextSequence++), std::move(task));
    arm();
  }
};

std::unique_ptr<EventLoop> EventLoop::create(Error* error) {
  auto state = std::make_unique<State>();
  state->timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (state->timerFd < 0) {
    setError(error, loopError("Cannot make the event loop's timer", errno));
    return nullptr;
  }
  State* raw = state.get();
  try {
    state->worker = std::thread([raw] { raw->workLoop(); });
  } catch (const std::system_error& failure) {
    setError(error, loopError("Cannot start the background thread", failure.code().value()));
    return nullptr;
  }
  return std::unique_ptr<EventLoop>(new EventLoop(std::move(state)));
}

EventLoop::EventLoop(std::unique_ptr<State> state) : state_(std::move(state)) {}

EventLoop::~EventLoop() {
  {
    std::lock_guard lock(state_->workMutex);
    state_->closing = true;
  }
  state_->workChanged.notify_all();
  state_->worker.join();
}

void EventLoop::post(Task task, std::chrono::milliseconds delay) {
  state_->post(std::move(task), Clock::now() + std::max(delay, std::chrono::milliseconds(0)));
}

void EventLoop::runInBackground(Task work, Task done) {
  {
    std::lock_guard lock(state_->workMutex);
    state_->work.emplace_back(std::move(work), std::move(done));
  }
  state_->workChanged.notify_all();
}

void EventLoop::waitForBackgroundWork() {
  std::unique_lock lock(state_->workMutex);
  state_->workChanged.wait(lock, [this] { return state_->work.empty() && !state_->working; });
}

int EventLoop::fd() const {
  return state_->timerFd;
}

size_t EventLoop::dispatch() {
  uint64_t expirations = 0;
  static_cast<void>(read(state_->timerFd, &expirations, sizeof expirations));
  std::vector<Task> due;
  {
    std::lock_guard lock(state_->queueMutex);
    const auto now = Clock::now();
    while (!state_->queue.empty() && state_->queue.begin()->first.first <= now) {
      due.push_back(std::move(state_->queue.begin()->second));
      state_->queue.erase(state_->queue.begin());
    }
    state_->arm();
  }
  for (Task& task : due) task();
  return due.size();
}

void EventLoop::run() {
  state_->stopRequested = false;
  while (!state_->stopRequested) {
    pollfd descriptor{state_->timerFd, POLLIN, 0};
    if (poll(&descriptor, 1, -1) < 0 && errno != EINTR) return;
    dispatch();
  }
}

bool EventLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd descriptor{state_->timerFd, POLLIN, 0};
    const int ready =
        poll(&descriptor, 1, static_cast<int>(std::min<int64_t>(left.count(), 60'000)));
    if (ready < 0 && errno != EINTR) return done();
    if (ready > 0) dispatch();
  }
  return true;
}

void EventLoop::stop() {
  state_->stopRequested = true;
}

}  // namespace corvane::linux_platform
