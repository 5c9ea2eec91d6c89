#pragma once
// Whole-system power in watts, from the best source the machine has:
//  1. RAPL (/sys/class/powercap/intel-rapl:N, the top-level package zones): energy counters in
//     microjoules, so power is the energy used since the previous tick over the time between them.
//     The counter wraps at max_energy_range_uj. Since 5.10 energy_uj is readable only by root: the
//     meter then takes the readings from its energy source (the helper's "energy" request).
//  2. hwmon power1_average or power1_input (microwatts), the first sensor that has one.
//  3. A discharging system battery's power_now, or current_now x voltage_now.
// RAPL needs the previous reading, so the meter keeps that state between ticks; it belongs to the
// sampler and is used only under the sampler's lock.
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/rapl_zones.h"
#include "support/sys_root.h"

namespace pelmora {

class PowerMeter {
 public:
  // The RAPL readings as root sees them; none when they cannot be had. Called on the sampler's
  // thread with its lock held.
  using EnergySource = std::function<std::optional<std::vector<RaplReading>>()>;

  // Energy used between two readings of one counter that wraps back to 0 after max_range_uj.
  // A reading beyond the range (a counter we misread) gives 0 rather than a huge spike.
  static uint64_t energyDelta_uj(uint64_t previous_uj, uint64_t current_uj, uint64_t max_range_uj);
  // Watts from a battery's attributes (µW, µA, µV); none unless it is discharging.
  static std::optional<double> batteryPower_w(std::string_view status, std::optional<int64_t> power_now_uw,
                                              std::optional<int64_t> current_now_ua,
                                              std::optional<int64_t> voltage_now_uv);

  // Folds in one set of RAPL readings taken at now_us. None on the first set, when the set of zones
  // changed, or when no time passed: there is nothing to divide yet.
  std::optional<double> raplWatts(const std::vector<RaplReading>& readings, int64_t now_us);

  // One tick: the watts of the best source; none when the machine has none (or none readable).
  // The first RAPL reading only primes the meter and gives 0.
  std::optional<double> read_w(const SysRoot& root, int64_t now_us);
  void setEnergySource(EnergySource source) { m_energy_source = std::move(source); }

 private:
  std::vector<RaplReading> readRapl(const SysRoot& root) const;
  static std::optional<double> readHwmon_w(const SysRoot& root);
  static std::optional<double> readBattery_w(const SysRoot& root);

  EnergySource m_energy_source;
  std::map<std::string, uint64_t> m_previous_uj;
  int64_t m_previous_us = 0;
};

}  // namespace pelmora
