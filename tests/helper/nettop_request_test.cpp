// The "nettop" request on the real daemon: an authorised connection gets the read end of a root
// pelmora-nettop that reports another user's traffic, and the tool ends when the reader closes its
// end (the refusal to others is a row of the daemon's refusals).
#include <poll.h>

#include "common/loopback_pair.h"
#include "daemon_harness.h"
#include "support/pidfd.h"

namespace pelmora::testing {
namespace {

XPCDict nettopRequest() { return {{"nettop", "nettop"}}; }

// Lines of the tool's output until one says `pid` sent `bytes` (none after the patience).
bool reportsSent(int fd, pid_t pid, uint64_t bytes) {
  const std::string label = "." + std::to_string(pid) + ",,,";
  std::string text;
  char buffer[4096];
  for (int polls = 0; polls < 100; ++polls) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0) continue;
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    text.append(buffer, static_cast<size_t>(n));
    for (size_t nl; (nl = text.find('\n')) != std::string::npos; text.erase(0, nl + 1)) {
      const std::string line = text.substr(0, nl);
      const auto at = line.find(label);
      if (at != std::string::npos && line.substr(line.rfind(',') + 1) == std::to_string(bytes)) return true;
    }
  }
  return false;
}

// A process of user nobody that moves `bytes` over a loopback pair of its own, then waits to be ended.
pid_t nobodyTalking(size_t bytes) {
  return test::forkChild([bytes] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
    test::LoopbackPair pair;
    test::LoopbackPair::move(pair.client.get(), pair.server.get(), bytes);
    for (;;) ::pause();
  });
}

using NettopRequest = HelperDaemonTest;

TEST_F(NettopRequest, AnAuthorisedReaderSeesAnotherUsersTrafficAndTheToolEndsWithTheReader) {
  const pid_t talker = nobodyTalking(4321);
  SocketTransport root(s_daemon->socket());  // uid 0: authorised from the start
  const XPCDict reply = root.exchange(nettopRequest()).value_or(XPCDict{});
  ASSERT_EQ(xpcInt(reply, "result"), 1) << (xpcString(reply, "error") ? *xpcString(reply, "error") : "");
  const XPCDescriptor* fd = xpcDescriptor(reply, "fd");
  const pid_t tool = static_cast<pid_t>(xpcInt(reply, "pid").value_or(-1));
  ASSERT_TRUE(fd && fd->get() >= 0);
  ASSERT_GT(tool, 1);
  EXPECT_TRUE(reportsSent(fd->get(), talker, 4321)) << "nobody's 4321 bytes never showed";
  test::endChild(talker);

  UniqueFd watch = pidfdOpen(tool);
  fd->fd->reset();  // the reader goes; the connection stays open
  pollfd p{watch.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&p, 1, 20'000), 1) << "the root tool outlived its reader";
  EXPECT_TRUE(eventually([] { return s_daemon->liveChildren() == 0; }));
}

}  // namespace
}  // namespace pelmora::testing
