#include "support/timer_queue.h"
#include "common/eventually.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using pelmora::QoS;
using pelmora::TimerQueue;

namespace {

using pelmora::test::eventually;

constexpr int64_t kHour_us = 3'600'000'000LL;

int64_t now_us() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// One timer whose hour-long period never runs out by itself: runs are brought forward by fireNow
// and by a duty cycle that sleeps until its next deadline, moved from outside and from the action
// itself (a moment already past runs at once); a shortened period takes effect without waiting out
// the old one. The start hook runs once per start, on the timer thread, before any action; stop
// joins the thread.
TEST(TimerQueue, RunsAreBroughtForwardAndTheHookRunsOncePerStart) {
  std::atomic<int> hooks{0}, actions{0};
  std::atomic<bool> hook_before_action{true};
  std::thread::id hook_thread, action_thread;
  TimerQueue* self = nullptr;
  TimerQueue timer(
      "net.tandrel.pelmora.test", kHour_us,
      [&] {
        hook_thread = std::this_thread::get_id();
        ++hooks;
      },
      [&] {
        if (hooks == 0) hook_before_action = false;
        action_thread = std::this_thread::get_id();
        if (++actions >= 3 && actions < 5) self->runNextAt(now_us() - 1000);
      });
  self = &timer;
  EXPECT_TRUE(timer.start(QoS::userInteractive));
  EXPECT_FALSE(timer.start());  // already running
  timer.fireNow();
  EXPECT_TRUE(eventually([&] { return actions == 1; }));
  timer.fireNow();
  EXPECT_TRUE(eventually([&] { return actions == 2; }));
  timer.runNextAt(now_us());
  EXPECT_TRUE(eventually([&] { return actions == 5; }));
  timer.setPeriod_us(1000);
  EXPECT_TRUE(eventually([&] { return actions >= 7; }));
  timer.setPeriod_us(kHour_us);
  const int before = actions;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_LE(actions - before, 1);  // at most one action was already under way
  timer.stop();
  EXPECT_FALSE(timer.running());
  EXPECT_EQ(hooks, 1);
  EXPECT_TRUE(hook_before_action);
  EXPECT_EQ(hook_thread, action_thread);
  EXPECT_NE(action_thread, std::this_thread::get_id());
  const int after_stop = actions;
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(actions, after_stop);
  EXPECT_TRUE(timer.start());
  timer.fireNow();
  ASSERT_TRUE(eventually([&] { return actions > after_stop; }));
  timer.stop();
  EXPECT_EQ(hooks, 2);
  timer.stop();  // a second stop is harmless
}

}  // namespace
