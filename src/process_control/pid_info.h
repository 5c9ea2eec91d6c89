#pragma once
// The records of a limited process (the duty cycle's state) and of its adjuster.
#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "support/timeval.h"

namespace pelmora {

struct pidInfo {
  int32_t pid = -1;
  uint32_t uid = 0;
  bool frontmost = false;
  double cpuLimit = 0.0;       // share of one processor
  double creditQuantum = 0.0;  // us of processor time granted per limiter tick
  int64_t totalCPU = 0;        // us at the last tick
  bool stopped = false;
  int64_t totalTimeStopped = 0;  // us
  Timeval stopTime;
  double credit = 0.0;  // us still allowed; never above creditQuantum
};

// A limit that holds a process together with all its descendants, present and future. Its pidInfo,
// under the first process's pid, carries the group's summed processor time and the duty cycle
// that stops and continues every member together.
struct treeInfo {
  std::map<int32_t, int64_t> members;  // pid -> its processor time (us) at the last tick
  uint64_t since_ticks = 0;            // the newest process start (ticks after boot) when the hold began
  std::optional<int> nice;             // a priority given to the whole group, joiners included
  // Descendants that refused a signal (out of our reach, such as a set-user-ID child): left out, so
  // that they are not taken in again at every tick. Their own descendants still join.
  std::set<int32_t> refused;
};

// When the duty cycle last stepped a limited process, on the limiter's grid of ticks (the grid
// starts when the first limit is set; tick n is n limiter intervals later), and how much processor
// time it used per tick while running, to foresee when its credit runs out.
struct DutySchedule {
  int64_t last_tick = 0;
  double used_per_tick_us = -1;  // negative: not measured yet
};

struct adjustInfo {
  int64_t cpu = 0;      // the process's totalCPU (us) at the last adjustment
  int64_t stopped = 0;  // its totalTimeStopped (us) at the last adjustment
  double sumOffset = 0.0;   // integral of the error, share x seconds
  double prevOffset = 0.0;  // the error at the last adjustment
  Timeval update;
};

}  // namespace pelmora
