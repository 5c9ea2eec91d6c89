// The power-source switch and the battery figures read the same supplies: on every fixture machine
// they must tell the same story.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "process_control/power_monitor.h"
#include "sampling/battery_collector.h"

using namespace pelmora;

namespace {

TEST(PowerSourceAndBattery, TellTheSameStoryOnEveryFixtureMachine) {
  const struct {
    const char* tree;  // below tests/fixtures
    const char* power_name;
    std::vector<std::string> system_statuses;  // the machine's batteries, as the figures show them
    size_t device_batteries;
  } cases[] = {
      {"power-desktop", kACPowerName, {}, 0},
      {"power-desktop-mouse", kACPowerName, {}, 1},
      {"power-laptop-battery", kBatteryPowerName, {"discharging"}, 0},
      {"power-laptop-mains", kACPowerName, {"charging"}, 0},
      {"power-laptop-mouse", kACPowerName, {"full"}, 1},
      // Plugged into a USB-C charger that cannot keep up: still on external power.
      {"power-usbc", kACPowerName, {"discharging"}, 0},
      {"sampling-laptop/sys", kBatteryPowerName, {"discharging"}, 1},
      {"sampling-desktop/sys", kACPowerName, {}, 0},
      {"sampling-vm/sys", kACPowerName, {}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tree);
    const SysRoot root(std::string(PELMORA_FIXTURES) + "/proc", std::string(PELMORA_FIXTURES) + "/" + c.tree);
    PowerMonitor monitor(root, PowerMonitor::Options{false, 5'000'000});
    const BatteryLists batteries = BatteryCollector::read(root);
    EXPECT_EQ(monitor.powerName(), c.power_name);
    std::vector<std::string> statuses;
    for (const auto& battery : batteries.system) statuses.push_back(battery.status);
    EXPECT_EQ(statuses, c.system_statuses);
    EXPECT_EQ(batteries.devices.size(), c.device_batteries);
    // On battery power, some battery of the machine is discharging: never a mouse's alone.
    if (monitor.powerSource() == PowerSource::battery) {
      EXPECT_NE(std::find(statuses.begin(), statuses.end(), "discharging"), statuses.end());
    }
  }
}

}  // namespace
