#include "sampling/cpu_collector.h"

#include <unistd.h>

#include "support/text.h"

namespace pelmora {
namespace {

uint64_t scale(uint64_t ticks, CpuCollector::Timebase timebase) {
  if (timebase.denom == 0) return 0;
  return ticks * timebase.numer / timebase.denom;
}

}  // namespace

CpuCollector::Timebase CpuCollector::hostTimebase() {
  const long hz = sysconf(_SC_CLK_TCK);
  constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;
  return Timebase{hz > 0 ? kNanosecondsPerSecond / static_cast<uint64_t>(hz) : 0, 1};
}

cpu_sample_t CpuCollector::sampleFromTicks(const cpu_ticks& ticks, Timebase timebase) {
  cpu_sample_t sample;
  sample.totalUserTime = scale(ticks.user + ticks.nice, timebase);
  sample.totalSystemTime = scale(ticks.system + ticks.irq + ticks.softirq, timebase);
  sample.totalIdleTime = scale(ticks.idle + ticks.iowait, timebase);
  return sample;
}

std::vector<cpu_sample_t> CpuCollector::samples(const std::vector<int>& present, const ProcStat& stat,
                                                Timebase timebase) {
  std::vector<cpu_sample_t> out(present.size());
  for (size_t i = 0; i < present.size(); ++i) {
    auto it = stat.cpus.find(present[i]);
    if (it != stat.cpus.end()) out[i] = sampleFromTicks(it->second, timebase);
  }
  return out;
}

std::vector<int> CpuCollector::presentCpus(const SysRoot& root, const ProcStat* stat) {
  if (auto text = root.readSys("devices/system/cpu/present")) {
    if (auto cpus = parseCpuList(*text); cpus && !cpus->empty()) return *cpus;
  }
  std::vector<int> cpus;
  if (stat)
    for (const auto& [cpu, ticks] : stat->cpus) cpus.push_back(cpu);
  return cpus;
}

std::vector<cpu_sample_t> CpuCollector::read(const SysRoot& root, Timebase timebase) {
  auto text = root.readProc("stat");
  if (!text) return {};
  auto stat = ProcStat::parse(*text);
  if (!stat) return {};
  return samples(presentCpus(root, &*stat), *stat, timebase);
}

}  // namespace pelmora
