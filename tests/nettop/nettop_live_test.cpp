// The real pelmora-nettop against real loopback sockets: what it counts, whom it forgets, and that
// it never outlives whoever reads it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/loopback_pair.h"
#include "support/sys_root.h"
#include "support/text.h"
#include "support/unique_fd.h"

extern char** environ;

namespace pelmora {
namespace {

const std::string kNettop = PELMORA_BINARY_DIR "/src/nettop/pelmora-nettop";
// How long a test waits for something that should happen within a round or two; never a measure.
constexpr auto kPatience = std::chrono::seconds(20);

pid_t spawnNettop(const std::vector<std::string>& args, int stdout_fd) {
  std::vector<std::string> all{kNettop};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, stdout_fd, STDOUT_FILENO);
  pid_t pid = -1;
  if (posix_spawn(&pid, kNettop.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// True once the process has exited (a pidfd turns readable), within the patience.
bool exitsSoon(pid_t pid) {
  UniqueFd fd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!fd) return errno == ESRCH;
  pollfd p{fd.get(), POLLIN, 0};
  return ::poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) == 1;
}

// True once the tool holds a netlink socket, which it opens only after asking for its death signal.
bool holdsItsNetlinkSocket(pid_t pid) {
  const std::string fds = "/proc/" + std::to_string(pid) + "/fd/";
  const std::string net = "/proc/" + std::to_string(pid) + "/net/netlink";
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    // The netlink table lists each socket's inode; the tool's own sockets are those among its fds.
    const std::string table = SysRoot::readFile(net).value_or("");
    for (const auto& name : SysRoot::listDir(fds)) {
      char link[64] = {};
      if (::readlink((fds + name).c_str(), link, sizeof link - 1) <= 0) continue;
      const std::string text = link;
      if (text.rfind("socket:[", 0) != 0) continue;
      const std::string inode = text.substr(8, text.size() - 9);
      if (table.find(" " + inode + "\n") != std::string::npos || table.find(" " + inode + " ") != std::string::npos)
        return true;
    }
    ::poll(nullptr, 0, 10);
  }
  return false;
}

// One round of output: pid -> (in, out).
using Round = std::map<int32_t, std::pair<uint64_t, uint64_t>>;

// The tool on a pipe, read round by round (a round's lines share their time stamp).
class Nettop {
 public:
  explicit Nettop(int interval_ms) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) std::abort();
    m_read.reset(fds[0]);
    m_pid = spawnNettop({"--interval-ms", std::to_string(interval_ms)}, fds[1]);
    ::close(fds[1]);
  }
  ~Nettop() {
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  pid_t pid() const { return m_pid; }
  void closeReader() { m_read.reset(); }

  // Rounds until `done` holds for one; none when it never does within the patience.
  std::optional<Round> until(const std::function<bool(const Round&)>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
      auto round = next(deadline);
      if (!round) return std::nullopt;
      if (done(*round)) return round;
    }
    return std::nullopt;
  }

 private:
  std::optional<std::string> line(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
      if (auto nl = m_buffer.find('\n'); nl != std::string::npos) {
        std::string out = m_buffer.substr(0, nl);
        m_buffer.erase(0, nl + 1);
        return out;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd p{m_read.get(), POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
      char buffer[4096];
      const ssize_t n = ::read(m_read.get(), buffer, sizeof buffer);
      if (n <= 0) return std::nullopt;
      m_buffer.append(buffer, static_cast<size_t>(n));
    }
  }

  // "time,name.pid,,,in,out" lines until the time stamp changes.
  std::optional<Round> next(std::chrono::steady_clock::time_point deadline) {
    Round round;
    std::string stamp;
    for (;;) {
      auto text = m_pending ? std::exchange(m_pending, std::nullopt) : line(deadline);
      if (!text) return std::nullopt;
      const auto fields = split(*text, ',');
      if (fields.size() != 6) continue;
      if (!stamp.empty() && fields[0] != stamp) {
        m_pending = text;
        return round;
      }
      stamp = std::string(fields[0]);
      const auto pid = parseInt64(fields[1].substr(fields[1].rfind('.') + 1));
      round[static_cast<int32_t>(pid.value_or(0))] = {parseUInt64(fields[4]).value_or(0),
                                                       parseUInt64(fields[5]).value_or(0)};
    }
  }

  pid_t m_pid = -1;
  UniqueFd m_read;
  std::string m_buffer;
  std::optional<std::string> m_pending;
};

