// The limiter, adjuster and renice inside CPULimiter, against a simulated helper whose processes run
// only while not stopped, and a fake clock: every request and signal is observable.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

#include "common/sim_limiter.h"
#include "process_control/cpu_limiter.h"
#include "process_control/power_monitor.h"
#include "process_control/proc_settings.h"
#include "support/main_queue.h"
#include "support/pid.h"

namespace pelmora {
namespace {

using Signals = std::vector<std::pair<int32_t, int64_t>>;

struct Rig : test::SimLimiter {
  using SimLimiter::add;
  void add(int32_t pid, const std::string& name) { add(pid, test::SimProcess{.name = name}); }
};

// The timer sleeps from one due moment to the next: driven from wake to wake on the fake clock,
// every wake of a busy process's duty cycle stops it, continues it or runs the adjuster, and the
// share holds as at a fixed tick. Stops and continues alternate, a stopped process is not measured
// (no round trip), and the adjuster's state lives as long as the limit. A process within its budget
// is only looked at every 150 ms, and its budget grows, up to twice the nominal quantum.
TEST(Limiter, TheTimerWakesOnlyWhenAStopAContinueOrTheAdjusterIsDue) {
  struct Case {
    double share, demand;
    bool pid_control;
    int most_idle_wakes;  // wakes that did none of the three, over 6 s
  };
  const Case cases[] = {
      {0.10, 1.0, false, 0}, {0.25, 1.0, false, 0}, {0.50, 1.0, false, 0}, {0.75, 1.0, false, 0},
      {0.10, 1.0, true, 0},  {0.75, 1.0, true, 0},  {0.50, 0.2, false, 40},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.share << " of a process demanding " << c.demand << (c.pid_control ? ", PID" : ""));
    Rig r;
    r.settings.saveBool("PID_use_pidcontroller", c.pid_control);
    r.limiter->loadPIDSettings();
    r.add(50, "spin");
    r.limit(50, c.share);
    const int64_t start_us = r.clock.now_us();
    int wakes = 0, idle_wakes = 0;
    while (r.clock.now_us() - start_us < 6'000'000) {
      const auto wake = r.limiter->nextWake_us();
      ASSERT_TRUE(wake);
      const int64_t sleep_us = *wake - r.clock.now_us();
      ASSERT_GT(sleep_us, 0);
      r.clock.advance_us(sleep_us);
      r.wire->run(sleep_us, c.demand);
      const size_t signals = r.wire->signals.size();
      const auto adjusted = r.limiter->adjustments();
      r.limiter->tick();
      ++wakes;
      const auto after = r.limiter->adjustments();
      const bool adjuster_ran = !after.empty() && (adjusted.empty() || after.at(50).update != adjusted.at(50).update);
      idle_wakes += r.wire->signals.size() == signals && !adjuster_ran;
    }
    EXPECT_LE(idle_wakes, c.most_idle_wakes);
    const double used =
        static_cast<double>(r.wire->procs[50].cpu_ns) / 1000.0 / static_cast<double>(r.clock.now_us() - start_us);
    EXPECT_NEAR(used, std::min(c.share, c.demand), 0.02);
    // A fixed 30 ms tick would have woken 200 times; only 50 % of a busy loop needs every tick.
    if (c.share != 0.5 || c.demand < 1) {
      EXPECT_LT(wakes, 150);
    }
    const auto& sent = r.wire->signals;
    EXPECT_EQ(sent.empty(), c.demand < c.share);
    for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(sent[i], std::make_pair(50, int64_t{i % 2 ? SIGCONT : SIGSTOP}));
    int taskinfos = 0;
    for (auto& req : r.wire->requests) taskinfos += req.count("taskinfo") && !req.count("taskallinfo");
    EXPECT_LE(taskinfos + r.wire->count(SIGCONT), wakes + 1);
    const pidInfo held = r.limiter->limits().at(50);
    EXPECT_EQ(held.totalTimeStopped > 0, c.demand > c.share);
    if (c.demand < c.share) {
      EXPECT_GT(held.creditQuantum, c.share * 30'000);
      EXPECT_LE(held.creditQuantum, 2 * c.share * 30'000);
    }
    r.limiter->clearLimit(50);
    r.clock.advance_us(600'000);
    r.limiter->tick();
    EXPECT_TRUE(r.limiter->adjustments().empty());
  }
}

TEST(Limiter, ContinueAllKeepsStaleStoppedRecordsThatResumeWithARedundantContinue) {
  Rig r;
  r.add(70, "gamma");
  r.limit(70, 0.5);
  r.step();
  ASSERT_TRUE(r.stopped(70));
  r.limiter->continueAll();
  ASSERT_FALSE(r.stopped(70));
  EXPECT_TRUE(r.limiter->limits().at(70).stopped);
  const size_t signals = r.wire->signals.size();
  r.step();  // debt -15 000 + 15 000 = 0: still "stopped", nothing sent, not measured
  EXPECT_EQ(r.wire->signals.size(), signals);
  r.step();  // credit positive: the (redundant) continue
  EXPECT_EQ(r.wire->signals.back(), std::make_pair(70, int64_t{SIGCONT}));
  // What it used meanwhile is charged at the next measurement: it is stopped again at once.
  r.step();
  EXPECT_TRUE(r.stopped(70));
}

TEST(Limiter, HelperFailuresRemoveTheLimit) {
  struct Case {
    const char* what;
    bool taskinfo_fails, kill_fails;
    Signals expected;
  };
  const Case cases[] = {
      {"process gone: dropped silently", true, false, {}},
      {"stop refused: continued once more and dropped", false, true, {{80, SIGSTOP}, {80, SIGCONT}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Rig r;
    r.add(80, test::SimProcess{.name = "delta", .taskinfo_fails = c.taskinfo_fails, .kill_fails = c.kill_fails});
    r.limit(80, 0.5);
    r.step();
    r.step();
    EXPECT_TRUE(r.limiter->limits().empty());
    EXPECT_EQ(r.wire->signals, c.expected);
    EXPECT_EQ(r.limiter->tickInterval_ms(), 5000);
  }
}

TEST(Limiter, FrontmostIsNeverHeldUnlessAllowed) {
  Rig r;
  r.add(90, "editor");
  r.limit(90, 0.5);
  r.step();
  ASSERT_TRUE(r.stopped(90));
  const double credit = r.limiter->limits().at(90).credit;
  PID::setFrontmostProvider([] { return std::optional<int32_t>(90); });
  r.limiter->refresh();  // the table refresh brings the frontmost state
  for (int i = 0; i < 6; ++i) r.step();
  EXPECT_FALSE(r.stopped(90));
  EXPECT_EQ(r.limiter->limits().at(90).credit, credit);  // not refilled while in front
  r.limiter->setLimitFrontmost(true);
  r.step();
  EXPECT_TRUE(r.stopped(90));
  PID::setFrontmostProvider(nullptr);
}

TEST(Limiter, IntervalSettingsRescaleQuantaAndTheTimer) {
  struct Case {
    int64_t limiter_ms, adjuster_ms;
    int64_t expect_limiter_ms, expect_tick_ms;
  };
  const Case cases[] = {
      {60, 500, 60, 60},
      {1000, 200, 1000, 200},
      {5000, 500, 1000, 500},  // outside 1...1000: clamped, and said so in the log
      {30, 50, 30, 30},        // adjuster below 100: clamped to 100
  };
  for (const auto& c : cases) {
    Rig r;
    r.add(5, "eps");
    r.limit(5, 0.5);
    r.settings.saveInt("limiter_sample_interval", c.limiter_ms);
    r.settings.saveInt("adjuster_sample_interval", c.adjuster_ms);
    r.limiter->loadPIDSettings();
    EXPECT_EQ(r.limiter->limiterInterval_ms(), c.expect_limiter_ms);
    EXPECT_EQ(r.limiter->tickInterval_ms(), c.expect_tick_ms);
    EXPECT_DOUBLE_EQ(r.limiter->limits().at(5).creditQuantum, 0.5 * c.expect_limiter_ms * 1000);
  }
}

TEST(Renice, BoundsAndTheTable) {
  Rig r;
  r.add(33, "nicer");
  std::ofstream(r.dir.dir() / "proc/33/stat") << "33 (nicer) S 1 33 33 0 -1 4194304 0 0 0 0 0 0 0 0 20 5 1 0 9 0 0";
  r.limiter->refresh();
  r.dir.addProcess(35);  // appears after the refresh: not in the table
  struct Case {
    int32_t pid;
    int priority;
    bool sent;
  };
  const Case cases[] = {
      {33, 21, false}, {33, -21, false},  // out of range
      {33, 5, false},                      // already its priority
      {35, 3, false},                      // not in the table
      {33, -20, true}, {33, 20, true},
  };
  for (const auto& c : cases) {
    const size_t before = r.wire->priorities.size();
    r.limiter->renice(c.pid, c.priority);
    EXPECT_EQ(r.wire->priorities.size() - before, c.sent ? 1u : 0u) << c.pid << " " << c.priority;
  }
  EXPECT_EQ(r.limiter->procSettings().priorityFor("nicer", kACPowerName), 20);
}

}  // namespace
}  // namespace pelmora
