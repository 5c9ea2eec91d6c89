#pragma once
// Batteries from /sys/class/power_supply. The machine's own (the same rule the power-source switch
// uses) are listed apart from peripherals' batteries (scope "Device"). The kernel reports a battery
// either in energy (µWh, with power in µW) or in charge (µAh, with current in µA); the figures come
// from whichever pair the driver publishes.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sampling/sample_records.h"
#include "support/sys_root.h"

namespace pelmora {

// The attributes of one battery as the kernel publishes them; none where absent.
struct BatteryAttributes {
  std::string status;  // "Discharging", "Charging", "Full", "Not charging", "Unknown"
  std::optional<int64_t> capacity_pct;
  std::optional<int64_t> energy_now_uWh, energy_full_uWh, energy_full_design_uWh, power_now_uW;
  std::optional<int64_t> charge_now_uAh, charge_full_uAh, charge_full_design_uAh, current_now_uA;
  std::optional<int64_t> voltage_now_uV;
  std::optional<int64_t> cycle_count;
};

struct BatteryLists {
  std::vector<batteryStats> system;
  std::vector<batteryStats> devices;
};

struct BatteryCollector {
  // Watts flowing in or out: power_now, else current x voltage. Some firmware signs the discharge
  // negative, so the magnitude counts. None when the driver gives neither.
  static std::optional<double> rate_w(std::optional<int64_t> power_now_uW, std::optional<int64_t> current_now_uA,
                                      std::optional<int64_t> voltage_now_uV);
  // The record of one battery from its attributes (name and model are the caller's). Pure.
  static batteryStats figures(const BatteryAttributes& attributes);
  static BatteryAttributes readAttributes(const SysRoot& root, const std::string& supply_dir);
  static BatteryLists read(const SysRoot& root);
};

}  // namespace pelmora