using Pair = test::LoopbackPair;

TEST(NettopLive, CountsPayloadOnlyIncludingWhatASocketMovedJustBeforeItClosed) {
  Nettop nettop(200);
  const int32_t self = ::getpid();
  auto pair = std::make_unique<Pair>();
  // Connected, nothing sent: the SYN and SYN-ACK are not bytes.
  auto seen = nettop.until([&](const Round& r) { return r.count(self); });
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->at(self), std::make_pair(uint64_t{0}, uint64_t{0}));
  // Moved and closed well within one interval, after the last dump that listed the sockets.
  Pair::move(pair->client.get(), pair->server.get(), 1000);
  Pair::move(pair->server.get(), pair->client.get(), 300);
  pair.reset();
  auto after = nettop.until([&](const Round& r) { return r.count(self) && r.at(self).second > 0; });
  ASSERT_TRUE(after) << "the bytes of the closed sockets never showed";
  EXPECT_EQ(after->at(self).second, 1300u);
  // Each side may also count the peer's FIN when it arrived before the socket was freed.
  EXPECT_GE(after->at(self).first, 1300u);
  EXPECT_LE(after->at(self).first, 1302u);
}

TEST(NettopLive, ForgetsAProcessThatExited) {
  Pair own;  // keeps this process listed, so that every round prints a line
  Nettop nettop(200);
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(go[1]);
    Pair pair;
    Pair::move(pair.client.get(), pair.server.get(), 10);
    char byte;
    (void)::read(go[0], &byte, 1);
    ::_exit(0);
  }
  ::close(go[0]);
  ASSERT_TRUE(nettop.until([&](const Round& r) { return r.count(child) && r.at(child).second == 10; }));
  ::close(go[1]);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  ASSERT_TRUE(nettop.until([&](const Round& r) { return r.count(::getpid()) && !r.count(child); }));
}

TEST(NettopLive, EndsWhenItsReaderGoesEvenWithNothingToPrint) {
  // One round a minute: after the first, it has nothing to say for a long while.
  Nettop by_pipe(60'000);
  by_pipe.closeReader();
  EXPECT_TRUE(exitsSoon(by_pipe.pid())) << "still running with nobody reading";

  // Started by a process that is then killed outright, writing to a file rather than a pipe.
  // Close-on-exec, so the tool starts with three descriptors and a fourth means it is past its
  // death-signal request.
  int report[2];
  ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
  const pid_t parent = ::fork();
  if (parent == 0) {
    UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    const pid_t pid = spawnNettop({"--interval-ms", "60000"}, null.get());
    (void)::write(report[1], &pid, sizeof pid);
    for (;;) ::pause();
  }
  ::close(report[1]);
  pid_t nettop = -1;
  ASSERT_EQ(::read(report[0], &nettop, sizeof nettop), static_cast<ssize_t>(sizeof nettop));
  ::close(report[0]);
  ASSERT_GT(nettop, 0);
  // It asks for the death signal before it opens its netlink sockets: wait for those.
  ASSERT_TRUE(holdsItsNetlinkSocket(nettop));
  ::kill(parent, SIGKILL);
  ::waitpid(parent, nullptr, 0);
  const bool ended = exitsSoon(nettop);
  if (!ended) ::kill(nettop, SIGKILL);
  EXPECT_TRUE(ended) << "outlived the process that started it";
}

}  // namespace
}  // namespace pelmora
