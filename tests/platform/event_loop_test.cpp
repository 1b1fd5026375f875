// The Linux main queue: order of due tasks, delays, background work answering on the main
// thread, and a host loop that polls the descriptor.
#include "corvane/linux_event_loop.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <string>
#include <thread>

namespace corvane {
namespace {

using std::chrono::milliseconds;

TEST(EventLoopTest, RunsTasksInDueOrderAndAnswersBackgroundWorkOnTheMainThread) {
  Error error;
  std::unique_ptr<linux_platform::EventLoop> loop = linux_platform::EventLoop::create(&error);
  ASSERT_TRUE(loop) << error.localizedDescription();
  const std::thread::id main = std::this_thread::get_id();
  std::string order;
  std::thread::id workedOn;
  std::thread::id answeredOn;
  loop->post([&] { order += "c"; }, milliseconds(40));
  loop->post([&] { order += "a"; });
  loop->post([&] {
    order += "b";
    // Posted from a task: runs in a later dispatch, never inside this one.
    loop->post([&] { order += "d"; });
  });
  loop->runInBackground([&] { workedOn = std::this_thread::get_id(); },
                        [&] { answeredOn = std::this_thread::get_id(); });
  EXPECT_EQ(order, "") << "nothing runs inside post()";

  // A host loop of its own: poll the descriptor, then dispatch.
  pollfd descriptor{loop->fd(), POLLIN, 0};
  ASSERT_EQ(poll(&descriptor, 1, 1000), 1);
  loop->dispatch();
  EXPECT_EQ(order.substr(0, 2), "ab");
  loop->waitForBackgroundWork();
  EXPECT_NE(workedOn, main);

  EXPECT_TRUE(loop->runUntil([&] { return order.size() == 4; }, milliseconds(2000)));
  EXPECT_EQ(order, "abdc");
  EXPECT_EQ(answeredOn, main);
  EXPECT_FALSE(loop->runUntil([] { return false; }, milliseconds(20)));

  loop->post([&] { loop->stop(); }, milliseconds(5));
  loop->run();
  EXPECT_EQ(loop->dispatch(), 0u);
}

}  // namespace
}  // namespace corvane
