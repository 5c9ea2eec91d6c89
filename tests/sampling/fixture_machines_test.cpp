// Each fixture machine, and an empty tree, sampled end to end through the sampler's own tick; and the
// pure parts of temperatures and batteries by table.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "common/fixture_root.h"
#include "sampling/battery_collector.h"
#include "sampling/gpu_collector.h"
#include "sampling/system_stats.h"
#include "sampling/temperature_collector.h"
#include "support/main_queue.h"

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
  const std::vector<temperatureStats> sensors{t("k10temp Tccd1", "cpu", 70000),   t("nvme Composite", "disk", 40000),
                                              t("k10temp Tctl", "cpu", 65000),    t("amdgpu edge", "gpu", 50000),
                                              t("amdgpu junction", "gpu", 60000), t("nvme Composite", "disk", 45000),
                                              t("acpitz", "other", 90000)};
  EXPECT_EQ(TemperatureCollector::defaultChoice(sensors), (std::vector<size_t>{2, 4, 5}));
  EXPECT_EQ(TemperatureCollector::defaultChoice({t("coretemp Core 0", "cpu", 1), t("coretemp Package id 0", "cpu", 0)}),
            (std::vector<size_t>{1}));
  EXPECT_TRUE(TemperatureCollector::defaultChoice({t("acpitz", "other", 40000)}).empty());
}

struct DiskExpectation {
  std::string bsdname;
  std::string name;
};

