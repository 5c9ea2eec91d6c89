#include "sampling/power_meter.h"

#include <cmath>

#include "sampling/battery_collector.h"
#include "support/text.h"

namespace pelmora {
namespace {

constexpr double kMicro = 1e-6;

}  // namespace

uint64_t PowerMeter::energyDelta_uj(uint64_t previous_uj, uint64_t current_uj, uint64_t max_range_uj) {
  if (current_uj >= previous_uj) return current_uj - previous_uj;
  if (max_range_uj == 0 || previous_uj > max_range_uj) return 0;
  return (max_range_uj - previous_uj) + current_uj;
}

std::optional<double> PowerMeter::batteryPower_w(std::string_view status, std::optional<int64_t> power_now_uw,
                                                 std::optional<int64_t> current_now_ua,
                                                 std::optional<int64_t> voltage_now_uv) {
  if (trim(status) != "Discharging") return std::nullopt;
  return BatteryCollector::rate_w(power_now_uw, current_now_ua, voltage_now_uv);
}

std::optional<double> PowerMeter::raplWatts(const std::vector<RaplReading>& readings, int64_t now_us) {
  std::map<std::string, uint64_t> current;
  for (const auto& r : readings) current[r.zone] = r.energy_uj;
  const bool comparable = !m_previous_uj.empty() && current.size() == m_previous_uj.size() && now_us > m_previous_us;
  std::optional<double> watts;
  if (comparable) {
    uint64_t total_uj = 0;
    bool same_zones = true;
    for (const auto& r : readings) {
      auto it = m_previous_uj.find(r.zone);
      if (it == m_previous_uj.end()) {
        same_zones = false;
        break;
      }
      total_uj += energyDelta_uj(it->second, r.energy_uj, r.max_energy_range_uj);
    }
    // Microjoules per microsecond are watts.
    if (same_zones) watts = static_cast<double>(total_uj) / static_cast<double>(now_us - m_previous_us);
  }
  m_previous_uj = std::move(current);
  m_previous_us = now_us;
  return watts;
}

std::vector<RaplReading> PowerMeter::readRapl(const SysRoot& root) const {
  RaplZones zones = RaplZones::read(root);
  if (!zones.denied || !m_energy_source) return std::move(zones.readings);
  return m_energy_source().value_or(std::vector<RaplReading>{});
}

std::optional<double> PowerMeter::readHwmon_w(const SysRoot& root) {
  for (const std::string& hwmon : root.listSys("class/hwmon")) {
    const std::string base = "class/hwmon/" + hwmon + "/";
    auto uw = root.readSysInt(base + "power1_average");
    if (!uw) uw = root.readSysInt(base + "power1_input");
    if (uw && *uw >= 0) return static_cast<double>(*uw) * kMicro;
  }
  return std::nullopt;
}

std::optional<double> PowerMeter::readBattery_w(const SysRoot& root) {
  // The batteries and rates the battery figures show, so the two never disagree; a wireless mouse's
  // battery (scope "Device") is not among them.
  for (const auto& battery : BatteryCollector::read(root).system)
    if (battery.status == "discharging" && battery.power_w > 0) return battery.power_w;
  return std::nullopt;
}

std::optional<double> PowerMeter::read_w(const SysRoot& root, int64_t now_us) {
  const auto rapl = readRapl(root);
  if (!rapl.empty()) return raplWatts(rapl, now_us).value_or(0.0);
  m_previous_uj.clear();
  if (auto watts = readHwmon_w(root)) return watts;
  return readBattery_w(root);
}

}  // namespace pelmora
