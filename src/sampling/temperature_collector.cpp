#include "sampling/temperature_collector.h"

#include <algorithm>
#include <array>

#include "sampling/hwmon_channels.h"
#include "support/text.h"

namespace pelmora {
namespace {

struct ChipKind {
  std::string_view chip;
  const char* kind;
};

constexpr std::array kChipKinds{
    ChipKind{"coretemp", TemperatureCollector::kCpu},     ChipKind{"k10temp", TemperatureCollector::kCpu},
    ChipKind{"zenpower", TemperatureCollector::kCpu},     ChipKind{"x86_pkg_temp", TemperatureCollector::kCpu},
    ChipKind{"cpu_thermal", TemperatureCollector::kCpu},  ChipKind{"cpu-thermal", TemperatureCollector::kCpu},
    ChipKind{"amdgpu", TemperatureCollector::kGpu},       ChipKind{"radeon", TemperatureCollector::kGpu},
    ChipKind{"nouveau", TemperatureCollector::kGpu},      ChipKind{"nvidia", TemperatureCollector::kGpu},
    ChipKind{"nvme", TemperatureCollector::kDisk},        ChipKind{"drivetemp", TemperatureCollector::kDisk},
};

// Lower is more truly "the package": Intel's package sensor, then AMD's die, then AMD's control
// temperature (Tctl carries a fan-curve offset on some parts), then any other processor sensor.
int packageRank(const temperatureStats& sensor) {
  const std::string& name = sensor.name;
  if (name.find("Package id") != std::string::npos) return 0;
  if (name.find("Tdie") != std::string::npos) return 1;
  if (name.find("Tctl") != std::string::npos) return 2;
  return 3;
}

std::optional<size_t> best(const std::vector<temperatureStats>& sensors, const char* kind,
                           bool (*better)(const temperatureStats&, const temperatureStats&)) {
  std::optional<size_t> found;
  for (size_t i = 0; i < sensors.size(); ++i)
    if (sensors[i].kind == kind && (!found || better(sensors[i], sensors[*found]))) found = i;
  return found;
}

void readHwmon(const SysRoot& root, std::vector<temperatureStats>& sensors, std::vector<std::string>& chips) {
  for (const std::string& hwmon : root.listSys("class/hwmon")) {
    const std::string base = "class/hwmon/" + hwmon + "/";
    const std::string chip = root.readSysTrimmed(base + "name").value_or(hwmon);
    chips.push_back(chip);
    for (int n : HwmonChannels::numbers(root.listSys(base), "temp")) {
      const std::string temp = base + "temp" + std::to_string(n);
      auto input = root.readSysInt(temp + "_input");
      if (!input) continue;  // a sensor that is asleep (a suspended GPU) answers ENODATA
      temperatureStats sensor;
      sensor.name = TemperatureCollector::sensorName(chip, root.readSysTrimmed(temp + "_label"), n);
      sensor.kind = TemperatureCollector::kindOfChip(chip);
      sensor.temp_mC = *input;
      sensor.crit_mC = root.readSysInt(temp + "_crit").value_or(0);
      sensor.max_mC = root.readSysInt(temp + "_max").value_or(0);
      sensors.push_back(std::move(sensor));
    }
  }
}

int64_t criticalTrip_mC(const SysRoot& root, const std::string& zone_base) {
  for (int trip = 0; trip < 32; ++trip) {
    const std::string point = zone_base + "trip_point_" + std::to_string(trip);
    auto type = root.readSysTrimmed(point + "_type");
    if (!type) break;
    if (*type == "critical") return root.readSysInt(point + "_temp").value_or(0);
  }
  return 0;
}

void readThermalZones(const SysRoot& root, const std::vector<std::string>& chips,
                      std::vector<temperatureStats>& sensors) {
  for (const std::string& zone : root.listSys("class/thermal")) {
    if (!startsWith(zone, "thermal_zone")) continue;
    const std::string base = "class/thermal/" + zone + "/";
    auto type = root.readSysTrimmed(base + "type");
    auto temp = root.readSysInt(base + "temp");
    if (!type || !temp || TemperatureCollector::zoneHasHwmon(*type, chips)) continue;
    sensors.push_back(temperatureStats{*type, TemperatureCollector::kindOfChip(*type), *temp,
                                       criticalTrip_mC(root, base), 0});
  }
}

}  // namespace

std::string TemperatureCollector::kindOfChip(std::string_view chip) {
  for (const auto& entry : kChipKinds)
    if (chip == entry.chip) return entry.kind;
  return kOther;
}

std::string TemperatureCollector::sensorName(std::string_view chip, const std::optional<std::string>& label,
                                             int channel) {
  if (label && !label->empty()) return std::string(chip) + " " + *label;
  if (channel <= 1) return std::string(chip);
  return std::string(chip) + " temp" + std::to_string(channel);
}

bool TemperatureCollector::zoneHasHwmon(std::string_view zone_type, const std::vector<std::string>& hwmon_chips) {
  std::string as_chip(zone_type);
  std::replace(as_chip.begin(), as_chip.end(), '-', '_');
  // x86_pkg_temp registers no hwmon chip, but it reads the same package sensor as coretemp.
  if (as_chip == "x86_pkg_temp") as_chip = "coretemp";
  return std::find(hwmon_chips.begin(), hwmon_chips.end(), as_chip) != hwmon_chips.end();
}

std::vector<size_t> TemperatureCollector::defaultChoice(const std::vector<temperatureStats>& sensors) {
  std::vector<size_t> chosen;
  auto hotter = [](const temperatureStats& a, const temperatureStats& b) { return a.temp_mC > b.temp_mC; };
  auto more_package = [](const temperatureStats& a, const temperatureStats& b) {
    return packageRank(a) < packageRank(b);
  };
  if (auto cpu = best(sensors, kCpu, more_package)) chosen.push_back(*cpu);
  if (auto gpu = best(sensors, kGpu, hotter)) chosen.push_back(*gpu);
  if (auto disk = best(sensors, kDisk, hotter)) chosen.push_back(*disk);
  return chosen;
}

std::vector<temperatureStats> TemperatureCollector::read(const SysRoot& root) {
  std::vector<temperatureStats> sensors;
  std::vector<std::string> chips;
  readHwmon(root, sensors, chips);
  readThermalZones(root, chips, sensors);
  return sensors;
}

}  // namespace pelmora
