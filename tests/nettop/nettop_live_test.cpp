// The real pelmora-nettop against real loopback sockets: what it counts, whom it forgets, and that
// it never outlives whoever reads it.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "common/child.h"
#include "common/loopback_pair.h"
#include "common/tool_process.h"
#include "support/pidfd.h"
#include "support/text.h"
#include "support/unique_fd.h"

namespace pelmora {
namespace {

const std::string kNettop = PELMORA_BINARY_DIR "/src/nettop/pelmora-nettop";
// How long a test waits for something that should happen within a round or two; never a measure.
constexpr auto kPatience = std::chrono::seconds(20);

// True once the process has exited (a pidfd turns readable), within the patience.
bool exitsSoon(pid_t pid) {
  const UniqueFd fd = pidfdOpen(pid);
  pollfd p{fd.get(), POLLIN, 0};
  return !fd ? errno == ESRCH : ::poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) == 1;
}

// True once the tool holds a socket beyond the three descriptors it was started with: its netlink
// sockets, which it opens only after asking for its death signal.
bool holdsASocket(pid_t pid) {
  const std::filesystem::path fds = "/proc/" + std::to_string(pid) + "/fd";
  return test::eventually(
      [&] {
        std::error_code error;
        for (const auto& fd : std::filesystem::directory_iterator(fds, error))
          if (std::stoi(fd.path().filename()) > 2 && fd.is_symlink(error) &&
              std::filesystem::read_symlink(fd.path(), error).string().rfind("socket:[", 0) == 0)
            return true;
        return false;
      },
      kPatience);
}

// One round of output: pid -> (in, out).
using Round = std::map<int32_t, std::pair<uint64_t, uint64_t>>;

// The tool on a pipe, read round by round (a round's "time,name.pid,,,in,out" lines share their
// time stamp).
class Nettop {
 public:
  explicit Nettop(int interval_ms) {
    int out = -1;
    m_pid = test::spawnTool({kNettop, "--interval-ms", std::to_string(interval_ms)}, {}, &out);
    m_read.reset(out);
  }
  ~Nettop() {
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
  }
  pid_t pid() const { return m_pid; }
  void closeReader() { m_read.reset(); }

  // The first whole round for which `done` holds; none when none does within the patience.
  std::optional<Round> until(const std::function<bool(const Round&)>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    Round round;
    std::string stamp;
    for (size_t nl; std::chrono::steady_clock::now() < deadline;) {
      if ((nl = m_buffer.find('\n')) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                std::chrono::steady_clock::now());
        const std::string more = test::readUntil(m_read.get(), "\n", left);
        if (more.empty()) return std::nullopt;
        m_buffer += more;
        continue;
      }
      const std::string line = m_buffer.substr(0, nl);
      const auto fields = split(line, ',');
      if (fields.size() == 6 && !stamp.empty() && fields[0] != stamp) {
        if (done(round)) return round;  // the next round's first line stays in the buffer
        round.clear();
      }
      if (fields.size() == 6) {
        stamp = std::string(fields[0]);
        const auto pid = parseInt64(fields[1].substr(fields[1].rfind('.') + 1)).value_or(0);
        round[static_cast<int32_t>(pid)] = {parseUInt64(fields[4]).value_or(0), parseUInt64(fields[5]).value_or(0)};
      }
      m_buffer.erase(0, nl + 1);
    }
    return std::nullopt;
  }

 private:
  pid_t m_pid = -1;
  UniqueFd m_read;
  std::string m_buffer;
};

using Pair = test::LoopbackPair;

TEST(NettopLive, CountsPayloadIncludingWhatClosedSocketsMovedAndForgetsExitedProcesses) {
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

  // Another process's traffic, listed while it lives; this one stays listed with its totals.
  std::optional<test::Child> talker(std::in_place, [] {
    Pair own;
    Pair::move(own.client.get(), own.server.get(), 10);
    for (;;) ::pause();
  });
  const pid_t child = talker->pid();
  ASSERT_TRUE(nettop.until([&](const Round& r) { return r.count(child) && r.at(child).second == 10; }));
  talker.reset();
  ASSERT_TRUE(nettop.until([&](const Round& r) { return r.count(self) && !r.count(child); }));
}

TEST(NettopLive, EndsWhenItsReaderGoesEvenWithNothingToPrint) {
  // One round a minute: after the first, it has nothing to say for a long while.
  Nettop by_pipe(60'000);
  by_pipe.closeReader();
  EXPECT_TRUE(exitsSoon(by_pipe.pid())) << "still running with nobody reading";

  // Started by a process that is then killed outright, writing to a file rather than a pipe whose
  // closing it would notice: only the death signal can end it within the minute.
  pid_t nettop = -1;
  {
    const test::Child parent([] {
      if (::fork() == 0) {  // its output already goes to /dev/null
        ::execl(kNettop.c_str(), kNettop.c_str(), "--interval-ms", "60000", nullptr);
        ::_exit(127);
      }
      for (;;) ::pause();
    });
    ASSERT_TRUE(test::eventually([&] { return test::childrenOf(parent.pid()).size() == 1; }));
    nettop = test::childrenOf(parent.pid()).at(0);
    ASSERT_TRUE(holdsASocket(nettop));
  }  // the parent is killed here
  const bool ended = exitsSoon(nettop);
  if (!ended) ::kill(nettop, SIGKILL);
  EXPECT_TRUE(ended) << "outlived the process that started it";
}

}  // namespace
}  // namespace pelmora
