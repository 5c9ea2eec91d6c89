// `pelmora -t on|off -n N` as the boot service runs it: the real tool against the real daemon (a
// child on a temporary socket), both on a writable copy of a fixture sysfs whose online and
// throttle files are read back. Also the tool without a daemon (served in-process as root), its
// refusal for an ordinary user, and its misuse.
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>

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

TEST(BootFlagsTool, AppliesThroughTheDaemon) {
  if (::geteuid() != 0) GTEST_SKIP() << "the daemon must run as root to take the tool as an administrator";
  ASSERT_TRUE(fs::exists(test::kTool) && fs::exists(test::kDaemon)) << "build the pelmora and pelmora-helper targets";
  struct Step {
    const char* flags;
    int exit_code;
    const char* online;  // cpu1..cpu3
    const char* wbt;
  };
  const std::vector<Step> steps = {
      {"-t on -n 4", 0, "111", "-1"},
      {"-t off -n 2", 0, "100", "0"},
      {"-n 3", 0, "110", "0"},
      {"-t on", 0, "110", "-1"},
      {"-n 1", 0, "000", "-1"},
      {"-n 0", 2, "000", "-1"},       // misuse: nothing sent
      {"-t sideways", 2, "000", "-1"},
      {"-h on -t on", 2, "000", "-1"},
  };
  Machine machine;
  const std::string socket = (machine.tree / "helper.sock").string();
  DaemonProcess daemon(socket, machine.env(socket));
  ASSERT_TRUE(daemon.ready());
  for (const auto& step : steps) {
    const ToolRun run = runTool(test::words(step.flags), machine.env(socket));
    EXPECT_EQ(run.exit_code, step.exit_code) << step.flags << "\n" << run.output;
    EXPECT_EQ(machine.online(), step.online) << step.flags;
    EXPECT_EQ(machine.wbt(), step.wbt) << step.flags;
    if (step.exit_code == 0) {
      EXPECT_TRUE(contains(run.output, FallbackTransport::kDaemonLine)) << step.flags << "\n" << run.output;
    } else {
      EXPECT_TRUE(contains(run.output, "usage: pelmora")) << step.flags << "\n" << run.output;
    }
  }
}

// Without the daemon root is served in-process; an ordinary user is refused, by the daemon (no
// polkit here to grant the authorisation the tool asks for first) or for want of it.
TEST(BootFlagsTool, WhoIsServedWithAndWithoutTheDaemon) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start the daemon and drop to another user";
  const struct {
    const char* name;
    bool daemon;
    uid_t uid;
    const char* flags;
    int exit_code;
    const char* said;
    const char* online;  // cpu1..cpu3
    const char* wbt;
  } cases[] = {
      {"an ordinary user, through the daemon", true, 65534, "-t off -n 4", 1, "pelmora: not authorised", "100",
       "75000"},
      {"root without a daemon", false, 0, "-t off -n 3", 0, FallbackTransport::kInProcessLine, "110", "0"},
      {"an ordinary user without a daemon", false, 65534, "-n 4", 1, "the privileged helper is not running", "100",
       "75000"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Machine machine;
    const std::string socket = (machine.tree / (c.daemon ? "helper.sock" : "no.sock")).string();
    std::optional<DaemonProcess> daemon;
    if (c.daemon) {
      ASSERT_TRUE(daemon.emplace(socket, machine.env(socket)).ready());
    }
    const ToolRun run = runTool(test::words(c.flags), machine.env(socket), c.uid);
    EXPECT_EQ(run.exit_code, c.exit_code) << run.output;
    EXPECT_TRUE(contains(run.output, c.said)) << run.output;
    EXPECT_EQ(machine.online(), c.online);
    EXPECT_EQ(machine.wbt(), c.wbt);
  }
}

}  // namespace
}  // namespace pelmora
