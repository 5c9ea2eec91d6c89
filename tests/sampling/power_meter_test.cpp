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

// A counter this process may not read (a root-only file; as root in this test, a directory stands
// in for it) is asked of the energy source, which is the helper in the program.
TEST_F(LaptopPower, ACounterWeMayNotReadComesFromTheEnergySource) {
  remove("class/powercap/intel-rapl:0/energy_uj");
  std::filesystem::create_directory(m_dir / "sys/class/powercap/intel-rapl:0/energy_uj");
  EXPECT_TRUE(RaplZones::read(root()).denied);
  PowerMeter meter;
  EXPECT_EQ(meter.read_w(root(), 1'000'000), 8.0);  // without a source: the next one, hwmon
  uint64_t energy_uj = 1'000'000;
  meter.setEnergySource([&]() -> std::optional<std::vector<RaplReading>> {
    return std::vector<RaplReading>{{"intel-rapl:0", energy_uj, 262'143'328'850}};
  });
  EXPECT_EQ(meter.read_w(root(), 2'000'000), 0.0);
  energy_uj += 3'000'000;
  EXPECT_EQ(meter.read_w(root(), 3'000'000), 3.0);
  // The helper could not read them either: the next source again.
  meter.setEnergySource([] { return std::optional<std::vector<RaplReading>>(); });
  EXPECT_EQ(meter.read_w(root(), 4'000'000), 8.0);
}

TEST_F(LaptopPower, RaplIsPreferredAndMeasuredAcrossItsWrap) {
  PowerMeter meter;
  EXPECT_EQ(meter.read_w(root(), 1'000'000), 0.0);  // first reading only primes the meter
  // 262143000000 -> wraps at 262143328850 -> 19671150: 20 J in two seconds.
  write("class/powercap/intel-rapl:0/energy_uj", "19671150\n");
  EXPECT_DOUBLE_EQ(meter.read_w(root(), 3'000'000).value_or(-1), 10.0);
}

TEST_F(LaptopPower, EachMissingSourceGivesWayToTheNext) {
  const struct {
    const char* label;
    std::vector<std::string> removed;
    std::optional<double> expected_w;  // none: no power sensor
  } cases[] = {
      // energy_uj is root-only since 5.10: a zone we cannot read does not count.
      {"no rapl counter then hwmon", {"class/powercap/intel-rapl:0/energy_uj"}, 8.0},
      {"no hwmon power then battery", {"class/powercap", "class/hwmon/hwmon2"}, 9.8},  // current x voltage
      {"nothing at all", {"class/powercap", "class/hwmon", "class/power_supply"}, std::nullopt},
  };
  for (const auto& c : cases) {  // each row takes away at least what the one before did
    for (const auto& path : c.removed) remove(path);
    expectWatts(PowerMeter().read_w(root(), 1'000'000), c.expected_w, c.label);
  }
}

}  // namespace
