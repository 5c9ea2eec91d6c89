// The power source: which supplies mean battery, how a change is noticed and announced, the lists
// saved per source that follow it, and the battery figures that must tell the same story.
#include "process_control/power_monitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "common/eventually.h"
#include "common/temp_dir.h"
#include "process_control/proc_settings.h"
#include "sampling/battery_collector.h"
#include "support/broadcast.h"
#include "support/default_settings.h"
#include "support/logger.h"
#include "support/main_queue.h"

namespace fs = std::filesystem;
using namespace pelmora;
using nlohmann::json;

namespace {

// Counts "pelmora.powersource" deliveries on the main run loop for the life of the object.
struct BroadcastCounter {
  BroadcastCounter() {
    RunLoop::main().runUntilIdle();  // nothing from an earlier test may count here
    AddListener(kPowerSourceBroadcast, "test counter", [this](const std::string&) { ++count; });
  }
  ~BroadcastCounter() { RemoveListener(kPowerSourceBroadcast, "test counter"); }
  int deliveredSoFar() {
    RunLoop::main().runUntilIdle();
    return count;
  }
  int count = 0;
};

// A writable copy of a fixture tree, so a test can plug and unplug the charger, and a settings file.
class PowerTree : public ::testing::Test {
 protected:
  SysRoot root() const { return SysRoot("/proc", dir.string()); }
  void set(const std::string& attribute, const std::string& value) {
    std::ofstream(dir / "class/power_supply" / attribute) << value << "\n";
  }
  void plug(bool in) {
    set("AC/online", in ? "1" : "0");
    set("BAT0/status", in ? "Charging" : "Discharging");
  }
  fs::path file() const { return temp / "defaults.json"; }
  // What a fresh reader of the settings file sees.
  json stored(const std::string& key) { return DefaultSettings(file()).loadValue(key).value_or(json()); }
  test::TempDir temp{"pelmora-power"};
  const fs::path dir = temp.copyFixture("power-laptop-mains");
};

// The saved lists over the tree's supplies and settings file.
struct Lists {
  Lists(const fs::path& file, const SysRoot& root) : store(file), monitor(root), settings(store, monitor) {}
  DefaultSettings store;
  PowerMonitor monitor;
  ProcSettings settings;
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

// A change is announced once however many events report it; an unreadable state keeps the last.
TEST_F(PowerTree, AChangeIsAnnouncedExactlyOnce) {
  plug(false);
  BroadcastCounter counter;
  PowerMonitor monitor(root());
  EXPECT_EQ(counter.deliveredSoFar(), 1);  // creation starts at mains, then reads the battery
  EXPECT_EQ(monitor.powerName(), "Battery Power");
  plug(true);
  monitor.update();
  monitor.update();  // a second event for the same change (battery and charger both report)
  EXPECT_EQ(counter.deliveredSoFar(), 2);
  EXPECT_EQ(monitor.powerSource(), PowerSource::mains);
  EXPECT_EQ(monitor.powerName(), "AC Power");
  // Unplugged with the battery taken out: no battery to run on, nothing to announce.
  plug(false);
  set("BAT0/present", "0");
  monitor.update();
  EXPECT_EQ(monitor.powerSource(), PowerSource::mains);
  EXPECT_EQ(counter.deliveredSoFar(), 2);
  set("BAT0/present", "1");
  monitor.update();
  EXPECT_EQ(monitor.powerSource(), PowerSource::battery);
  fs::remove_all(dir / "class");
  monitor.update();
  EXPECT_EQ(monitor.powerSource(), PowerSource::battery);
  EXPECT_EQ(counter.deliveredSoFar(), 3);
}

TEST_F(PowerTree, ThePollNoticesAnUnpluggedCharger) {
  PowerMonitor monitor(root(), {.use_device_monitor = false, .poll_interval_us = 10'000});
  BroadcastCounter counter;
  monitor.startMonitoring();
  EXPECT_TRUE(monitor.monitoring());
  plug(false);
  EXPECT_TRUE(test::runUntil([&] { return counter.count > 0; }));
  monitor.stopMonitoring();
  EXPECT_EQ(counter.deliveredSoFar(), 1);
  EXPECT_EQ(monitor.powerSource(), PowerSource::battery);
  EXPECT_FALSE(monitor.monitoring());
}

// The manual switch flips the source without renaming it, and stops detection; the saved lists
// follow the detected source but not the switch.
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
  Lists l(file(), root());
  plug(false);
  l.monitor.update();
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(l.settings.power(), "Battery Power");
  l.settings.setLimit("yes", "Battery Power", 0.2);
  l.settings.clearLimits();
  EXPECT_EQ(l.settings.limitFor("yes", "Battery Power"), std::nullopt);
  l.monitor.switchSource();
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(l.monitor.powerSource(), PowerSource::mains);
  EXPECT_EQ(l.settings.power(), "Battery Power");
}

TEST_F(PowerTree, SaveOptionsDecideWhatIsWrittenAndRead) {
  struct Case {
    bool save_limited, save_reniced;
  } cases[] = {{true, true}, {true, false}, {false, true}, {false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.save_limited) + std::to_string(c.save_reniced));
    std::ofstream(file()) << json{{"save_limited", c.save_limited}, {"save_reniced", c.save_reniced}}.dump();
    Lists l(file(), root());
    ProcSettings& settings = l.settings;
    settings.setLimit("yes", "AC Power", 0.25);
    settings.setPriority("make", "Battery Power", 10);
    // The in-memory lists change either way.
    EXPECT_EQ(settings.limitFor("yes", "AC Power"), 0.25);
    EXPECT_EQ(settings.priorityFor("make", "Battery Power"), 10);
    const json limited = {{"AC Power", {{"yes", 0.25}}}};
    const json reniced = {{"Battery Power", {{"make", 10}}}};
    EXPECT_EQ(stored("limited"), c.save_limited ? limited : json());
    EXPECT_EQ(stored("reniced"), c.save_reniced ? reniced : json());
    // Lists in the file, of either source, are read back only while their option is on.
    l.store.saveDict("limited", {{"Battery Power", {{"yes", 0.1}}}});
    l.store.saveDict("reniced", reniced);
    ProcSettings again(l.store, l.monitor);
    EXPECT_EQ(again.limitFor("yes", "Battery Power"), c.save_limited ? std::optional(0.1) : std::nullopt);
    EXPECT_EQ(again.priorityFor("make", "Battery Power"), c.save_reniced ? std::optional(10) : std::nullopt);
  }
}

TEST_F(PowerTree, RemovingAndClearingTouchOnlyTheCurrentSource) {
  std::ofstream(file()) << R"({"limited": {"AC Power": {"yes": 0.5, "cc1": 1.5}, "Battery Power": {"yes": 0.1}}})";
  Lists l(file(), root());
  l.settings.removeLimit("yes");
  EXPECT_EQ(stored("limited"), (json{{"AC Power", {{"cc1", 1.5}}}, {"Battery Power", {{"yes", 0.1}}}}));
  l.settings.removeLimit("cc1");  // the last name of a source takes the source's key with it
  EXPECT_EQ(stored("limited"), (json{{"Battery Power", {{"yes", 0.1}}}}));
  l.settings.setLimit("x", "AC Power", 0.3);
  l.settings.clearLimits();
  EXPECT_EQ(stored("limited"), (json{{"Battery Power", {{"yes", 0.1}}}}));
}

TEST(ProcSettingsTables, ConversionKeepsGoodEntriesAndNamesTheBadOnes) {
  struct Case {
    const char* text;
    size_t limits, priorities, rejected;
  } cases[] = {
      {R"({"AC Power": {"a": 0.5, "b": 2}})", 2, 1, 1},   // 0.5 is no whole nice value
      {R"({"AC Power": {"a": -1, "b": 0}})", 0, 2, 2},    // no share at or below zero
      {R"({"AC Power": {"a": 21, "b": -20}})", 1, 1, 2},  // nice stops at 20
      {R"({"AC Power": {"a": true}, "Battery Power": {}})", 0, 0, 2},
      {R"({"AC Power": "x"})", 0, 0, 2},
      {R"([{"AC Power": {"a": 1}}])", 0, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    std::vector<std::string> rejected;
    const json value = json::parse(c.text);
    size_t limits = 0, priorities = 0;
    for (const auto& [power, names] : limitTableFromJson(value, &rejected)) limits += names.size();
    for (const auto& [power, names] : priorityTableFromJson(value, &rejected)) priorities += names.size();
    EXPECT_EQ(limits, c.limits);
    EXPECT_EQ(priorities, c.priorities);
    EXPECT_EQ(rejected.size(), c.rejected);
  }
}

// Malformed saved data: said so in the log, empty lists, replaced at the next save; reloaded over
// lists in memory, a value that is no dictionary at all leaves them be.
TEST_F(PowerTree, MalformedSavedDataGivesEmptyListsAndIsReplacedOnSave) {
  for (const char* text : {R"({"limited": [1, 2], "reniced": "loud"})",
                           R"({"limited": {"AC Power": {"yes": "half"}}, "reniced": {"AC Power": {"make": 99}}})"}) {
    SCOPED_TRACE(text);
    std::ofstream(file()) << text;
    LogCapture log;
    Lists l(file(), root());
    EXPECT_FALSE(log.lines().empty());
    EXPECT_EQ(l.settings.limitFor("yes", "AC Power"), std::nullopt);
    EXPECT_EQ(l.settings.priorityFor("make", "AC Power"), std::nullopt);
    l.settings.setPriority("make", "AC Power", -5);
    EXPECT_EQ(stored("reniced"), (json{{"AC Power", {{"make", -5}}}}));
  }
  Lists l(file(), root());
  l.settings.setLimit("yes", "AC Power", 0.5);
  l.store.saveDict("limited", "garbage");
  l.settings.load();
  EXPECT_EQ(l.settings.limitFor("yes", "AC Power"), 0.5);
  l.store.saveDict("limited", {{"Battery Power", {{"make", 0.25}}}});
  l.settings.load();
  EXPECT_EQ(l.settings.limitFor("yes", "AC Power"), std::nullopt);
  EXPECT_EQ(l.settings.limitFor("make", "Battery Power"), 0.25);
}

}  // namespace
