#include "sampling/power_meter.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "common/temp_dir.h"

using namespace pelmora;

namespace {

// Watts from products of micro-units, compared to the nano-watt.
void expectWatts(std::optional<double> got, std::optional<double> expected, const char* label) {
  ASSERT_EQ(got.has_value(), expected.has_value()) << label;
  if (got) {
    EXPECT_NEAR(*got, *expected, 1e-9) << label;
  }
}

TEST(PowerMeter, RaplWattsAreEnergyOverTimeSummedOverPackages) {
  PowerMeter meter;
  const uint64_t range = 1'000'000'000;
  EXPECT_EQ(meter.raplWatts({{"intel-rapl:0", 1000, range}, {"intel-rapl:1", 50, range}}, 1'000'000), std::nullopt);
  // One second later: 3 J and 2 J.
  EXPECT_DOUBLE_EQ(*meter.raplWatts({{"intel-rapl:0", 3'001'000, range}, {"intel-rapl:1", 2'000'050, range}}, 2'000'000), 5.0);
  // Half a second later, package 0 wrapped after using 1 J in total.
  EXPECT_DOUBLE_EQ(*meter.raplWatts({{"intel-rapl:0", 1000, range}, {"intel-rapl:1", 2'000'050, range}}, 2'500'000),
                   (range - 3'001'000 + 1000) / 500'000.0);
  // No time passed: nothing to divide by.
  EXPECT_EQ(meter.raplWatts({{"intel-rapl:0", 2000, range}, {"intel-rapl:1", 2'000'050, range}}, 2'500'000), std::nullopt);
  // A counter beyond its range, or one without a range, gives no energy rather than a wrapped guess.
  EXPECT_EQ(PowerMeter::energyDelta_uj(2000, 100, 1000), 0u);
  EXPECT_EQ(PowerMeter::energyDelta_uj(900, 100, 0), 0u);
  // A package that appeared restarts the measurement rather than mixing sets.
  EXPECT_EQ(meter.raplWatts({{"intel-rapl:0", 3000, range}, {"intel-rapl:2", 7, range}}, 3'000'000), std::nullopt);
  EXPECT_DOUBLE_EQ(*meter.raplWatts({{"intel-rapl:0", 1'003'000, range}, {"intel-rapl:2", 7, range}}, 4'000'000), 1.0);
}

// The rate itself is the battery figures' (current x voltage, either sign): here when it counts.
TEST(PowerMeter, BatteryPowerWhileDischarging) {
  const struct {
    const char* label;
    const char* status;
    std::optional<int64_t> power_uw, current_ua, voltage_uv;
    std::optional<double> expected_w;
  } cases[] = {
      {"power now", "Discharging\n", 12'500'000, std::nullopt, std::nullopt, 12.5},
      {"power wins over current", "Discharging", 7'000'000, 1'500'000, 11'000'000, 7.0},
      {"charging", "Charging", 12'500'000, std::nullopt, std::nullopt, std::nullopt},
      {"full", "Full", 0, std::nullopt, std::nullopt, std::nullopt},
      {"no readings", "Discharging", std::nullopt, 1'500'000, std::nullopt, std::nullopt},
  };
  for (const auto& c : cases)
    expectWatts(PowerMeter::batteryPower_w(c.status, c.power_uw, c.current_ua, c.voltage_uv), c.expected_w, c.label);
}

TEST(PowerMeter, OnlyTopLevelRaplZonesArePackages) {
  EXPECT_TRUE(RaplZones::isPackageZone("intel-rapl:0"));
  EXPECT_TRUE(RaplZones::isPackageZone("intel-rapl:1"));
  for (const char* zone : {"intel-rapl:0:0", "intel-rapl-mmio:0", "intel-rapl", "intel-rapl:", "dtpm"})
    EXPECT_FALSE(RaplZones::isPackageZone(zone)) << zone;
}

// The laptop fixture copied so a test can move the energy counter and take sources away.
class LaptopPower : public ::testing::Test {
 protected:
  SysRoot root() const { return SysRoot((m_dir / "proc").string(), (m_dir / "sys").string()); }
  void write(const std::string& relative, const std::string& text) { std::ofstream(m_dir / "sys" / relative) << text; }
  void remove(const std::string& relative) { std::filesystem::remove_all(m_dir / "sys" / relative); }

  pelmora::test::TempDir m_temp{"pelmora-power"};
  const std::filesystem::path m_dir = m_temp.copyFixture("sampling-laptop");
};

// One meter while the laptop's sources change underneath it. RAPL comes first (its first reading
// only primes the meter); a counter this process may not read (a root-only file since 5.10; as root
// here, a directory stands in for it) is asked of the energy source, which is the helper in the
// program; a zone without a counter, or one neither can read, gives way to hwmon, then the battery.
TEST_F(LaptopPower, EachSourceGivesWayToTheNext) {
  const std::string counter = "class/powercap/intel-rapl:0/energy_uj";
  PowerMeter meter;
  std::optional<uint64_t> helper_uj = 1'000'000;  // what the energy source reads; none: it cannot either
  const auto source = [&]() -> std::optional<std::vector<RaplReading>> {
    if (!helper_uj) return std::nullopt;
    return std::vector<RaplReading>{{"intel-rapl:0", *helper_uj, 262'143'328'850}};
  };
  const struct {
    const char* what;
    std::vector<std::string> removed;  // before the step's action
    std::function<void()> act;
    std::optional<double> expected_w;  // none: no power sensor
  } steps[] = {
      {"RAPL's first reading primes", {}, [] {}, 0.0},
      // 262143000000 -> wraps at 262143328850 -> 19671150: 20 J in a second.
      {"RAPL across its wrap", {}, [&] { write(counter, "19671150\n"); }, 20.0},
      {"a counter we may not read, without a source: hwmon",
       {counter},
       [&] { std::filesystem::create_directory(m_dir / "sys" / counter); },
       8.0},
      {"asked of the source, which primes", {}, [&] { meter.setEnergySource(source); }, 0.0},
      {"and measures", {}, [&] { *helper_uj += 3'000'000; }, 3.0},
      {"the source cannot read it either: hwmon", {}, [&] { helper_uj.reset(); }, 8.0},
      {"a zone without a counter is not asked of the source", {counter}, [&] { helper_uj = 0; }, 8.0},
      {"then the battery's current x voltage", {"class/powercap", "class/hwmon/hwmon2"}, [] {}, 9.8},
      {"nothing at all", {"class/hwmon", "class/power_supply"}, [] {}, std::nullopt},
  };
  int64_t now_us = 0;
  for (const auto& step : steps) {
    for (const auto& path : step.removed) remove(path);
    step.act();
    now_us += 1'000'000;
    expectWatts(meter.read_w(root(), now_us), step.expected_w, step.what);
  }
}

}  // namespace
