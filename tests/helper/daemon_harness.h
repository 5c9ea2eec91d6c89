#pragma once
// Runs the real helper daemon as a child on a temporary socket, and the small processes the daemon
// tests act on. The daemon's sysfs is a writable fixture copy, so processor and throttle requests
// never touch the machine; /proc is the real one.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/child.h"
#include "common/eventually.h"
#include "helper/test_support.h"
#include "support/socket_transport.h"
#include "support/sys_root.h"
#include "support/text.h"

namespace pelmora::testing {

using test::eventually;

using test::procState;
using test::sleepingChild;

// Runs fn in a forked child as uid/gid 65534 (nobody); returns what fn returned ("" = all good).
inline std::string asNobody(const std::function<std::string()>& fn) {
  int fds[2];
  if (::pipe(fds) != 0) return "pipe failed";
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    std::string result = (::setgid(65534) == 0 && ::setuid(65534) == 0) ? fn() : "could not become nobody";
    if (!result.empty()) [[maybe_unused]] auto n = ::write(fds[1], result.data(), result.size());
    ::_exit(0);
  }
  ::close(fds[1]);
  std::string out;
  char buffer[512];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<size_t>(n));
  ::close(fds[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status)) out += " (child crashed)";
  return out;
}

// A raw connection to a Unix socket path, for writing bytes the codec would never produce.
inline UniqueFd rawConnect(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
  return fd;
}

// Writes `bytes` on a fresh connection (then stops writing when `hang_up`): whether the daemon
// closed it without a word. A daemon that kept it would hang the test, so the wait is bounded.
inline bool closedWithoutReply(const std::string& socket, const std::vector<uint8_t>& bytes, bool hang_up = false) {
  UniqueFd fd = rawConnect(socket);
  timeval limit{30, 0};
  if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) return false;
  if (::write(fd.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) return false;
  if (hang_up) ::shutdown(fd.get(), SHUT_WR);
  char byte;
  return ::read(fd.get(), &byte, 1) == 0;
}

// One request and what its reply must hold under `key`: that integer, or a text beginning with
// that text ("" for any text).
struct Expected {
  const char* name;
  XPCDict request;
  const char* key;
  XPCValue want;
};

// Sends every row over one connection: "" when each reply holds what its row wants, else a line
// for each one that does not.
inline std::string mismatches(const std::string& socket, const std::vector<Expected>& rows) {
  SocketTransport transport(socket);
  std::string out;
  for (const Expected& row : rows) {
    const std::string wrong = mismatch(transport.exchange(row.request).value_or(XPCDict{}), row.key, row.want);
    if (!wrong.empty()) out += std::string(row.name) + ": " + wrong + "\n";
  }
  return out;
}

class HelperDaemonChild {
 public:
  // extra_args: more command-line options for the daemon.
  explicit HelperDaemonChild(std::vector<std::string> extra_args = {}) {
    m_sys = m_dir.copyFixture("cpu-smt-4c8t");
    m_socket = (m_dir.path() / "helper.sock").string();
    m_log = m_dir.path() / "daemon.log";
    std::vector<std::string> args = {"pelmora-helper", "--foreground", "--socket", m_socket};
    args.insert(args.end(), extra_args.begin(), extra_args.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // Clients running as another user must reach the socket.
    std::filesystem::permissions(m_dir.path(), std::filesystem::perms(0755));
    m_pid = ::fork();
    if (m_pid == 0) {
      ::setenv("PELMORA_SYS_ROOT", m_sys.c_str(), 1);
      const int log = ::open(m_log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      if (log >= 0 && !::getenv("PELMORA_TEST_DAEMON_LOG")) ::dup2(log, 2);
      const std::string binary = std::string(PELMORA_BINARY_DIR) + "/src/helper/pelmora-helper";
      ::execv(binary.c_str(), argv.data());
      ::_exit(127);
    }
    // Answered, not just connected: the kernel queues connections once the socket listens, before
    // the daemon has made the rest of its descriptors, which a count taken then would miss.
    m_ready = eventually([this] { return SocketTransport(m_socket).exchange({{"requestcpuinfo", ""}}).has_value(); });
  }
  ~HelperDaemonChild() {
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
  }
  bool ready() const { return m_ready; }
  pid_t pid() const { return m_pid; }
  const std::string& socket() const { return m_socket; }
  const std::filesystem::path& sys() const { return m_sys; }
  // What the daemon wrote to stderr so far.
  std::string log() const { return SysRoot::readFile(m_log.string()).value_or(""); }
  // Open descriptors of the daemon.
  size_t openFds() const { return SysRoot::listDir(fdDir()).size(); }
  // Each open descriptor and what it points at, one a line: for a failure message.
  std::string fdTargets() const {
    std::string out;
    std::error_code error;
    for (const std::string& fd : SysRoot::listDir(fdDir()))
      out += fd + " -> " + std::filesystem::read_symlink(fdDir() + "/" + fd, error).string() + "\n";
    return out;
  }
  // Processes the daemon started that are still alive (zombies not counted), as the kernel lists them.
  size_t liveChildren() const {
    size_t count = 0;
    for (pid_t child : test::childrenOf(m_pid)) count += procState(child) != 'Z' && procState(child) != '?';
    return count;
  }

 private:
  std::string fdDir() const { return "/proc/" + std::to_string(m_pid) + "/fd"; }
  TempDir m_dir;
  std::filesystem::path m_sys;
  std::filesystem::path m_log;
  std::string m_socket;
  pid_t m_pid = -1;
  bool m_ready = false;
};

// One daemon for a whole suite of tests that act as root and as another user.
class HelperDaemonTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (::geteuid() == 0) s_daemon = new HelperDaemonChild();
  }
  static void TearDownTestSuite() {
    delete s_daemon;
    s_daemon = nullptr;
  }
  void SetUp() override {
    if (!s_daemon) GTEST_SKIP() << "the daemon tests act as root and as another user: run as root";
    ASSERT_TRUE(s_daemon->ready());
  }
  static XPCDict ask(const XPCDict& request) {
    SocketTransport transport(s_daemon->socket());
    return transport.exchange(request).value_or(XPCDict{{"no reply", 1}});
  }

  inline static HelperDaemonChild* s_daemon = nullptr;
};

}  // namespace pelmora::testing
