// `pelmora -t on|off -n N` as the boot service runs it: the real tool against the real daemon (a
// child on a temporary socket), both on a writable copy of a fixture sysfs whose online and
// throttle files are read back. Also the tool without a daemon (served in-process as root), its
// refusal for an ordinary user, and its misuse.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "helper_link/fallback_transport.h"
#include "temp_tree.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;

const std::string kTool = std::string(PELMORA_BINARY_DIR) + "/src/cli/pelmora";
const std::string kDaemon = std::string(PELMORA_BINARY_DIR) + "/src/helper/pelmora-helper";

struct ToolRun {
  int exit_code = -1;
  std::string err;  // stderr
};

// Runs a program with extra environment, optionally as another user, and collects its stderr.
ToolRun runProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env, uid_t uid = 0) {
  int err[2];
  if (::pipe2(err, O_CLOEXEC) != 0) return {};
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(err[1], 2);
    for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
    if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) ::_exit(125);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(126);
  }
  ::close(err[1]);
  ToolRun run;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(err[0], buffer, sizeof buffer)) > 0) run.err.append(buffer, static_cast<size_t>(n));
  ::close(err[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// The daemon in the foreground on a socket of its own, until the fixture ends.
class DaemonChild {
 public:
  DaemonChild(const std::string& socket, const std::vector<std::string>& env) {
    int err[2];
    if (::pipe2(err, O_CLOEXEC) != 0) return;
    m_pid = ::fork();
    if (m_pid == 0) {
      ::dup2(err[1], 2);
      for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
      ::execl(kDaemon.c_str(), kDaemon.c_str(), "--foreground", "--socket", socket.c_str(), nullptr);
      ::_exit(126);
    }
    ::close(err[1]);
    m_err = err[0];
    // It says so once its socket listens; wait for that line (or for it to die).
    std::string said;
    char buffer[512];
    ssize_t n;
    while (said.find("serving on") == std::string::npos && (n = ::read(m_err, buffer, sizeof buffer)) > 0)
      said.append(buffer, static_cast<size_t>(n));
    m_ready = said.find("serving on") != std::string::npos;
  }
  ~DaemonChild() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGTERM);
      ::waitpid(m_pid, nullptr, 0);
    }
    if (m_err >= 0) ::close(m_err);
  }
  bool ready() const { return m_ready; }

 private:
  pid_t m_pid = -1;
  int m_err = -1;
  bool m_ready = false;
};

// A writable machine: four CPUs (cpu0 without an online file, as on x86; cpu2 and cpu3 offline)
// and one disk with a writeback-throttle file.
struct Machine {
  test::TempTree tree;
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
    std::vector<std::string> argv = {kTool};
    for (const auto& w : test::words(step.flags)) argv.push_back(w);
    const ToolRun run = runProgram(argv, machine.env(socket));
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
  const ToolRun run = runProgram({kTool, "-t", "off", "-n", "4"}, machine.env(socket), 65534);
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_TRUE(contains(run.err, "setcpucount response: not authorised")) << run.err;
  EXPECT_TRUE(contains(run.err, "throttle response: not authorised")) << run.err;
  EXPECT_EQ(machine.online(), "100");
  EXPECT_EQ(machine.wbt(), "75000");
}

TEST(BootFlagsTool, AppliesDirectlyAsRootWithoutADaemon) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may apply without the daemon";
  Machine machine;
  const ToolRun run = runProgram({kTool, "-t", "off", "-n", "3"}, machine.env((machine.tree / "no.sock").string()));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(contains(run.err, FallbackTransport::kInProcessLine)) << run.err;
  EXPECT_EQ(machine.online(), "110");
  EXPECT_EQ(machine.wbt(), "0");
}

TEST(BootFlagsTool, WithoutADaemonAnOrdinaryUserIsToldSo) {
  Machine machine;
  const ToolRun run =
      runProgram({kTool, "-n", "4"}, machine.env((machine.tree / "no.sock").string()), ::geteuid() == 0 ? 65534 : 0);
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_TRUE(contains(run.err, "setcpucount response: the privileged helper is not running.")) << run.err;
  EXPECT_EQ(machine.online(), "100");
}

}  // namespace
}  // namespace pelmora
