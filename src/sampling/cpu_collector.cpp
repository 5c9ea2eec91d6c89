#include "sampling/cpu_collector.h"

#include "support/text.h"

namespace pelmora {
namespace {

uint64_t scale(uint64_t ticks, CpuCollector::Timebase timebase) {
  if (timebase.denom == 0) return 0;
  return ticks * timebase.numer / timebase.denom;
}

}  // namespace

CpuCollector::Timebase CpuCollector::hostTimebase() { return Timebase{nanosecondsPerTick(), 1}; }

cpu_sample_t CpuCollector::sampleFromTicks(const cpu_ticks& ticks, Timebase timebase) {
  const cpu_buckets buckets = bucketTicks(ticks);
  cpu_sample_t sample;
  sample.totalUserTime = scale(buckets.user, timebase);
  sample.totalSystemTime = scale(buckets.system, timebase);
  sample.totalIdleTime = scale(buckets.idle, timebase);
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
