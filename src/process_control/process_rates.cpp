#include "process_control/process_rates.h"

#include <algorithm>

namespace pelmora {
namespace {

double perSecond(uint64_t now, uint64_t before, double seconds) {
  return now >= before ? static_cast<double>(now - before) / seconds : 0.0;
}

}  // namespace

void updateProcessRates(procinfo& row, const procinfo& old, const Timeval& now, int64_t refresh_interval_ms) {
  const int64_t dt = old.update.elapsedUntil(now);
  if (dt < 1) return;
  const double dt_us = static_cast<double>(dt);
  row.pctCPU = static_cast<double>(std::max<int64_t>(0, row.totalCPU - old.totalCPU)) / dt_us;
  row.pctWaiting = static_cast<double>(std::max<int64_t>(0, row.totalTimeStopped - old.totalTimeStopped)) / dt_us;
  const double s = dt_us * 1e-6;
  row.idleWakeupsPerSec = perSecond(row.totalIdleWakeups, old.totalIdleWakeups, s);
  const double tau_s = static_cast<double>(refresh_interval_ms) * 0.1 * 0.001;
  row.readPerSec.update(perSecond(row.totalBytesRead, old.totalBytesRead, s), tau_s, s);
  row.writePerSec.update(perSecond(row.totalBytesWrite, old.totalBytesWrite, s), tau_s, s);
}

void clearProcessRates(procinfo& row) {
  row.pctCPU = row.pctWaiting = row.idleWakeupsPerSec = row.energyImpact = 0;
  row.readPerSec = row.writePerSec = WeightedStats{};
}

}  // namespace pelmora
