#pragma once
// Temperatures from hwmon: every tempN_input of every sensor chip, named by the chip and the
// channel's label, with tempN_crit and tempN_max where the driver has them. A thermal zone is added
// only where no hwmon chip already carries it: most zones register a hwmon chip of their own
// (acpitz), and x86_pkg_temp repeats coretemp's package sensor.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sampling/sample_records.h"
#include "support/sys_root.h"

namespace pelmora {

struct TemperatureCollector {
  static constexpr const char* kCpu = "cpu";
  static constexpr const char* kGpu = "gpu";
  static constexpr const char* kDisk = "disk";
  static constexpr const char* kOther = "other";

  // What a chip (or a thermal zone type) measures: kCpu, kGpu, kDisk or kOther.
  static std::string kindOfChip(std::string_view chip);
  // "coretemp" + "Package id 0" -> "coretemp Package id 0"; an unlabelled first channel is the chip
  // alone ("acpitz"), later unlabelled ones "acpitz temp2".
  static std::string sensorName(std::string_view chip, const std::optional<std::string>& label, int channel);
  // A thermal zone's hwmon chip carries the zone's type with '-' turned into '_'.
  static bool zoneHasHwmon(std::string_view zone_type, const std::vector<std::string>& hwmon_chips);

  // The sensors a graph shows unless told otherwise: the processor package, the hottest GPU and the
  // hottest disk; each where the machine has one, in that order. Indexes into `sensors`.
  static std::vector<size_t> defaultChoice(const std::vector<temperatureStats>& sensors);

  static std::vector<temperatureStats> read(const SysRoot& root);
};

}  // namespace pelmora
