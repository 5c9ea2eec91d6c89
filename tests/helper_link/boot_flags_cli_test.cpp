// `pelmora -t on|off -n N` as the boot service runs it: the real tool against the real daemon (a
// child on a temporary socket), both on a writable copy of a fixture sysfs whose online and
// throttle files are read back. Also the tool without a daemon (served in-process as root), its
// refusal for an ordinary user, and its misuse.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/temp_dir.h"
#include "common/tool_process.h"
#include "common/words.h"
#include "helper_link/fallback_transport.h"
#include "support/text.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;

const std::string kTool = std::string(PELMORA_BINARY_DIR) + "/src/cli/pelmora";
const std::string kDaemon = std::string(PELMORA_BINARY_DIR) + "/src/helper/pelmora-helper";

using test::readUntil;

struct ToolRun {
  int exit_code = -1;
  std::string err;
};

ToolRun runTool(const std::vector<std::string>& flags, const std::vector<std::string>& env, uid_t uid = 0) {
  std::vector<std::string> argv = {kTool};
  argv.insert(argv.end(), flags.begin(), flags.end());
  int err = -1;
  const pid_t child = test::spawnTool(argv, env, &err, uid);
  ToolRun run;
  run.err = readUntil(err);
  ::close(err);
  int status = 0;
  ::waitpid(child, &status, 0);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// The daemon in the foreground on a socket of its own, until the test ends.
class DaemonChild {
 public:
  DaemonChild(const std::string& socket, const std::vector<std::string>& env)
      : m_pid(test::spawnTool({kDaemon, "--foreground", "--socket", socket}, env, &m_err)),
        // It says so once its socket listens.
        m_ready(readUntil(m_err, "serving on").find("serving on") != std::string::npos) {}
  ~DaemonChild() {
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
    ::close(m_err);
  }
  bool ready() const { return m_ready; }

 private:
  int m_err = -1;
  pid_t m_pid;
  bool m_ready;
};

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
  ASSERT_TRUE(fs::exists(kTool) && fs::exists(kDaemon)) << "build the pelmora and pelmora-helper targets";
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
  DaemonChild daemon(socket, machine.env(socket));
  ASSERT_TRUE(daemon.ready());
  for (const auto& step : steps) {
    const ToolRun run = runTool(test::words(step.flags), machine.env(socket));
    EXPECT_EQ(run.exit_code, step.exit_code) << step.flags << "\n" << run.err;
    EXPECT_EQ(machine.online(), step.online) << step.flags;
    EXPECT_EQ(machine.wbt(), step.wbt) << step.flags;
    if (step.exit_code == 0) {
      EXPECT_TRUE(contains(run.err, FallbackTransport::kDaemonLine)) << step.flags << "\n" << run.err;
    } else {
      EXPECT_TRUE(contains(run.err, "usage: pelmora")) << step.flags << "\n" << run.err;
    }
  }
}

TEST(BootFlagsTool, RefusedForAnOrdinaryUserWithTheHelpersReason) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start the daemon and drop to another user";
  Machine machine;
  const std::string socket = (machine.tree / "helper.sock").string();
  DaemonChild daemon(socket, machine.env(socket));
  ASSERT_TRUE(daemon.ready());
  // The tool asks the daemon to authorise it first; with no polkit to grant it, that is the answer.
  const ToolRun run = runTool({"-t", "off", "-n", "4"}, machine.env(socket), 65534);
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_TRUE(contains(run.err, "pelmora: not authorised")) << run.err;
  EXPECT_EQ(machine.online(), "100");
  EXPECT_EQ(machine.wbt(), "75000");
}

TEST(BootFlagsTool, AppliesDirectlyAsRootWithoutADaemon) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may apply without the daemon";
  Machine machine;
  const ToolRun run = runTool({"-t", "off", "-n", "3"}, machine.env((machine.tree / "no.sock").string()));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(contains(run.err, FallbackTransport::kInProcessLine)) << run.err;
  EXPECT_EQ(machine.online(), "110");
  EXPECT_EQ(machine.wbt(), "0");
}

TEST(BootFlagsTool, WithoutADaemonAnOrdinaryUserIsToldSo) {
  Machine machine;
  const ToolRun run =
      runTool({"-n", "4"}, machine.env((machine.tree / "no.sock").string()), ::geteuid() == 0 ? 65534 : 0);
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_TRUE(contains(run.err, "the privileged helper is not running")) << run.err;
  EXPECT_EQ(machine.online(), "100");
}

}  // namespace
}  // namespace pelmora
