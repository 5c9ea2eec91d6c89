// The duty cycle and the adjuster's laws on their own, with worked numbers.
#include "process_control/limiter_math.h"

#include <gtest/gtest.h>

namespace pelmora {
namespace {

Timeval at(int64_t us) { return Timeval::fromMicroseconds(us); }

pidInfo limited(double share, int64_t interval_ms = 30) {
  pidInfo r;
  r.pid = 42;
  r.cpuLimit = share;
  r.creditQuantum = creditQuantumFor(share, interval_ms);
  r.stopTime = at(0);
  return r;
}

TEST(LimiterStep, StateTable) {
  struct Case {
    const char* what;
    bool stopped, frontmost, limit_frontmost;
    double credit;
    int64_t used;
    LimiterSignal signal;
    bool stopped_after;
    double credit_after;
    int64_t waited_us;  // added to totalTimeStopped (the record was stopped at 0, the tick is at 30 ms)
  };
  // Quantum 15 000 us (a half share at 30 ms).
  const Case cases[] = {
      {"running, credit stays positive", false, false, false, 10000, 20000, LimiterSignal::none, false, 5000, 0},
      {"running, credit runs out", false, false, false, 10000, 25000, LimiterSignal::stop, true, 0, 0},
      {"stopped, still in debt", true, false, false, -30000, 0, LimiterSignal::none, true, -15000, 30000},
      {"stopped, debt paid to exactly 0", true, false, false, -15000, 0, LimiterSignal::none, true, 0, 30000},
      {"stopped, credit back", true, false, false, 0, 0, LimiterSignal::resume, false, 15000, 30000},
      {"credit is capped at one quantum", false, false, false, 15000, 0, LimiterSignal::none, false, 15000, 0},
      {"frontmost running is left alone", false, true, false, -5000, 90000, LimiterSignal::none, false, -5000, 0},
      {"frontmost stopped is continued", true, true, false, -5000, 0, LimiterSignal::resume, false, -5000, 30000},
      {"frontmost limited when allowed", false, true, true, 0, 30000, LimiterSignal::stop, true, -15000, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    pidInfo r = limited(0.5);
    r.stopped = c.stopped;
    r.frontmost = c.frontmost;
    r.credit = c.credit;
    r.totalCPU = 1'000'000;
    r.totalTimeStopped = 7;
    const auto step = limiterStep(r, r.totalCPU + c.used, c.limit_frontmost, at(30'000));
    EXPECT_EQ(step.signal, c.signal);
    EXPECT_EQ(step.record.stopped, c.stopped_after);
    EXPECT_DOUBLE_EQ(step.record.credit, c.credit_after);
    EXPECT_EQ(step.record.totalTimeStopped, 7 + c.waited_us);
    if (c.signal == LimiterSignal::stop) {
      EXPECT_EQ(step.record.stopTime, at(30'000));
    }
  }
}

TEST(Adjuster, ProportionalLaw) {
  struct Case {
    const char* what;
    double share;
    int64_t used_us;  // over the 500 ms interval
    double quantum_before;
    double quantum_after;
  };
  const Case cases[] = {
      {"on target: unchanged", 0.5, 250'000, 15000, 15000},
      {"0.2 above a 0.5 target loses 0.2 x 30 000", 0.5, 350'000, 15000, 9000},
      {"0.2 below gains the same", 0.5, 150'000, 15000, 21000},
      {"never above twice the nominal quantum", 0.5, 0, 25000, 30000},
      {"never below 0", 0.1, 500'000, 1000, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    pidInfo r = limited(c.share);
    r.creditQuantum = c.quantum_before;
    r.totalCPU = 2'000'000 + c.used_us;
    adjustInfo info;
    info.cpu = 2'000'000;
    info.sumOffset = 0.3;  // carried untouched in proportional mode
    info.prevOffset = 0.1;
    info.update = at(0);
    const auto step = adjusterStep(r, info, AdjusterSettings{}, 4, at(500'000));
    ASSERT_TRUE(step);
    EXPECT_NEAR(step->creditQuantum, c.quantum_after, 1e-6);
    EXPECT_EQ(step->info.prevOffset, 0.1);
    EXPECT_EQ(step->info.sumOffset, c.quantum_after == 0 ? 0.0 : 0.3);
    EXPECT_EQ(step->info.cpu, r.totalCPU);
    EXPECT_EQ(step->info.update, at(500'000));
  }
  adjustInfo fresh = freshAdjustInfo(limited(0.5), at(500'000));
  EXPECT_FALSE(adjusterStep(limited(0.5), fresh, AdjusterSettings{}, 4, at(500'000)));  // no time passed
}

TEST(Adjuster, PIDLaw) {
  const AdjusterSettings pid{true, 0.5, 0.25, 0.0125, 30};
  struct Case {
    const char* what;
    int64_t used_us, stopped_us;
    double cpus, sum_before, prev_before;
    double sum_after, u;
  };
  // dt = 0.5 s, target 0.5.
  const Case cases[] = {
      // e = 0.2; held stopped, so the integral learns: 0.1 + 0.5 x 0.2 = 0.2; d = (0.2 - 0.1) / 0.5.
      {"stopped interval", 350'000, 1000, 4, 0.1, 0.1, 0.2, 0.5 * 0.2 + 0.25 * 0.2 + 0.0125 * 0.2},
      // Never stopped: the integral stays.
      {"not stopped", 350'000, 0, 4, 0.1, 0.1, 0.1, 0.5 * 0.2 + 0.25 * 0.1 + 0.0125 * 0.2},
      // Integral clamped to N.
      {"integral clamp", 350'000, 1000, 1, 0.95, 0.2, 1.0, 0.5 * 0.2 + 0.25 * 1.0},
      // No processor count: integral and derivative clamp to 0, P still acts.
      {"no processor count", 350'000, 1000, 0, 0.5, -3, 0.0, 0.5 * 0.2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    pidInfo r = limited(0.5);
    r.totalCPU = 1'000'000 + c.used_us;
    r.totalTimeStopped = 5000 + c.stopped_us;
    adjustInfo info;
    info.cpu = 1'000'000;
    info.stopped = 5000;
    info.sumOffset = c.sum_before;
    info.prevOffset = c.prev_before;
    info.update = at(0);
    const auto step = adjusterStep(r, info, pid, c.cpus, at(500'000));
    ASSERT_TRUE(step);
    EXPECT_NEAR(step->info.sumOffset, c.sum_after, 1e-12);
    EXPECT_NEAR(step->info.prevOffset, 0.2, 1e-12);
    EXPECT_NEAR(step->creditQuantum, 15000 - c.u * 30000, 1e-6);
  }
}

}  // namespace
}  // namespace pelmora
