// Temperatures and batteries: the pure parts by table, then each fixture machine through the
// sampler's own tick.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/fixture_root.h"
#include "sampling/battery_collector.h"
#include "sampling/system_stats.h"
#include "sampling/temperature_collector.h"

using namespace pelmora;
using pelmora::test::fixtureRoot;

namespace {

void expectBatteries(const std::vector<batteryStats>& actual, const std::vector<batteryStats>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < actual.size(); ++i) {
    batteryStats rounded = actual[i];
    EXPECT_NEAR(rounded.health_pct, expected[i].health_pct, 0.01) << rounded.name;
    EXPECT_NEAR(rounded.power_w, expected[i].power_w, 1e-9) << rounded.name;
    rounded.health_pct = expected[i].health_pct;
    rounded.power_w = expected[i].power_w;
    EXPECT_EQ(rounded, expected[i]);
  }
}

BatteryAttributes energy(const char* status, int64_t now, int64_t full, int64_t design, int64_t power) {
  BatteryAttributes a;
  a.status = status;
  a.energy_now_uWh = now;
  a.energy_full_uWh = full;
  a.energy_full_design_uWh = design;
  a.power_now_uW = power;
  return a;
}

BatteryAttributes charge(const char* status, int64_t now, int64_t full, int64_t design, int64_t current,
                         int64_t voltage) {
  BatteryAttributes a;
  a.status = status;
  a.charge_now_uAh = now;
  a.charge_full_uAh = full;
  a.charge_full_design_uAh = design;
  a.current_now_uA = current;
  a.voltage_now_uV = voltage;
  return a;
}

BatteryAttributes withCapacity(BatteryAttributes a, int64_t capacity) {
  a.capacity_pct = capacity;
  return a;
}

TEST(BatteryCollector, FiguresFromWhicheverPairTheDriverPublishes) {
  const struct {
    const char* label;
    BatteryAttributes attributes;
    batteryStats expected;  // name and model stay empty: the caller fills them
  } cases[] = {
      // clang-format off
      // 40 Wh left at 10 W: four hours; 50 of 60 Wh design.
      {"energy discharging", energy("Discharging", 40'000'000, 50'000'000, 60'000'000, 10'000'000),
       {"", "", "discharging", 80.0, 10.0, 4 * 3600, 0, 100.0 * 50 / 60, 0}},
      // 1 Ah short of full at 2 A: half an hour; the rate in watts is current x voltage.
      {"charge charging", charge("Charging", 3'000'000, 4'000'000, 5'000'000, 2'000'000, 12'000'000),
       {"", "", "charging", 75.0, 24.0, 0, 1800, 80.0, 0}},
      // Some firmware signs the discharge current negative.
      {"negative current", charge("Discharging", 1'000'000, 4'000'000, 4'000'000, -500'000, 11'000'000),
       {"", "", "discharging", 25.0, 5.5, 2 * 3600, 0, 100.0, 0}},
      // The driver's own percentage wins over the ratio (they round differently).
      {"capacity published", withCapacity(energy("Full", 49'000'000, 50'000'000, 0, 0), 100),
       {"", "", "full", 100.0, 0.0, 0, 0, 0.0, 0}},
      {"not charging at a threshold", withCapacity(energy("Not charging", 40'000'000, 50'000'000, 50'000'000, 0), 80),
       {"", "", "not charging", 80.0, 0.0, 0, 0, 100.0, 0}},
      {"discharging with no rate yet", energy("Discharging", 40'000'000, 50'000'000, 50'000'000, 0),
       {"", "", "discharging", 80.0, 0.0, 0, 0, 100.0, 0}},
      {"nothing but a status", BatteryAttributes{}, {"", "", "unknown", 0.0, 0.0, 0, 0, 0.0, 0}},
  };  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const batteryStats b = BatteryCollector::figures(c.attributes);
    EXPECT_NEAR(b.health_pct, c.expected.health_pct, 1e-9);
    expectBatteries({b}, {c.expected});
  }
}

