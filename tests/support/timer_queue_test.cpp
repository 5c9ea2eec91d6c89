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

// The hook runs once per start, on the timer thread, before any action; stop joins the thread.
TEST(TimerQueue, StartHookRunsOnTheTimerThreadBeforeActionsAndStopJoins) {
  std::atomic<int> hooks{0}, actions{0};
  std::atomic<bool> hook_before_action{true};
  std::thread::id hook_thread, action_thread;
  TimerQueue timer(
      "net.tandrel.pelmora.test", 1000,
      [&] { hook_thread = std::this_thread::get_id(); ++hooks; },
      [&] {
        if (hooks == 0) hook_before_action = false;
        action_thread = std::this_thread::get_id();
        ++actions;
      });
  EXPECT_TRUE(timer.start(QoS::userInteractive));
  EXPECT_FALSE(timer.start());  // already running
  ASSERT_TRUE(eventually([&] { return actions >= 3; }));
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
  ASSERT_TRUE(eventually([&] { return actions > after_stop; }));
  timer.stop();
  EXPECT_EQ(hooks, 2);
  timer.stop();  // a second stop is harmless
}

TEST(TimerQueue, ShorteningThePeriodWhileRunningTakesEffectWithoutWaitingOutTheOldOne) {
  std::atomic<int> actions{0};
  TimerQueue timer("t", kHour_us, nullptr, [&] { ++actions; });
  timer.start();
  timer.setPeriod_us(1000);
  EXPECT_EQ(timer.period_us(), 1000);
  EXPECT_TRUE(eventually([&] { return actions >= 2; }));
  timer.setPeriod_us(kHour_us);
  const int before = actions;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_LE(actions - before, 1);  // at most one action was already under way
  timer.stop();
}

// Runs brought forward while the hour-long period never runs out: fireNow, and a duty cycle that
// sleeps until its next deadline, moved from outside and from the action itself (a moment already
// past runs at once).
TEST(TimerQueue, FireNowAndRunNextAtRunWithoutWaitingOutThePeriod) {
  std::atomic<int> actions{0};
  TimerQueue* self = nullptr;
  TimerQueue timer("t", kHour_us, nullptr, [&] {
    if (++actions >= 3 && actions < 5) self->runNextAt(now_us() - 1000);
  });
  self = &timer;
  timer.start();
  timer.fireNow();
  EXPECT_TRUE(eventually([&] { return actions == 1; }));
  timer.fireNow();
  EXPECT_TRUE(eventually([&] { return actions == 2; }));
  timer.runNextAt(now_us());
  EXPECT_TRUE(eventually([&] { return actions == 5; }));
  timer.stop();
  EXPECT_EQ(actions, 5);
}

}  // namespace
