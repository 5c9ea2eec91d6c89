// The boot settings text, the hardware-thread check on sysfs trees, and the tool's flag parser
// (which must read back every text the settings side writes).
#include "helper_link/boot_flags.h"

#include <gtest/gtest.h>

#include "common/temp_dir.h"
#include "common/words.h"
#include "helper/boot_installer.h"

namespace pelmora {
namespace {

TEST(BootSettingsText, FlagsInOrderHyperOnlyWithHardwareThreadsAndReadBack) {
  struct Case {
    BootControls controls;
    bool threads;
    const char* text;
  };
  const std::vector<Case> cases = {
      {{true, true, false, 6}, true, "-h on -p -t off -n 6"},
      {{false, false, true, 2}, true, "-h off -t on -n 2"},
      {{true, false, true, 8}, false, "-t on -n 8"},
      {{false, true, false, 1}, false, "-p -t off -n 1"},
      {{true, true, true, 9999}, true, "-h on -p -t on -n 9999"},
  };
  for (const auto& c : cases) {
    const std::string text = bootSettingsText(c.controls, c.threads);
    EXPECT_EQ(text, c.text);
    EXPECT_TRUE(validBootSettings(text)) << text << ": the daemon would refuse it";
    // The tool reads back every text the settings side writes.
    const auto parsed = parseBootFlags(test::words(text));
    ASSERT_TRUE(parsed.flags) << parsed.error;
    const BootControls& want = c.controls;
    EXPECT_EQ(parsed.flags->cpu_count, want.cpu_count);
    EXPECT_EQ(parsed.flags->throttle, want.throttle);
    EXPECT_EQ(parsed.flags->prefer_physical, want.prefer_physical);
    EXPECT_EQ(parsed.flags->hyper_threading, c.threads ? std::optional(want.hyper_threading) : std::nullopt);
  }
}

TEST(HardwareThreads, FromThreadSiblingsLists) {
  const std::string fixtures = PELMORA_FIXTURES;
  EXPECT_TRUE(hasHardwareThreads(SysRoot("/nonexistent", fixtures + "/cpu-smt-4c8t")));
  EXPECT_FALSE(hasHardwareThreads(SysRoot("/nonexistent", fixtures + "/cpu-nosmt-4c")));
  EXPECT_FALSE(hasHardwareThreads(SysRoot("/nonexistent", fixtures + "/no-such-machine")));
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> lists;  // cpu directory -> thread_siblings_list
    bool expected;
  };
  const std::vector<Case> cases = {
      {"range form", {{"cpu0", "0-1"}}, true},
      // Only a late cpu has siblings; the entries that are not CPUs must not count.
      {"late core", {{"cpu0", "0"}, {"cpufreq", "0-7"}, {"cpu11", "10-11"}}, true},
      {"only a non-cpu entry", {{"cpuidle", "0-7"}}, false},
      {"garbage", {{"cpu0", "zero"}}, false},
  };
  for (const auto& c : cases) {
    test::TempDir tree;
    for (const auto& [dir, list] : c.lists) tree.write("devices/system/cpu/" + dir + "/topology/thread_siblings_list", list + "\n");
    EXPECT_EQ(hasHardwareThreads(SysRoot("/nonexistent", tree.path())), c.expected) << c.name;
  }
}

TEST(BootFlagsParser, AcceptsAndRejects) {
  struct Case {
    const char* args;
    bool ok;
    std::optional<bool> hyper;
    bool prefer;
    std::optional<bool> throttle;
    std::optional<int> count;
  };
  const std::vector<Case> cases = {
      {"-t on -n 4", true, {}, false, true, 4},
      {"-n 4 -t off", true, {}, false, false, 4},
      {"-t off", true, {}, false, false, {}},
      {"-n 1", true, {}, false, {}, 1},
      {"-h off -p -t on -n 12", true, false, true, true, 12},
      {"-t on -t off", true, {}, false, false, {}},  // the last one wins
      {"", false, {}, false, {}, {}},
      {"-t", false, {}, false, {}, {}},
      {"-t yes", false, {}, false, {}, {}},
      {"-n 0", false, {}, false, {}, {}},
      {"-n -3", false, {}, false, {}, {}},
      {"-n 10000", false, {}, false, {}, {}},
      {"-n 4x", false, {}, false, {}, {}},
      {"-h on", false, {}, false, {}, {}},  // which processors? needs -n
      {"-p -t on", false, {}, false, {}, {}},
      {"-x", false, {}, false, {}, {}},
      {"-t on extra", false, {}, false, {}, {}},
  };
  for (const auto& c : cases) {
    const auto parsed = parseBootFlags(test::words(c.args));
    ASSERT_EQ(parsed.flags.has_value(), c.ok) << c.args << ": " << parsed.error;
    if (!c.ok) {
      EXPECT_FALSE(parsed.error.empty()) << c.args;
      continue;
    }
    EXPECT_EQ(parsed.flags->hyper_threading, c.hyper) << c.args;
    EXPECT_EQ(parsed.flags->prefer_physical, c.prefer) << c.args;
    EXPECT_EQ(parsed.flags->throttle, c.throttle) << c.args;
    EXPECT_EQ(parsed.flags->cpu_count, c.count) << c.args;
  }
}

}  // namespace
}  // namespace pelmora
