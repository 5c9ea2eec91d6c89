#pragma once
// Which core cluster each logical processor belongs to: "Performance", "Efficiency" or "" where the
// machine does not say. Intel hybrid parts publish the CPUs of each core type as separate PMUs
// (/sys/devices/cpu_core/cpus, /sys/devices/cpu_atom/cpus); big.LITTLE ARM parts give the big cores
// a larger cpu_capacity. A machine whose cores are all alike gets empty names.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/sys_root.h"

namespace pelmora {

struct CoreClusters {
  static constexpr const char* kPerformance = "Performance";
  static constexpr const char* kEfficiency = "Efficiency";

  // One name per processor in `cpus` from the two hybrid lists.
  static std::vector<std::string> fromHybridLists(const std::vector<int>& cpus, const std::vector<int>& core_cpus,
                                                  const std::vector<int>& atom_cpus);
  // One name per entry: the largest capacity is Performance, smaller ones Efficiency, unknown ones
  // empty; all empty when the known capacities do not differ.
  static std::vector<std::string> fromCapacities(const std::vector<std::optional<int64_t>>& capacities);
  static std::vector<std::string> read(const SysRoot& root, const std::vector<int>& cpus);
};

}  // namespace pelmora
