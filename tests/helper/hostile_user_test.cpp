// Attacks a local user could make on the real root daemon, each reproduced over the real socket as
// uid 65534, and what the daemon must hold against them.
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <vector>

#include "helper/child_registry.h"
#include "helper/daemon_harness.h"
#include "helper/helper_daemon.h"
#include "helper/pidfd.h"
#include "support/xpc_codec.h"

namespace pelmora {
namespace {

using namespace pelmora::testing;

XPCDict powerMetricsRequest() { return {{"powermetrics", "powermetrics"}, {"sample_interval", 10000}}; }

TEST_F(HelperDaemonTest, SamplerChildrenAreBoundedPerConnectionUserAndDaemon) {
  const HelperDaemonChild* daemon = s_daemon;
  const std::string failures = asNobody([daemon]() -> std::string {
    std::string out;
    // 300 requests on one connection: each replaces the previous sampler.
    SocketTransport one(daemon->socket());
    int started = 0;
    for (int i = 0; i < 300; ++i) started += xpcInt(one.exchange(powerMetricsRequest()).value_or(XPCDict{}), "result") == 1;
    if (started != 300) out += "replacing requests refused: " + std::to_string(300 - started) + "\n";
    // SIGKILL is delivered asynchronously: the replaced child may take a moment to die.
    if (!eventually([&] { return daemon->liveChildren() <= 1; })) {
      out += "one connection holds " + std::to_string(daemon->liveChildren()) + " children\n";
    }
    // Many connections of one user: the user's cap.
    std::vector<std::unique_ptr<SocketTransport>> more;
    for (size_t i = 0; i < HelperDaemon::kMaxConnectionsPerUser - 1; ++i) {
      more.push_back(std::make_unique<SocketTransport>(daemon->socket()));
      more.back()->exchange(powerMetricsRequest());
    }
    if (!eventually([&] { return daemon->liveChildren() <= ChildRegistry::kMaxChildrenPerUser; })) {
      out += "one user holds " + std::to_string(daemon->liveChildren()) + " children\n";
    }
    return out;
  });
  EXPECT_EQ(failures, "");
  // The user's connections are gone, and their children with them; another user is served.
  EXPECT_TRUE(eventually([] { return s_daemon->liveChildren() == 0; })) << s_daemon->liveChildren();
  EXPECT_EQ(xpcInt(ask(powerMetricsRequest()), "result"), 1);
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
  ChildRegistry registry;
  std::vector<Connection> users;
  for (uid_t uid : {1000u, 1001u, 1002u, 1003u}) {
    for (size_t i = 0; i < ChildRegistry::kMaxChildrenPerUser + 1; ++i) users.emplace_back(CallerIdentity{uid, 0, 0});
  }
  auto connection = [&](size_t user, size_t index) -> Connection& {
    return users[user * (ChildRegistry::kMaxChildrenPerUser + 1) + index];
  };
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
  for (size_t i = 0; i < ChildRegistry::kMaxChildrenPerUser; ++i) EXPECT_EQ(start(connection(0, i), ChildKind::kPowerMetrics), "");
  EXPECT_NE(start(connection(0, ChildRegistry::kMaxChildrenPerUser), ChildKind::kPowerMetrics), "");
  // A new request of the same connection and kind replaces its child, which is killed.
  EXPECT_EQ(start(connection(0, 0), ChildKind::kPowerMetrics), "");
  EXPECT_EQ(children[0]->reap(true), SIGKILL);
  // Users together: kMaxChildren.
  for (size_t user = 1; registry.liveCount() < ChildRegistry::kMaxChildren; ++user) {
    ASSERT_LT(user, 4u);
    for (size_t i = 0; i < ChildRegistry::kMaxChildrenPerUser && registry.liveCount() < ChildRegistry::kMaxChildren; ++i) {
      EXPECT_EQ(start(connection(user, i), ChildKind::kNettop), "");
    }
  }
  EXPECT_NE(start(connection(3, 4), ChildKind::kNettop), "");
  // A child that exits by itself frees its place; a closed connection ends its children.
  children[1]->reap(false);
  EXPECT_EQ(start(connection(3, 4), ChildKind::kNettop), "");
  registry.endAll(connection(0, 2));
  EXPECT_EQ(children[2]->reap(true), SIGKILL);
  // A slot given up without a child frees its place too.
  {
    std::string refusal;
    EXPECT_TRUE(registry.reserve(connection(3, 3), ChildKind::kPowerMetrics, &refusal));
  }
  EXPECT_EQ(start(connection(3, 3), ChildKind::kPowerMetrics), "");
  for (auto& child : children) child->reap(false);
  EXPECT_EQ(registry.liveCount(), 0u);
}

}  // namespace
}  // namespace pelmora
