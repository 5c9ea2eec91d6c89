#include "helper/cpu_selection.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace pelmora {
namespace {

using CoreKey = std::tuple<int, int, int>;

CoreKey coreOf(const CpuTopologyEntry& e) {
  if (e.core < 0) return {-1, -1, -1 - e.cpu};  // unknown: a core of its own
  return {e.package, e.die, e.core};
}

std::vector<CpuTopologyEntry> sortedByCpu(std::vector<CpuTopologyEntry> cpus) {
  std::sort(cpus.begin(), cpus.end(), [](const auto& a, const auto& b) { return a.cpu < b.cpu; });
  return cpus;
}

}  // namespace

CpuCounts countCpus(const std::vector<CpuTopologyEntry>& cpus) {
  std::set<CoreKey> present, online;
  CpuCounts counts;
  for (const auto& e : cpus) {
    ++counts.logical_present;
    present.insert(coreOf(e));
    if (e.online) {
      ++counts.logical_online;
      online.insert(coreOf(e));
    }
  }
  counts.physical_present = static_cast<int>(present.size());
  counts.physical_online = static_cast<int>(online.size());
  return counts;
}

std::vector<int> chooseOnlineCpus(const std::vector<CpuTopologyEntry>& unsorted, int count, bool hyper,
                                  bool prefer_physical) {
  const auto cpus = sortedByCpu(unsorted);
  std::vector<int> first_threads, siblings;
  std::set<CoreKey> seen;
  for (const auto& e : cpus) {
    (seen.insert(coreOf(e)).second ? first_threads : siblings).push_back(e.cpu);
  }
  std::set<int> chosen;
  for (const auto& e : cpus) {
    if (!e.hotpluggable) chosen.insert(e.cpu);
  }
  std::vector<int> order;
  if (!hyper) {
    order = first_threads;
  } else if (prefer_physical) {
    order = first_threads;
    order.insert(order.end(), siblings.begin(), siblings.end());
  } else {
    for (const auto& e : cpus) order.push_back(e.cpu);
  }
  const size_t wanted = static_cast<size_t>(std::max(count, 1));
  for (int cpu : order) {
    if (chosen.size() >= wanted) break;
    chosen.insert(cpu);
  }
  return {chosen.begin(), chosen.end()};
}

}  // namespace pelmora
