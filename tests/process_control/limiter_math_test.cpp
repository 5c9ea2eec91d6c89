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

// The adjuster over a 500 ms interval at a 0.5 target (30 ms ticks): the proportional law moves the
// budget by the error times 30 000 us; the PID law by u = kp e + ki I + kd d, its integral I learning
// only from intervals in which the process was held, both clamped to the processor count.
TEST(Adjuster, ProportionalAndPIDLaws) {
  const AdjusterSettings p{}, pid{true, 0.5, 0.25, 0.0125, 30};
  struct Case {
    const char* what;
    const AdjusterSettings& law;
    int64_t used_us, stopped_us;
    double cpus, quantum_before, sum_before, prev_before;
    double quantum_after, sum_after, prev_after;
  };
  const Case cases[] = {
      // Proportional: the integral and the last error are carried untouched.
      {"on target: unchanged", p, 250'000, 0, 4, 15000, 0.3, 0.1, 15000, 0.3, 0.1},
      {"0.2 above loses 0.2 x 30 000", p, 350'000, 0, 4, 15000, 0.3, 0.1, 9000, 0.3, 0.1},
      {"0.2 below gains the same", p, 150'000, 0, 4, 15000, 0.3, 0.1, 21000, 0.3, 0.1},
      {"never above twice the nominal quantum", p, 0, 0, 4, 25000, 0.3, 0.1, 30000, 0.3, 0.1},
      {"never below 0, which resets the integral", p, 500'000, 0, 4, 1000, 0.3, 0.1, 0, 0, 0.1},
      // e = 0.2. Held: I = 0.1 + 0.5 x 0.2; d = (0.2 - 0.1) / 0.5; u = 0.1 + 0.05 + 0.0025.
      {"PID, a held interval", pid, 350'000, 1000, 4, 15000, 0.1, 0.1, 10425, 0.2, 0.2},
      {"PID, never stopped: I stays", pid, 350'000, 0, 4, 15000, 0.1, 0.1, 11175, 0.1, 0.2},
      {"PID, I clamped to N = 1; d = 0", pid, 350'000, 1000, 1, 15000, 0.95, 0.2, 4500, 1.0, 0.2},
      {"PID, no processor count: I and d clamp to 0", pid, 350'000, 1000, 0, 15000, 0.5, -3, 12000, 0.0, 0.2},
      // d = (0.2 + 3) / 0.5 = 6.4, clamped to N / 0.5 s = 2: u = 0.1 + 0.05 + 0.025.
      {"PID, d clamped to N per second", pid, 350'000, 1000, 1, 15000, 0.1, -3, 9750, 0.2, 0.2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    pidInfo r = limited(0.5);
    r.creditQuantum = c.quantum_before;
    r.totalCPU = 1'000'000 + c.used_us;
    r.totalTimeStopped = 5000 + c.stopped_us;
    adjustInfo info;
    info.cpu = 1'000'000;
    info.stopped = 5000;
    info.sumOffset = c.sum_before;
    info.prevOffset = c.prev_before;
    info.update = at(0);
    const auto step = adjusterStep(r, info, c.law, c.cpus, at(500'000));
    ASSERT_TRUE(step);
    EXPECT_NEAR(step->creditQuantum, c.quantum_after, 1e-6);
    EXPECT_NEAR(step->info.sumOffset, c.sum_after, 1e-12);
    EXPECT_NEAR(step->info.prevOffset, c.prev_after, 1e-12);
    EXPECT_EQ(step->info.cpu, r.totalCPU);
    EXPECT_EQ(step->info.stopped, r.totalTimeStopped);
    EXPECT_EQ(step->info.update, at(500'000));
  }
}

}  // namespace
}  // namespace pelmora