// The machines below name the rest: labels, channels, and x86_pkg_temp as coretemp's zone.
TEST(TemperatureNames, AnEmptyLabelNamesTheChannelAndADashedZoneItsChip) {
  EXPECT_EQ(TemperatureCollector::sensorName("nct6798", "", 3), "nct6798 temp3");
  EXPECT_TRUE(TemperatureCollector::zoneHasHwmon("cpu-thermal", {"cpu_thermal"}));
}

TEST(TemperatureChoice, PackageThenHottestGpuThenHottestDisk) {
  auto t = [](const char* name, const char* kind, int64_t mC) { return temperatureStats{name, kind, mC, 0, 0}; };
  const std::vector<temperatureStats> sensors{
      t("k10temp Tccd1", "cpu", 70000), t("nvme Composite", "disk", 40000), t("k10temp Tctl", "cpu", 65000),
      t("amdgpu edge", "gpu", 50000),   t("amdgpu junction", "gpu", 60000), t("nvme Composite", "disk", 45000),
      t("acpitz", "other", 90000)};
  EXPECT_EQ(TemperatureCollector::defaultChoice(sensors), (std::vector<size_t>{2, 4, 5}));
  EXPECT_EQ(TemperatureCollector::defaultChoice({t("coretemp Core 0", "cpu", 1), t("coretemp Package id 0", "cpu", 0)}),
            (std::vector<size_t>{1}));
  EXPECT_TRUE(TemperatureCollector::defaultChoice({t("acpitz", "other", 40000)}).empty());
}

TEST(ThermalMachines, SensorsAndBatteriesThroughTheSampler) {
  const struct {
    const char* label;
    const char* machine;
    std::vector<temperatureStats> temps;
    std::vector<size_t> chosen;
    std::vector<batteryStats> batteries;
    std::vector<batteryStats> devices;
  } cases[] = {
      // clang-format off
      // acpitz and x86_pkg_temp are thermal zones that hwmon already carries; the Wi-Fi zone is not.
      {"laptop", "sampling-laptop",
       {{"acpitz", "other", 45000, 98000, 0},
        {"coretemp Package id 0", "cpu", 52000, 100000, 80000},
        {"coretemp Core 0", "cpu", 50000, 100000, 80000},
        {"coretemp Core 1", "cpu", 53000, 100000, 80000},
        {"nvme Composite", "disk", 38850, 84850, 81850},
        {"nvme Sensor 1", "disk", 40850, 0, 0},
        {"iwlwifi_1", "other", 41000, 0, 0}},
       {1, 5},
       // 33.39 Wh at 9.8 W: 3 h 24 min 26 s; 53 of 57 Wh design.
       {{"BAT0", "5B10W13930", "discharging", 63.0, 9.8, 12266, 0, 92.98, 187}},
       {{"hidpp_battery_0", "MX Master 3", "discharging", 80.0, 0.0, 0, 0, 0.0, 0}}},
      {"desktop", "sampling-desktop",
       {{"k10temp Tctl", "cpu", 61250, 0, 0},
        {"k10temp Tccd1", "cpu", 58500, 0, 0},
        {"amdgpu edge", "gpu", 47000, 100000, 0},
        {"amdgpu junction", "gpu", 52000, 110000, 0},
        {"amdgpu mem", "gpu", 56000, 105000, 0},
        {"nct6798", "other", 36000, 0, 0},
        {"nct6798 temp2", "other", 0, 0, 0}},
       {0, 4},
       {},
       {}},
      {"this vm", "sampling-vm", {}, {}, {}, {}},
  };  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto stats = SystemStats::create(fixtureRoot(c.machine));
    stats->tick();
    const SampleSet sample = stats->snapshot();
    EXPECT_EQ(sample.temp_stats, c.temps);
    EXPECT_EQ(TemperatureCollector::defaultChoice(sample.temp_stats), c.chosen);
    expectBatteries(sample.battery_stats, c.batteries);
    expectBatteries(sample.device_batteries, c.devices);
  }
}

}  // namespace
