#include "process_control/power_monitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "common/temp_dir.h"
#include "support/broadcast.h"
#include "support/main_queue.h"

namespace fs = std::filesystem;
using namespace pelmora;

namespace {

// Counts "pelmora.powersource" deliveries on the main run loop for the life of the object.
struct BroadcastCounter {
  explicit BroadcastCounter(bool quit_on_delivery = false) {
    RunLoop::main().runUntilIdle();  // nothing from an earlier test may count here
    AddListener(kPowerSourceBroadcast, "test counter", [this, quit_on_delivery](const std::string&) {
      ++count;
      if (quit_on_delivery) RunLoop::main().quit();
    });
  }
  ~BroadcastCounter() { RemoveListener(kPowerSourceBroadcast, "test counter"); }
  int deliveredSoFar() {
    RunLoop::main().runUntilIdle();
    return count;
  }
  int count = 0;
};

// A writable copy of a fixture tree, so a test can plug and unplug the charger.
class PowerTree : public ::testing::Test {
 protected:
  SysRoot root() const { return SysRoot("/proc", dir.string()); }
  void set(const std::string& attribute, const std::string& value) {
    std::ofstream(dir / "class/power_supply" / attribute) << value << "\n";
  }
  void unplug() {
    set("AC/online", "0");
    set("BAT0/status", "Discharging");
  }
  void plugIn() {
    set("AC/online", "1");
    set("BAT0/status", "Charging");
  }
  test::TempDir temp{"pelmora-power"};
  const fs::path dir = temp.copyFixture("power-laptop-mains");
};

TEST(ProvidingPowerType, OnlyADischargingSystemBatteryWithoutExternalPowerIsBattery) {
  using S = PowerSupplyInfo;
  const S bat{"BAT0", "Battery", std::nullopt, 1, "Discharging", ""};
  struct Case {
    const char* what;
    std::vector<S> supplies;
    const char* expected;
  } cases[] = {
      {"nothing at all", {}, "AC Power"},
      {"battery alone", {bat}, "Battery Power"},
      {"mains online", {{"AC", "Mains", 1, {}, "", ""}, bat}, "AC Power"},
      {"mains offline", {{"AC", "Mains", 0, {}, "", ""}, bat}, "Battery Power"},
      {"mains without online file", {{"AC", "Mains", {}, {}, "", ""}, bat}, "Battery Power"},
      {"usb online", {{"usb", "USB", 1, {}, "", ""}, bat}, "AC Power"},
      {"old kernel's USB_PD online", {{"pd", "USB_PD", 1, {}, "", ""}, bat}, "AC Power"},
      {"battery charging", {{"BAT0", "Battery", {}, 1, "Charging", ""}}, "AC Power"},
      {"battery not charging", {{"BAT0", "Battery", {}, 1, "Not charging", ""}}, "AC Power"},
      {"battery full", {{"BAT0", "Battery", {}, 1, "Full", ""}}, "AC Power"},
      {"empty bay", {{"BAT0", "Battery", {}, 0, "Discharging", ""}}, "AC Power"},
      {"scope System", {{"BAT0", "Battery", {}, 1, "Discharging", "System"}}, "Battery Power"},
      {"scope Unknown", {{"BAT0", "Battery", {}, 1, "Discharging", "Unknown"}}, "Battery Power"},
      {"scope Device", {{"kbd", "Battery", {}, 1, "Discharging", "Device"}}, "AC Power"},
      {"mouse and a charging laptop", {{"m", "Battery", 1, 1, "Discharging", "Device"},
                                       {"BAT0", "Battery", {}, 1, "Charging", ""}}, "AC Power"},
      {"a UPS is not the battery", {{"ups", "UPS", 0, 1, "Discharging", ""}}, "AC Power"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(providingPowerType(c.supplies), c.expected);
  }
}

TEST_F(PowerTree, AChangeIsAnnouncedExactlyOnce) {
  BroadcastCounter counter;
  PowerMonitor monitor(root());
  EXPECT_EQ(monitor.powerSource(), PowerSource::mains);
  monitor.update();
  EXPECT_EQ(counter.deliveredSoFar(), 0);

  unplug();
  monitor.update();
  monitor.update();  // a second event for the same change (battery and charger both report)
  EXPECT_EQ(counter.deliveredSoFar(), 1);
  EXPECT_EQ(monitor.powerSource(), PowerSource::battery);
  EXPECT_EQ(monitor.powerName(), "Battery Power");

  plugIn();
  monitor.update();
  EXPECT_EQ(counter.deliveredSoFar(), 2);
  EXPECT_EQ(monitor.powerName(), "AC Power");
  // Unplugged with the battery taken out: no battery to run on, nothing to announce.
  unplug();
  set("BAT0/present", "0");
  monitor.update();
  EXPECT_EQ(monitor.powerSource(), PowerSource::mains);
  EXPECT_EQ(counter.deliveredSoFar(), 2);
}

TEST_F(PowerTree, AnUnreadableStateKeepsThePreviousOne) {
  unplug();
  BroadcastCounter counter;
  PowerMonitor monitor(root());
  EXPECT_EQ(counter.deliveredSoFar(), 1);  // creation starts at mains, then reads the battery
  fs::remove_all(dir / "class");
  monitor.update();
  EXPECT_EQ(monitor.powerSource(), PowerSource::battery);
  EXPECT_EQ(counter.deliveredSoFar(), 1);
}

TEST_F(PowerTree, ThePollNoticesAnUnpluggedCharger) {
  PowerMonitor monitor(root(), {.use_device_monitor = false, .poll_interval_us = 10'000});
  BroadcastCounter counter(/*quit_on_delivery=*/true);
  monitor.startMonitoring();
  EXPECT_TRUE(monitor.monitoring());
  unplug();
  RunLoop::main().runFor(std::chrono::seconds(20));  // returns at the first delivery
  monitor.stopMonitoring();
  EXPECT_EQ(counter.deliveredSoFar(), 1);
  EXPECT_EQ(monitor.powerSource(), PowerSource::battery);
  EXPECT_FALSE(monitor.monitoring());
}

TEST_F(PowerTree, TheSwitchFlipsTheSourceKeepsTheNameAndStopsMonitoring) {
  for (bool device_monitor : {true, false}) {
    SCOPED_TRACE(device_monitor ? "device monitor" : "poll");
    PowerMonitor monitor(root(), {.use_device_monitor = device_monitor, .poll_interval_us = 5'000'000});
    BroadcastCounter counter;
    monitor.startMonitoring();
    monitor.switchSource();
    EXPECT_FALSE(monitor.monitoring());
    EXPECT_EQ(monitor.powerSource(), PowerSource::battery);
    EXPECT_EQ(monitor.powerName(), "AC Power");
    EXPECT_EQ(counter.deliveredSoFar(), 1);

    monitor.switchSource();
    EXPECT_EQ(monitor.powerSource(), PowerSource::mains);
    EXPECT_EQ(counter.deliveredSoFar(), 2);
    // Detection resumes only when started again: the real state (mains) is re-read then.
    monitor.switchSource();
    monitor.update();
    EXPECT_EQ(monitor.powerSource(), PowerSource::mains);
    EXPECT_EQ(counter.deliveredSoFar(), 4);
  }
}

}  // namespace
