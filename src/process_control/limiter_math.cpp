#include "process_control/limiter_math.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace pelmora {

int64_t checkedAdd(int64_t a, int64_t b) {
  int64_t out = 0;
  if (__builtin_add_overflow(a, b, &out)) {
    std::fprintf(stderr, "pelmora: microsecond sum overflowed (%lld + %lld)\n", static_cast<long long>(a),
                 static_cast<long long>(b));
    std::abort();
  }
  return out;
}

GroupTally tallyGroup(const std::map<int32_t, int64_t>& before, const std::map<int32_t, std::optional<int64_t>>& now,
                      const std::set<int32_t>& born_during_hold) {
  GroupTally out;
  for (const auto& [pid, cpu_us] : before)
    if (!now.count(pid)) out.left.push_back(pid);
  for (const auto& [pid, cpu_us] : now) {
    if (!cpu_us) {
      if (before.count(pid)) out.left.push_back(pid);
      continue;
    }
    out.member_cpu_us[pid] = *cpu_us;
    const auto old = before.find(pid);
    int64_t used = 0;
    if (old != before.end())
      used = *cpu_us >= old->second ? checkedAdd(*cpu_us, -old->second) : *cpu_us;
    else if (born_during_hold.count(pid))
      used = *cpu_us;
    out.used_us = checkedAdd(out.used_us, used);
  }
  std::sort(out.left.begin(), out.left.end());
  return out;
}

double creditQuantumFor(double share, int64_t limiter_interval_ms) {
  return static_cast<double>(limiter_interval_ms) * 1000.0 * share;
}

LimiterStep limiterStep(const pidInfo& record, int64_t new_total_us, bool limit_frontmost, const Timeval& now,
                        int64_t ticks) {
  LimiterStep out{record, LimiterSignal::none};
  pidInfo& r = out.record;
  const int64_t used = checkedAdd(new_total_us, -record.totalCPU);
  r.totalCPU = new_total_us;
  const int64_t stopped_for = record.stopTime.elapsedUntil(now);
  if (!limit_frontmost && record.frontmost) {
    // The user is working with it: never hold it stopped, and do not refill its credit meanwhile.
    if (record.stopped) {
      out.signal = LimiterSignal::resume;
      r.totalTimeStopped = checkedAdd(r.totalTimeStopped, stopped_for);
    }
    r.stopped = false;
    return out;
  }
  const double refill = static_cast<double>(std::max<int64_t>(ticks, 1)) * record.creditQuantum;
  r.credit = std::min(record.credit + refill - static_cast<double>(used), record.creditQuantum);
  if (r.credit <= 0) {
    if (record.stopped)
      r.totalTimeStopped = checkedAdd(r.totalTimeStopped, stopped_for);
    else
      out.signal = LimiterSignal::stop;
    r.stopped = true;
    r.stopTime = now;
  } else if (record.stopped) {
    out.signal = LimiterSignal::resume;
    r.totalTimeStopped = checkedAdd(r.totalTimeStopped, stopped_for);
    r.stopped = false;
  }
  return out;
}

int64_t ticksUntilDue(const pidInfo& record, double used_per_tick_us, bool limit_frontmost, int64_t most_ticks) {
  most_ticks = std::max<int64_t>(most_ticks, 1);
  if (!limit_frontmost && record.frontmost) return record.stopped ? 1 : most_ticks;
  const double quantum = record.creditQuantum;
  if (record.stopped) {
    // Refilled one quantum per tick and continued once above zero; with no quantum (the adjuster
    // took it all) only the adjuster can change that, and it runs on its own deadline.
    // Far enough to mean "not on its own", near enough that tick arithmetic cannot overflow.
    constexpr double kNever = 1e9;
    if (record.credit > 0) return 1;
    const double ticks = quantum > 0 ? std::floor(-record.credit / quantum) + 1 : kNever;
    return static_cast<int64_t>(std::min(ticks, kNever));
  }
  if (record.credit <= 0 || used_per_tick_us < 0) return 1;
  const double spent_per_tick = used_per_tick_us - quantum;
  if (spent_per_tick <= 0) return most_ticks;
  const double ticks = std::ceil(record.credit / spent_per_tick);
  return ticks >= static_cast<double>(most_ticks) ? most_ticks : std::max<int64_t>(static_cast<int64_t>(ticks), 1);
}

adjustInfo freshAdjustInfo(const pidInfo& record, const Timeval& now) {
  adjustInfo a;
  a.cpu = record.totalCPU;
  a.stopped = record.totalTimeStopped;
  a.update = now;
  return a;
}

std::optional<AdjusterStep> adjusterStep(const pidInfo& record, const adjustInfo& info, const AdjusterSettings& s,
                                         double cpus, const Timeval& now) {
  const int64_t dt = info.update.elapsedUntil(now);
  if (dt <= 0) return std::nullopt;
  const double e = static_cast<double>(checkedAdd(record.totalCPU, -info.cpu)) / static_cast<double>(dt) -
                   record.cpuLimit;
  AdjusterStep out{record.creditQuantum, info};
  double u = e;
  if (s.use_pid) {
    const double sec = static_cast<double>(dt) * 1e-6;
    // The integral only learns from intervals in which the limiter actually held the process.
    if (checkedAdd(record.totalTimeStopped, -info.stopped) > 0)
      out.info.sumOffset = std::clamp(info.sumOffset + sec * e, -cpus, cpus);
    const double d = std::clamp((e - info.prevOffset) / sec, -cpus / sec, cpus / sec);
    u = s.kp * e + s.ki * out.info.sumOffset + s.kd * d;
    out.info.prevOffset = e;
  }
  const double tick_us = static_cast<double>(s.limiter_interval_ms) * 1000.0;
  double q = record.creditQuantum - u * tick_us;
  q = std::min(q, 2.0 * record.cpuLimit * tick_us);
  q = std::max(q, 0.0);
  if (q == 0.0) out.info.sumOffset = 0.0;
  out.creditQuantum = q;
  out.info.cpu = record.totalCPU;
  out.info.stopped = record.totalTimeStopped;
  out.info.update = now;
  return out;
}

}  // namespace pelmora
