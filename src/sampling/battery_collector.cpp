#include "sampling/battery_collector.h"

#include <algorithm>
#include <cmath>

#include "support/power_supply_rules.h"
#include "support/text.h"

namespace pelmora {
namespace {

constexpr double kMicro = 1e-6;
constexpr double kSecondsPerHour = 3600.0;

double magnitude(int64_t value) { return std::fabs(static_cast<double>(value)); }

std::optional<double> ratio(std::optional<int64_t> part, std::optional<int64_t> whole) {
  if (!part || !whole || *whole <= 0) return std::nullopt;
  return static_cast<double>(*part) / static_cast<double>(*whole);
}

// Hours until `remaining` is used up at `rate` (µWh over µW, or µAh over µA), in whole seconds.
int64_t hoursToSeconds(std::optional<int64_t> remaining, std::optional<int64_t> rate) {
  if (!remaining || !rate || *rate == 0 || *remaining < 0) return 0;
  return std::llround(static_cast<double>(*remaining) / magnitude(*rate) * kSecondsPerHour);
}

std::optional<int64_t> shortfall(std::optional<int64_t> full, std::optional<int64_t> now) {
  if (!full || !now) return std::nullopt;
  return *full - *now;
}

}  // namespace

std::optional<double> BatteryCollector::rate_w(std::optional<int64_t> power_now_uW,
                                               std::optional<int64_t> current_now_uA,
                                               std::optional<int64_t> voltage_now_uV) {
  if (power_now_uW) return magnitude(*power_now_uW) * kMicro;
  if (current_now_uA && voltage_now_uV) return magnitude(*current_now_uA) * kMicro * magnitude(*voltage_now_uV) * kMicro;
  return std::nullopt;
}

batteryStats BatteryCollector::figures(const BatteryAttributes& a) {
  batteryStats b;
  b.status = a.status.empty() ? "unknown" : toLower(a.status);
  const bool by_energy = a.energy_now_uWh.has_value();
  if (a.capacity_pct)
    b.charge_pct = static_cast<double>(*a.capacity_pct);
  else if (auto fraction = by_energy ? ratio(a.energy_now_uWh, a.energy_full_uWh) : ratio(a.charge_now_uAh, a.charge_full_uAh))
    b.charge_pct = 100.0 * *fraction;
  b.power_w = rate_w(a.power_now_uW, a.current_now_uA, a.voltage_now_uV).value_or(0.0);
  // Energy over power where the driver counts energy, charge over current where it counts charge.
  const auto now = by_energy ? a.energy_now_uWh : a.charge_now_uAh;
  const auto full = by_energy ? a.energy_full_uWh : a.charge_full_uAh;
  const auto rate = by_energy ? a.power_now_uW : a.current_now_uA;
  if (b.status == "discharging") b.time_to_empty_s = hoursToSeconds(now, rate);
  if (b.status == "charging") b.time_to_full_s = hoursToSeconds(shortfall(full, now), rate);
  const auto health = by_energy ? ratio(a.energy_full_uWh, a.energy_full_design_uWh)
                                : ratio(a.charge_full_uAh, a.charge_full_design_uAh);
  b.health_pct = 100.0 * health.value_or(0.0);
  b.cycle_count = std::max<int64_t>(0, a.cycle_count.value_or(0));
  return b;
}

BatteryAttributes BatteryCollector::readAttributes(const SysRoot& root, const std::string& dir) {
  auto get = [&](const char* name) { return root.readSysInt(dir + name); };
  BatteryAttributes a;
  a.status = root.readSysTrimmed(dir + "status").value_or("");
  a.capacity_pct = get("capacity");
  a.energy_now_uWh = get("energy_now");
  a.energy_full_uWh = get("energy_full");
  a.energy_full_design_uWh = get("energy_full_design");
  a.power_now_uW = get("power_now");
  a.charge_now_uAh = get("charge_now");
  a.charge_full_uAh = get("charge_full");
  a.charge_full_design_uAh = get("charge_full_design");
  a.current_now_uA = get("current_now");
  a.voltage_now_uV = get("voltage_now");
  a.cycle_count = get("cycle_count");
  return a;
}

BatteryLists BatteryCollector::read(const SysRoot& root) {
  BatteryLists lists;
  for (const std::string& supply : root.listSys("class/power_supply")) {
    const std::string dir = "class/power_supply/" + supply + "/";
    const std::string type = root.readSysTrimmed(dir + "type").value_or("");
    const auto present = root.readSysInt(dir + "present");
    if (type != "Battery" || present == 0) continue;  // an empty bay
    batteryStats battery = figures(readAttributes(root, dir));
    battery.name = supply;
    battery.model = root.readSysTrimmed(dir + "model_name").value_or("");
    const std::string scope = root.readSysTrimmed(dir + "scope").value_or("");
    auto& list = PowerSupplyRules::isSystemBattery(type, scope, present) ? lists.system : lists.devices;
    list.push_back(std::move(battery));
  }
  return lists;
}

}  // namespace pelmora
