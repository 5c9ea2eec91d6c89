#include "process_control/proc_settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/temp_dir.h"
#include "process_control/power_monitor.h"
#include "support/broadcast.h"
#include "support/default_settings.h"
#include "support/logger.h"
#include "support/main_queue.h"

namespace fs = std::filesystem;
using namespace pelmora;
using nlohmann::json;

namespace {

class ProcSettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::copy(std::string(PELMORA_FIXTURES) + "/power-laptop-mains", dir / "sys", fs::copy_options::recursive);
    RunLoop::main().runUntilIdle();
  }
  fs::path file() const { return dir / "defaults.json"; }
  void write(const std::string& text) { std::ofstream(file()) << text; }
  // What a fresh reader of the file sees.
  json stored(const std::string& key) {
    DefaultSettings again(file());
    return again.loadValue(key).value_or(json());
  }
  SysRoot root() const { return SysRoot("/proc", (dir / "sys").string()); }
  void unplug() {
    std::ofstream(dir / "sys/class/power_supply/AC/online") << "0\n";
    std::ofstream(dir / "sys/class/power_supply/BAT0/status") << "Discharging\n";
  }
  test::TempDir temp{"pelmora-procsettings"};
  const fs::path& dir = temp.path();
};

TEST_F(ProcSettingsTest, SaveOptionsDecideWhatIsWrittenAndRead) {
  struct Case {
    bool save_limited, save_reniced;
  } cases[] = {{true, true}, {true, false}, {false, true}, {false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.save_limited) + std::to_string(c.save_reniced));
    fs::remove(file());
    DefaultSettings store(file());
    store.saveBool("save_limited", c.save_limited);
    store.saveBool("save_reniced", c.save_reniced);
    PowerMonitor monitor(root());
    ProcSettings settings(store, monitor);
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
    store.saveDict("limited", {{"Battery Power", {{"yes", 0.1}}}});
    store.saveDict("reniced", reniced);
    ProcSettings again(store, monitor);
    EXPECT_EQ(again.limitFor("yes", "Battery Power"), c.save_limited ? std::optional(0.1) : std::nullopt);
    EXPECT_EQ(again.priorityFor("make", "Battery Power"), c.save_reniced ? std::optional(10) : std::nullopt);
  }
}

TEST_F(ProcSettingsTest, RemovingAndClearingTouchOnlyTheCurrentSource) {
  write(R"({"limited": {"AC Power": {"yes": 0.5, "cc1": 1.5}, "Battery Power": {"yes": 0.1}}})");
  DefaultSettings store(file());
  PowerMonitor monitor(root());
  ProcSettings settings(store, monitor);
  settings.removeLimit("yes");
  EXPECT_EQ(stored("limited"), (json{{"AC Power", {{"cc1", 1.5}}}, {"Battery Power", {{"yes", 0.1}}}}));
  settings.removeLimit("cc1");  // the last name of a source takes the source's key with it
  EXPECT_EQ(stored("limited"), (json{{"Battery Power", {{"yes", 0.1}}}}));
  settings.setLimit("x", "AC Power", 0.3);
  settings.clearLimits();
  EXPECT_EQ(stored("limited"), (json{{"Battery Power", {{"yes", 0.1}}}}));
}

TEST_F(ProcSettingsTest, MalformedSavedDataGivesEmptyListsAndIsReplacedOnSave) {
  const char* texts[] = {
      R"({"limited": [1, 2], "reniced": "loud"})",
      R"({"limited": {"AC Power": 3}, "reniced": {"AC Power": [1]}})",
      R"({"limited": {"AC Power": {"yes": "half"}}, "reniced": {"AC Power": {"make": 99}}})",
      R"({"limited": null, "reniced": {"AC Power": {"make": 2.5}}})",
  };
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    write(text);
    DefaultSettings store(file());
    PowerMonitor monitor(root());
    LogCapture log;
    ProcSettings settings(store, monitor);
    EXPECT_FALSE(log.lines().empty());  // the user's data was dropped: say so
    EXPECT_EQ(settings.limitFor("yes", "AC Power"), std::nullopt);
    EXPECT_EQ(settings.priorityFor("make", "AC Power"), std::nullopt);
    settings.setPriority("make", "AC Power", -5);
    EXPECT_EQ(stored("reniced"), (json{{"AC Power", {{"make", -5}}}}));
  }
}

TEST(ProcSettingsTables, ConversionKeepsGoodEntriesAndNamesTheBadOnes) {
  struct Case {
    const char* text;
    size_t limits, priorities, rejected;
  } cases[] = {
      {R"({"AC Power": {"a": 0.5, "b": 2}})", 2, 1, 1},    // 0.5 is no whole nice value
      {R"({"AC Power": {"a": -1, "b": 0}})", 0, 2, 2},      // no share at or below zero
      {R"({"AC Power": {"a": 21, "b": -20}})", 1, 1, 2},    // nice stops at 20
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

TEST_F(ProcSettingsTest, ReloadingMalformedDataKeepsWhatIsInMemory) {
  DefaultSettings store(file());
  PowerMonitor monitor(root());
  ProcSettings settings(store, monitor);
  settings.setLimit("yes", "AC Power", 0.5);
  store.saveDict("limited", "garbage");
  settings.load();
  EXPECT_EQ(settings.limitFor("yes", "AC Power"), 0.5);
  store.saveDict("limited", {{"Battery Power", {{"make", 0.25}}}});
  settings.load();
  EXPECT_EQ(settings.limitFor("yes", "AC Power"), std::nullopt);
  EXPECT_EQ(settings.limitFor("make", "Battery Power"), 0.25);
}

TEST_F(ProcSettingsTest, FollowsTheDetectedSourceButNotTheManualSwitch) {
  DefaultSettings store(file());
  PowerMonitor monitor(root());
  ProcSettings settings(store, monitor);
  unplug();
  monitor.update();
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(settings.power(), "Battery Power");
  settings.setLimit("yes", settings.power(), 0.2);
  settings.clearLimits();
  EXPECT_EQ(settings.limitFor("yes", "Battery Power"), std::nullopt);

  monitor.switchSource();
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(monitor.powerSource(), PowerSource::mains);
  EXPECT_EQ(settings.power(), "Battery Power");
}

}  // namespace