TEST(FixtureMachines, EachMachineThroughTheSamplersTick) {
  const struct {
    const char* label;
    const char* machine;
    size_t cpus;
    std::vector<size_t> offline;         // processors whose sample must be all zero
    std::array<uint64_t, 3> cpu1_ticks;  // system (with irq and softirq), user (with nice), idle (with iowait)
    size_t performance, efficiency;
    std::array<int64_t, 4> mem_kb;  // free, active, inactive, wired
    std::vector<DiskExpectation> disks;
    ioStats io;  // all disks together
    std::vector<std::string> interfaces;
    std::vector<graphicsCard> gpus;
    std::vector<fanStats> fans;
    bool power_sensor;
    std::vector<temperatureStats> temps;
    std::vector<size_t> chosen;  // the default choice among them
    std::vector<batteryStats> batteries, devices;
  } cases[] = {
      // clang-format off
      {"this vm", "sampling-vm", 2, {}, {1817, 19667, 46597}, 0, 0, {22594032, 459896, 1401064, 45148}, {{"vda", ""}},
       {}, {"eth0"}, {}, {}, false, {}, {}, {}, {}},
      // The NVMe drive has 4096-byte logical blocks; its stat file still counts 512-byte sectors. acpitz
      // and x86_pkg_temp are thermal zones that hwmon already carries; the Wi-Fi zone is not.
      {"laptop", "sampling-laptop", 8, {}, {515, 1012, 9052}, 0, 0, {8000000, 3000000, 2000000, 120000},
       {{"nvme0n1", "SAMSUNG MZVLB512HAJQ-000L7"}},
       {9000000LL * 512, 6400000LL * 512, 120000, 80000}, {"enp2s0f0", "wlp3s0"},
       {GpuCollector::makeCard("AMD GPU 1002:1636", 7, 536870912, 134217728)},
       {fanStats{false, 2415, 0, 0}, fanStats{true, 3100, 5500, 1200}}, true,
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
      {"hybrid 8P 8E with smt", "sampling-hybrid", 24, {7}, {515, 1012, 9052}, 16, 8,
       {50000000, 6000000, 4000000, 240000},
       {{"sda", "ATA Samsung SSD 870"}}, {}, {"eno1", "wlo1"}, {},
       {fanStats{false, 850, 0, 0}, fanStats{false, 0, 0, 0}, fanStats{false, 1200, 0, 0}}, true,
       {{"coretemp", "cpu", 38000, 0, 0}}, {0}, {}, {}},
      // nvme0c0n1 is the hidden path below nvme0n1; counting it would double the NVMe traffic.
      {"nvme multipath host", "sampling-nvme", 4, {}, {515, 1012, 9052}, 0, 0, {4000000, 2000000, 1000000, 38000},
       {{"sda", "Msft Virtual Disk"}, {"sdb", "Virtual Disk"}, {"nvme0n1", "INTEL SSDPE2KX010T8"}, {"nvme1n1", "Micron 7450"}},
       {43827200, 88064000, 1510, 2720}, {"ens3", "ens4"}, {}, {}, false, {}, {}, {}, {}},
      {"desktop sensors alone", "sampling-desktop", 0, {}, {}, 0, 0, {}, {}, {}, {}, {},
       {fanStats{false, 1100, 0, 0}, fanStats{false, 780, 0, 0}}, false,
       {{"k10temp Tctl", "cpu", 61250, 0, 0},
        {"k10temp Tccd1", "cpu", 58500, 0, 0},
        {"amdgpu edge", "gpu", 47000, 100000, 0},
        {"amdgpu junction", "gpu", 52000, 110000, 0},
        {"amdgpu mem", "gpu", 56000, 105000, 0},
        {"nct6798", "other", 36000, 0, 0},
        {"nct6798 temp2", "other", 0, 0, 0}},
       {0, 4}, {}, {}},
      {"an empty tree", nullptr, 0, {}, {}, 0, 0, {}, {}, {}, {}, {}, {}, false, {}, {}, {}, {}},
  };  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    FakeClock clock;
    auto stats = SystemStats::create(c.machine ? fixtureRoot(c.machine) : SysRoot("/nonexistent", "/nonexistent"));
    clock.advance_us(2'500'000);
    stats->tick();
    EXPECT_EQ(stats->sampleTime().microseconds(), clock.now_us());  // each tick stamps its sample
    RunLoop::main().runUntilIdle();
    const SampleSet sample = stats->snapshot();
    ASSERT_EQ(sample.cpu_stats.size(), c.cpus);
    for (size_t i = 0; i < c.cpus; ++i) {
      const bool offline = std::count(c.offline.begin(), c.offline.end(), i) > 0;
      const auto& s = sample.cpu_stats[i];
      EXPECT_EQ(offline, s.totalIdleTime == 0 && s.totalUserTime == 0 && s.totalSystemTime == 0) << "cpu " << i;
      EXPECT_EQ(s.frequency, 0.0);
    }
    // Steal belongs to other guests of the host, and the kernel already counts guest time in user.
    const uint64_t tick_ns = 1'000'000'000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    if (c.cpus > 1) {
      const auto [system, user, idle] = c.cpu1_ticks;
      EXPECT_EQ(sample.cpu_stats[1], (cpu_sample_t{system * tick_ns, user * tick_ns, idle * tick_ns, 0.0}));
    }
    const auto& types = stats->cpuTypes();
    ASSERT_EQ(types.size(), c.cpus);
    EXPECT_EQ(static_cast<size_t>(std::count(types.begin(), types.end(), "Performance")), c.performance);
    EXPECT_EQ(static_cast<size_t>(std::count(types.begin(), types.end(), "Efficiency")), c.efficiency);
    const auto pages = [&](int64_t kb) { return kb * 1024 / stats->pageSize(); };
    EXPECT_EQ(sample.mem_stats,
              (memoryStats{pages(c.mem_kb[0]), pages(c.mem_kb[1]), pages(c.mem_kb[2]), pages(c.mem_kb[3])}));
    ASSERT_EQ(sample.dsk_stats.size(), c.disks.size());
    ioStats total;
    for (size_t i = 0; i < c.disks.size(); ++i) {
      const auto& disk = sample.dsk_stats[i];
      EXPECT_EQ(disk.diskno, static_cast<int64_t>(i));
      EXPECT_EQ(disk.bsdname, c.disks[i].bsdname);
      EXPECT_EQ(disk.name, c.disks[i].name);
      total.bytes_read += disk.stats.bytes_read;
      total.bytes_write += disk.stats.bytes_write;
      total.count_read += disk.stats.count_read;
      total.count_write += disk.stats.count_write;
    }
    EXPECT_EQ(sample.io_stats, total);
    if (c.io != ioStats{}) {
      EXPECT_EQ(sample.io_stats, c.io);
    }
    std::vector<std::string> names;
    for (const auto& intf : sample.net_stats) names.push_back(intf.intf);
    EXPECT_EQ(names, c.interfaces);
    EXPECT_EQ(sample.gfx_cards, c.gpus);
    EXPECT_EQ(sample.fan_stats, c.fans);
    // Filled later by the programs (process census) and by the power meter.
    EXPECT_EQ(sample.proc_stats, procstat{});
    EXPECT_EQ(sample.power_stats.cpu, 0.0);
    EXPECT_EQ(sample.power_stats.gpu, 0.0);
    EXPECT_EQ(sample.power_stats.sensor, c.power_sensor);
    EXPECT_TRUE(c.power_sensor || sample.power_stats.total == 0.0) << "a figure without a sensor";
    EXPECT_EQ(sample.temp_stats, c.temps);
    EXPECT_EQ(TemperatureCollector::defaultChoice(sample.temp_stats), c.chosen);
    expectBatteries(sample.battery_stats, c.batteries);
    expectBatteries(sample.device_batteries, c.devices);
  }
}

}  // namespace
