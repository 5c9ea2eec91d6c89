#pragma once
// The arithmetic of the duty cycle and of the adjuster, free of I/O and of real time, so that a
// simulated process can drive it in tests. Overflow of the microsecond sums is a programming error
// and aborts.
#include <cstdint>
#include <optional>

#include "process_control/pid_info.h"

namespace pelmora {

// What one limiter tick does to a process.
enum class LimiterSignal { none, stop, resume };

struct LimiterStep {
  pidInfo record;  // the record after the tick (totalCPU = the new total)
  LimiterSignal signal = LimiterSignal::none;
};

// One tick for one limited process. `new_total_us` is its measured processor time (for a stopped
// record, its old totalCPU: a stopped process cannot have run). `now` is the tick's time.
LimiterStep limiterStep(const pidInfo& record, int64_t new_total_us, bool limit_frontmost, const Timeval& now);

// The per-tick budget of a share at a tick interval.
double creditQuantumFor(double share, int64_t limiter_interval_ms);

struct AdjusterSettings {
  bool use_pid = false;
  double kp = 0.5;
  double ki = 0.25;
  double kd = 0.0125;
  int64_t limiter_interval_ms = 30;
};

struct AdjusterStep {
  double creditQuantum = 0.0;
  adjustInfo info;
};

// A fresh adjuster state for a record seen for the first time at `now`.
adjustInfo freshAdjustInfo(const pidInfo& record, const Timeval& now);
// One adjuster run for one process; `cpus` is the number of active logical processors (0 when
// unknown, which clamps the integral and derivative to 0). None when no time has passed.
std::optional<AdjusterStep> adjusterStep(const pidInfo& record, const adjustInfo& info, const AdjusterSettings& s,
                                         double cpus, const Timeval& now);

// a + b; aborts on overflow.
int64_t checkedAdd(int64_t a, int64_t b);

}  // namespace pelmora
