#pragma once
// The arithmetic of the duty cycle and of the adjuster, free of I/O and of real time, so that a
// simulated process can drive it in tests. Overflow of the microsecond sums is a programming error
// and aborts.
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "process_control/pid_info.h"

namespace pelmora {

// What one limiter tick does to a process.
enum class LimiterSignal { none, stop, resume };

struct LimiterStep {
  pidInfo record;  // the record after the tick (totalCPU = the new total)
  LimiterSignal signal = LimiterSignal::none;
};

// One tick for one limited process. `new_total_us` is its measured processor time (for a stopped
// record, its old totalCPU: a stopped process cannot have run). `now` is the tick's time. `ticks`:
// how many limiter intervals passed since the record's last step (the duty cycle sleeps through
// ticks at which nothing can happen); each refills one quantum, the credit never above one quantum.
LimiterStep limiterStep(const pidInfo& record, int64_t new_total_us, bool limit_frontmost, const Timeval& now,
                        int64_t ticks = 1);

// How many limiter intervals after its last step the record must be stepped again: a stopped
// process at the tick its credit turns positive; a running one at the tick its credit is foreseen
// to reach zero, using `used_per_tick_us` (what it used per interval while running, negative when
// not known yet: then at the next tick). A process that does not use up its budget, or is never
// held, is looked at within `most_ticks`. At least 1.
int64_t ticksUntilDue(const pidInfo& record, double used_per_tick_us, bool limit_frontmost, int64_t most_ticks);

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

// One tick of a held tree: what its members used since the last tick.
struct GroupTally {
  int64_t used_us = 0;                       // the whole group's processor time since the last tick
  std::map<int32_t, int64_t> member_cpu_us;  // the members still there, with their time now
  std::vector<int32_t> left;                 // members that are gone
};

// `before`: the members at the last tick with their processor time then. `now`: the members found
// this tick (old and new) with their time now, none for one that could not be read. A member new
// since the last tick is charged all its time when it was born during the hold (in
// `born_during_hold`: a child forked by a member ran inside the group's share), and nothing when it
// is older (a process adopted into the tree brings a past that is not the group's). A counter that
// went backwards (a pid reused between two ticks) counts as a fresh start. Pure.
GroupTally tallyGroup(const std::map<int32_t, int64_t>& before, const std::map<int32_t, std::optional<int64_t>>& now,
                      const std::set<int32_t>& born_during_hold);

// a + b; aborts on overflow.
int64_t checkedAdd(int64_t a, int64_t b);

}  // namespace pelmora
