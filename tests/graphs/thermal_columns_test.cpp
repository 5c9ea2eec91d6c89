#include "graphs/thermal_columns.h"

#include <gtest/gtest.h>

using namespace pelmora;

namespace {

temperatureStats sensor(const char* name, const char* kind, int64_t mC, int64_t crit_mC = 0) {
  return temperatureStats{name, kind, mC, crit_mC, 0};
}

TEST(TemperatureColumns, OneValuePerRoleAgainstAScaleAboveEveryCriticalMark) {
  const std::vector<std::vector<temperatureStats>> history{
      {sensor("coretemp Package id 0", "cpu", 50000, 100000), sensor("acpitz", "other", 99000)},
      {sensor("coretemp Package id 0", "cpu", 55000, 100000), sensor("nvme Composite", "disk", 44000, 84850),
       sensor("acpitz", "other", 99000)}};
  const auto t = temperatureColumns(history, 100);
  // The hottest value or limit is 100 °C, exactly a step: one more step keeps the mark inside the view.
  EXPECT_DOUBLE_EQ(t.scale_C, 110.0);
  ASSERT_EQ(t.columns.size(), 2u);
  EXPECT_EQ(t.columns[0], (temperature_column{{50 / 110.0, 0.0, 0.0}}));
  EXPECT_EQ(t.columns[1], (temperature_column{{55 / 110.0, 0.0, 44 / 110.0}}));
  EXPECT_EQ(t.names, (std::array<std::string, 3>{"coretemp Package id 0", "", "nvme Composite"}));
  EXPECT_EQ(t.crit_C, (std::array<double, 3>{100.0, 0.0, 84.85}));
  EXPECT_TRUE(t.present(TemperatureRole::disk));
  EXPECT_FALSE(t.present(TemperatureRole::gpu));
}

TEST(TemperatureColumns, NothingToDrawWithoutAChosenSensor) {
  for (const auto& history : std::vector<std::vector<std::vector<temperatureStats>>>{
           {}, {{}}, {{sensor("acpitz", "other", 45000)}}}) {
    const auto t = temperatureColumns(history, 100);
    EXPECT_EQ(t.scale_C, 0.0);
    EXPECT_TRUE(t.columns.empty());
  }
  // Only the samples the view has columns for count towards the scale: one, at no width.
  const std::vector<std::vector<temperatureStats>> history{{sensor("k10temp Tctl", "cpu", 95000)},
                                                           {sensor("k10temp Tctl", "cpu", 41000)}};
  EXPECT_DOUBLE_EQ(temperatureColumns(history, 0).scale_C, 50.0);
}

TEST(TemperatureColumns, AUsersChoiceFillsTheLinesInItsOrder) {
  const std::vector<temperatureStats> laptop{
      sensor("coretemp Package id 0", "cpu", 60000), sensor("coretemp Core 0", "cpu", 58000),
      sensor("acpitz", "other", 50000), sensor("nvme Composite", "disk", 40000)};
  using Names = std::array<std::string, 3>;
  const struct {
    const char* what;
    std::vector<std::string> choice;
    Names drawn;
  } cases[] = {
      {"no choice: the package and the disk in their roles' lines", {}, {"coretemp Package id 0", "", "nvme Composite"}},
      {"one sensor of a kind drawn by no default", {"acpitz"}, {"acpitz", "", ""}},
      {"the order chosen, not the kinds", {"nvme Composite", "coretemp Core 0"}, {"nvme Composite", "coretemp Core 0", ""}},
      {"an empty line keeps the next one's colour", {"", "acpitz"}, {"", "acpitz", ""}},
      {"a sensor the machine lost leaves its line empty", {"amdgpu edge", "acpitz"}, {"", "acpitz", ""}},
      {"none of the chosen sensors here: the default", {"amdgpu edge"}, {"coretemp Package id 0", "", "nvme Composite"}},
      {"three lines at most", {"acpitz", "coretemp Core 0", "nvme Composite", "coretemp Package id 0"},
       {"acpitz", "coretemp Core 0", "nvme Composite"}},
  };
  for (const auto& c : cases) {
    const auto t = temperatureColumns({laptop}, 100, c.choice);
    EXPECT_EQ(t.names, c.drawn) << c.what;
    ASSERT_EQ(t.columns.size(), 1u) << c.what;
    for (size_t line = 0; line < 3; ++line)
      EXPECT_EQ(t.columns[0].value[line] > 0, !c.drawn[line].empty()) << c.what << " line " << line;
  }
}

TEST(BatteryColumns, ChargeOfAFullBatteryAndRateOfThePeak) {
  batteryStats a, b, c;
  a.charge_pct = 80, a.power_w = 10;
  b.charge_pct = 79, b.power_w = 5;
  c.charge_pct = 104;  // some firmware overshoots while calibrating
  const auto columns = batteryColumns({a, b, c}, 100);
  EXPECT_DOUBLE_EQ(columns.peak_rate_w, 10.0);
  EXPECT_EQ(columns.columns, (std::vector<battery_column>{{0.8, 1.0}, {0.79, 0.5}, {1.0, 0.0}}));
  EXPECT_TRUE(batteryColumns({}, 100).columns.empty());
}

}  // namespace
