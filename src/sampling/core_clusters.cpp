#include "sampling/core_clusters.h"

#include <algorithm>

#include "support/text.h"

namespace pelmora {
namespace {

bool contains(const std::vector<int>& list, int cpu) { return std::find(list.begin(), list.end(), cpu) != list.end(); }

std::optional<std::vector<int>> readCpuList(const SysRoot& root, const std::string& relative) {
  auto text = root.readSys(relative);
  if (!text) return std::nullopt;
  return parseCpuList(*text);
}

}  // namespace

std::vector<std::string> CoreClusters::fromHybridLists(const std::vector<int>& cpus, const std::vector<int>& core_cpus,
                                                       const std::vector<int>& atom_cpus) {
  std::vector<std::string> names(cpus.size());
  for (size_t i = 0; i < cpus.size(); ++i) {
    if (contains(core_cpus, cpus[i]))
      names[i] = kPerformance;
    else if (contains(atom_cpus, cpus[i]))
      names[i] = kEfficiency;
  }
  return names;
}

std::vector<std::string> CoreClusters::fromCapacities(const std::vector<std::optional<int64_t>>& capacities) {
  std::vector<std::string> names(capacities.size());
  std::optional<int64_t> largest, smallest;
  for (const auto& c : capacities) {
    if (!c) continue;
    largest = std::max(largest.value_or(*c), *c);
    smallest = std::min(smallest.value_or(*c), *c);
  }
  if (!largest || *largest == *smallest) return names;
  for (size_t i = 0; i < capacities.size(); ++i)
    if (capacities[i]) names[i] = *capacities[i] == *largest ? kPerformance : kEfficiency;
  return names;
}

std::vector<std::string> CoreClusters::read(const SysRoot& root, const std::vector<int>& cpus) {
  auto core = readCpuList(root, "devices/cpu_core/cpus");
  auto atom = readCpuList(root, "devices/cpu_atom/cpus");
  if (core && atom) return fromHybridLists(cpus, *core, *atom);
  std::vector<std::optional<int64_t>> capacities;
  for (int cpu : cpus)
    capacities.push_back(root.readSysInt("devices/system/cpu/cpu" + std::to_string(cpu) + "/cpu_capacity"));
  return fromCapacities(capacities);
}

}  // namespace pelmora
