// The boot settings text, the hardware-thread check on sysfs trees, the tool's flag parser (which
// must read back every text the settings side writes), and `pelmora -t on|off -n N` as the boot
// service runs it: the real tool against the real daemon (a child on a temporary socket), both on a
// writable copy of a fixture sysfs whose online and throttle files are read back; also the tool
// without a daemon (served in-process as root), its refusal for an ordinary user, and its misuse.
#include "helper_link/boot_flags.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "common/temp_dir.h"
#include "common/words.h"
#include "helper/boot_installer.h"
#include "helper_link/fallback_transport.h"
#include "helper_link/tool_rig.h"
#include "support/text.h"

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

namespace fs = std::filesystem;

using test::DaemonProcess;
using test::runTool;
using test::ToolRun;

// A writable machine: four CPUs (cpu0 without an online file, as on x86; cpu2 and cpu3 offline)
// and one disk with a writeback-throttle file.
struct Machine {
  test::TempDir tree;
  Machine() {
    fs::copy(fs::path(PELMORA_FIXTURES) / "cpu-nosmt-4c", tree / "sys", fs::copy_options::recursive);
    tree.write("sys/block/sda/queue/wbt_lat_usec", "75000\n");
    fs::create_directories(tree / "sys/block/sda/device");
    fs::create_directories(tree / "state");
    // A tool run as another user must reach the socket in here and write its log.
    fs::permissions(tree.path(), fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    fs::permissions(tree / "state", fs::perms::all);
  }
  std::string online() const {
    std::string out;
    for (int cpu = 1; cpu < 4; ++cpu)
      out += std::string(trim(tree.read("sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/online")));
    return out;
  }
  std::string wbt() const { return std::string(trim(tree.read("sys/block/sda/queue/wbt_lat_usec"))); }
  std::vector<std::string> env(const std::string& socket) const {
    return {"PELMORA_SYS_ROOT=" + (tree / "sys").string(), "PELMORA_STATE_DIR=" + (tree / "state").string(),
            "PELMORA_HELPER_SOCKET=" + socket};
  }
};

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// One machine and one daemon for a run of commands, each read back from the machine's files. Root is
// served through the daemon, or in-process without one; an ordinary user is refused, by the daemon
// (no polkit here to grant the authorisation the tool asks for first) or for want of it. Misuse
// sends nothing.
TEST(BootFlagsTool, AppliesThroughTheDaemonOrInProcessForRootOnly) {
  if (::geteuid() != 0) GTEST_SKIP() << "the daemon must run as root to take the tool as an administrator";
  ASSERT_TRUE(fs::exists(test::kTool) && fs::exists(test::kDaemon)) << "build the pelmora and pelmora-helper targets";
  struct Step {
    const char* flags;
    bool daemon;
    uid_t uid;
    int exit_code;
    const char* said;
    const char* online;  // cpu1..cpu3
    const char* wbt;
  };
  const char* usage = "usage: pelmora";
  const char* via_daemon = FallbackTransport::kDaemonLine;
  const std::vector<Step> steps = {
      {"-t on -n 4", true, 0, 0, via_daemon, "111", "-1"},
      {"-t off -n 2", true, 0, 0, via_daemon, "100", "0"},
      {"-n 3", true, 0, 0, via_daemon, "110", "0"},
      {"-t on", true, 0, 0, via_daemon, "110", "-1"},
      {"-n 1", true, 0, 0, via_daemon, "000", "-1"},
      {"-h on -t on", true, 0, 2, usage, "000", "-1"},
      {"-t off -n 4", true, 65534, 1, "pelmora: not authorised", "000", "-1"},
      {"-t off -n 3", false, 0, 0, FallbackTransport::kInProcessLine, "110", "0"},
      {"-t on -n 4", false, 65534, 1, "the privileged helper is not running", "110", "0"},
  };
  Machine machine;
  const std::string socket = (machine.tree / "helper.sock").string();
  DaemonProcess daemon(socket, machine.env(socket));
  ASSERT_TRUE(daemon.ready());
  for (const auto& step : steps) {
    const auto env = machine.env(step.daemon ? socket : (machine.tree / "no.sock").string());
    const ToolRun run = runTool(test::words(step.flags), env, step.uid);
    SCOPED_TRACE(std::string(step.flags) + " as " + std::to_string(step.uid) + "\n" + run.output);
    EXPECT_EQ(run.exit_code, step.exit_code);
    EXPECT_TRUE(contains(run.output, step.said));
    EXPECT_EQ(machine.online(), step.online);
    EXPECT_EQ(machine.wbt(), step.wbt);
  }
}

}  // namespace
}  // namespace pelmora
