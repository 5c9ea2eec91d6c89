// The boot settings text, the hardware-thread check on sysfs trees, and the tool's flag parser
// (which must read back every text the settings side writes).
#include "helper_link/boot_flags.h"

#include <gtest/gtest.h>

#include "common/temp_dir.h"
#include "common/words.h"
#include "helper/boot_installer.h"

namespace pelmora {
namespace {

// Parsed flags written out ("h? p t1 n4": -h unset, -p given, -t on, -n 4), or "misuse".
std::string parsed(const std::string& args) {
  const auto parse = parseBootFlags(test::words(args));
  if (!parse.flags) return parse.error.empty() ? "misuse without a reason" : "misuse";
  const auto flag = [](const char* name, std::optional<int> v) { return name + (v ? std::to_string(*v) : "?"); };
  const BootFlags& f = *parse.flags;
  return flag("h", f.hyper_threading) + (f.prefer_physical ? " p " : " ") + flag("t", f.throttle) + " " +
         flag("n", f.cpu_count);
}

TEST(BootSettingsText, FlagsInOrderHyperOnlyWithHardwareThreadsAndReadBack) {
  struct Case {
    BootControls controls;
    bool threads;
    const char* text;
    const char* read_back;
  };
  const Case cases[] = {
      {{true, true, false, 6}, true, "-h on -p -t off -n 6", "h1 p t0 n6"},
      {{false, false, true, 2}, true, "-h off -t on -n 2", "h0 t1 n2"},
      {{true, false, true, 8}, false, "-t on -n 8", "h? t1 n8"},
      {{false, true, false, 1}, false, "-p -t off -n 1", "h? p t0 n1"},
      {{true, true, true, 9999}, true, "-h on -p -t on -n 9999", "h1 p t1 n9999"},
  };
  for (const auto& c : cases) {
    const std::string text = bootSettingsText(c.controls, c.threads);
    EXPECT_EQ(text, c.text);
    EXPECT_TRUE(validBootSettings(text)) << text << ": the daemon would refuse it";
    EXPECT_EQ(parsed(text), c.read_back);  // the tool reads back every text the settings side writes
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
  const std::pair<const char*, const char*> cases[] = {
      {"-t on -n 4", "h? t1 n4"},
      {"-n 4 -t off", "h? t0 n4"},
      {"-t off", "h? t0 n?"},
      {"-n 1", "h? t? n1"},
      {"-h off -p -t on -n 12", "h0 p t1 n12"},
      {"-t on -t off", "h? t0 n?"},  // the last one wins
      {"", "misuse"},
      {"-t", "misuse"},
      {"-t yes", "misuse"},
      {"-n 0", "misuse"},
      {"-n -3", "misuse"},
      {"-n 10000", "misuse"},
      {"-n 4x", "misuse"},
      {"-h on", "misuse"},  // which processors? needs -n
      {"-p -t on", "misuse"},
      {"-x", "misuse"},
      {"-t on extra", "misuse"},
  };
  for (const auto& [args, expected] : cases) EXPECT_EQ(parsed(args), expected) << args;
}

}  // namespace
}  // namespace pelmora
