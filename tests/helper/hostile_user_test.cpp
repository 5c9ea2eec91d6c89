// Attacks a local user could make on the real root daemon, each reproduced over the real socket as
// uid 65534, and what the daemon must hold against them.
#include <gtest/gtest.h>
#include <poll.h>

#include <sys/resource.h>

#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "helper/child_registry.h"
#include "helper/daemon_harness.h"
#include "helper/helper_daemon.h"
#include "support/pidfd.h"
#include "support/proc_task_reader.h"
#include "support/xpc_codec.h"

namespace pelmora {
namespace {

using namespace pelmora::testing;

// Long enough to outlast the counting, short enough not to hold the test output open for long.
XPCDict powerMetricsRequest() { return {{"powermetrics", "powermetrics"}, {"sample_interval", 3000}}; }

TEST_F(HelperDaemonTest, SamplerChildrenAreBoundedPerConnectionUserAndDaemon) {
  const HelperDaemonChild* daemon = s_daemon;
  const std::string failures = asNobody([daemon] {
    // 300 requests on one connection: each replaces the previous sampler.
    SocketTransport one(daemon->socket());
    std::string out;
    for (int i = 0; i < 300; ++i) out += mismatch(one.exchange(powerMetricsRequest()).value_or(XPCDict{}), "result", 1);
    // SIGKILL is delivered asynchronously: the replaced child may take a moment to die.
    if (!eventually([&] { return daemon->liveChildren() <= 1; })) out += "one connection holds more than one child\n";
    // Every connection one user may have: while the samplers measure, the user's cap refuses the rest.
    std::vector<std::unique_ptr<SocketTransport>> more;
    size_t started = 1;  // the first connection's
    for (size_t i = 1; i < HelperDaemon::kMaxConnectionsPerUser; ++i) {
      more.push_back(std::make_unique<SocketTransport>(daemon->socket()));
      started += xpcInt(more.back()->exchange(powerMetricsRequest()).value_or(XPCDict{}), "result") == 1;
    }
    if (started != ChildRegistry::kMaxChildrenPerUser) out += "one user started " + std::to_string(started) + "\n";
    return out;
  });
  EXPECT_EQ(failures, "");
  // The user's connections are gone; their samplers finish their measurement, and another user is
  // served meanwhile.
  EXPECT_LE(s_daemon->liveChildren(), ChildRegistry::kMaxChildrenPerUser);
  EXPECT_EQ(xpcInt(ask(powerMetricsRequest()), "result"), 1);
}

TEST(HelperDaemonTimeouts, SilentAndStalledConnectionsAreClosedAndClientsReconnect) {
  HelperDaemonChild daemon({"--idle-timeout", "1"});
  ASSERT_TRUE(daemon.ready());
  // Silent, and stalled inside a frame.
  for (const std::vector<uint8_t>& bytes : {std::vector<uint8_t>{}, std::vector<uint8_t>{0x10, 0, 0, 0, 0xA1}}) {
    EXPECT_TRUE(closedWithoutReply(daemon.socket(), bytes)) << bytes.size();
  }
  // A client whose idle connection was closed makes a new one for its next request.
  SocketTransport client(daemon.socket());
  ASSERT_TRUE(client.exchange({{"requestcpuinfo", ""}}));
  const uint64_t first = client.connection();
  ASSERT_TRUE(eventually([&] { return daemon.log().find("closed: idle") != std::string::npos && client.connection() != first; }));
  EXPECT_TRUE(client.exchange({{"requestcpuinfo", ""}}));
}

// A flood of connections, most of them with a bad frame, writes few log lines and leaves no
// descriptor open in the daemon; among them, connections closed unused and "pidfiles" requests
// (which open the target's descriptors).
TEST_F(HelperDaemonTest, AFloodOfConnectionsWritesFewLogLinesAndLeavesNoDescriptor) {
  auto lines = [] { return split(s_daemon->log(), '\n', false).size(); };
  const size_t before = lines();
  const size_t fds_before = s_daemon->openFds();
  const std::vector<uint8_t> garbage = {1, 0, 0, 0, 0xFF};
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 3000; ++i) {
    if (i % 10 == 0) {
      ASSERT_TRUE(
          SocketTransport(s_daemon->socket()).exchange({{"pidfiles", "pidfiles"}, {"pid", int64_t{::getpid()}}}));
      continue;
    }
    UniqueFd fd = rawConnect(s_daemon->socket());
    ASSERT_TRUE(fd);
    if (i % 10 == 1) continue;
    ASSERT_EQ(::write(fd.get(), garbage.data(), garbage.size()), 5);
    char byte;
    ASSERT_EQ(::read(fd.get(), &byte, 1), 0);
  }
  // 20 lines a window of 10 s, and one line saying how many were left out after each full window.
  const auto windows = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count() / 10 + 2;
  EXPECT_LE(lines() - before, static_cast<size_t>(windows * 21));
  // At most as many as before: a connection of an earlier test may still have been closing then.
  EXPECT_TRUE(eventually([&] { return s_daemon->openFds() <= fds_before; })) << fds_before << " before, now:\n"
                                                                             << s_daemon->fdTargets();
}

// A process of uid 65534 whose main thread runs at nice 0 and whose second thread set itself to 19;
// *worker is the second thread's id (0 when it could not be set up).
test::Child twoNiceThreads(pid_t* worker) {
  int fds[2];
  if (::pipe(fds) != 0) std::abort();
  test::Child process([fds] {
    test::startAtNiceZero();
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
    std::thread([fd = fds[1]] {
      const pid_t tid = static_cast<pid_t>(::gettid());
      if (::setpriority(PRIO_PROCESS, static_cast<id_t>(tid), 19) == 0) [[maybe_unused]]
        auto n = ::write(fd, &tid, sizeof tid);
      for (;;) ::pause();
    }).detach();
    for (;;) ::pause();
  });
  ::close(fds[1]);
  if (::read(fds[0], worker, sizeof *worker) != sizeof *worker) *worker = 0;
  ::close(fds[0]);
  return process;
}

TEST_F(HelperDaemonTest, ReniceChecksEveryThreadItChanges) {
  pid_t worker = 0;
  const test::Child process = twoNiceThreads(&worker);
  const int64_t pid = process.pid();
  auto niceOf = [&](pid_t tid) {
    const auto stat = parseProcPidStat(
        SysRoot::readFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/stat").value_or(""));
    return stat ? stat->nice : -100;
  };
  ASSERT_EQ(std::pair(niceOf(pid), niceOf(worker)), std::pair(int64_t{0}, int64_t{19}));
  auto renice = [&](int64_t priority) { return XPCDict{{"setpriority", ""}, {"pid", pid}, {"priority", priority}}; };
  // Nice 0 changes nothing on the main thread but would lower the worker; raising every thread is
  // the owner's right.
  const std::string socket = s_daemon->socket();
  EXPECT_EQ(asNobody([&] {
              return mismatches(socket, {{"nice 0", renice(0), "setpriority", "not authorised"},
                                         {"nice 19", renice(19), "setpriority", "OK"}});
            }),
            "");
  EXPECT_EQ(niceOf(process.pid()), 19);
  // An authorised connection lowers them all.
  EXPECT_EQ(mismatch(ask(renice(5)), "setpriority", "OK"), "");
  EXPECT_EQ(niceOf(process.pid()), 5);
  EXPECT_EQ(niceOf(worker), 5);
}

// A child that waits to be killed, with its pidfd.
struct PausedChild {
  pid_t pid = ::fork();
  UniqueFd pidfd;
  PausedChild() {
    if (pid == 0) {
      for (;;) ::pause();
    }
    pidfd = pidfdOpen(pid);
  }
  // How it ended: the signal that killed it, or 0 when it was still running (and is killed now).
  // A child signalled a moment ago is given time to die.
  int reap(bool expect_ended) {
    pollfd ended{pidfd.get(), POLLIN, 0};
    const bool gone = ::poll(&ended, 1, expect_ended ? 30000 : 0) == 1;
    if (!gone) ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return gone && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
};

TEST(ChildRegistryTest, CapsReplacementAndEndOfConnection) {
  constexpr size_t kPerUser = ChildRegistry::kMaxChildrenPerUser;
  ChildRegistry registry;
  std::deque<Connection> connections;  // their addresses stay put
  auto fresh = [&](uid_t uid) -> Connection& { return connections.emplace_back(CallerIdentity{uid, 0, 0}); };
  std::vector<std::unique_ptr<PausedChild>> children;
  auto start = [&](Connection& owner, ChildKind kind) {
    std::string refusal;
    ChildRegistry::Slot slot = registry.reserve(owner, kind, &refusal);
    if (!slot) return refusal;
    children.push_back(std::make_unique<PausedChild>());
    slot.hold(UniqueFd(::dup(children.back()->pidfd.get())));
    return std::string();
  };
  // One user: kMaxChildrenPerUser children, then refused.
  for (size_t i = 0; i < kPerUser; ++i) EXPECT_EQ(start(fresh(1000), ChildKind::kPowerMetrics), "");
  EXPECT_NE(start(fresh(1000), ChildKind::kPowerMetrics), "");
  // A new request of the same connection and kind replaces its child, which is killed.
  EXPECT_EQ(start(connections[0], ChildKind::kPowerMetrics), "");
  EXPECT_EQ(children[0]->reap(true), SIGKILL);
  // Users together: kMaxChildren; the first of them is connection 5, child 5.
  for (uid_t uid = 1001; registry.liveCount() < ChildRegistry::kMaxChildren; ++uid) {
    for (size_t i = 0; i < kPerUser && registry.liveCount() < ChildRegistry::kMaxChildren; ++i) {
      EXPECT_EQ(start(fresh(uid), ChildKind::kNettop), "");
    }
  }
  Connection& late = fresh(1999);
  EXPECT_NE(start(late, ChildKind::kNettop), "");
  // A child that exits by itself frees its place; a closed connection ends its long-running children.
  children[1]->reap(false);
  EXPECT_EQ(start(late, ChildKind::kNettop), "");
  registry.endAll(connections[5]);
  EXPECT_EQ(children[5]->reap(true), SIGKILL);
  // A closed connection's sampler is left to finish its measurement.
  registry.endAll(connections[2]);
  EXPECT_EQ(children[2]->reap(false), 0);
  // A slot given up without a child frees its place too (the last one, taken by another connection).
  {
    std::string refusal;
    EXPECT_TRUE(registry.reserve(late, ChildKind::kPowerMetrics, &refusal));
  }
  EXPECT_EQ(start(fresh(1999), ChildKind::kPowerMetrics), "");
  for (auto& child : children) child->reap(false);
  EXPECT_EQ(registry.liveCount(), 0u);
}

}  // namespace
}  // namespace pelmora
