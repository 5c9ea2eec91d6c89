// `pelmora -t on|off -n N` as the boot service runs it: the real tool against the real daemon (a
// child on a temporary socket), both on a writable copy of a fixture sysfs whose online and
// throttle files are read back. Also the tool without a daemon (served in-process as root), its
// refusal for an ordinary user, and its misuse.
#include <gtest/gtest.h>
#include <unistd.h>

#include "common/temp_dir.h"
#include "common/words.h"
#include "helper_link/fallback_transport.h"
#include "helper_link/tool_rig.h"
#include "support/text.h"

namespace pelmora {
namespace {

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
      {"-n 0", true, 0, 2, usage, "000", "-1"},
      {"-t sideways", true, 0, 2, usage, "000", "-1"},
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
