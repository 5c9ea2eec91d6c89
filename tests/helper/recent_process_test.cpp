// Shortcuts a connection may take with what it did just before, each keeping its checks: "rusage"
// right after "taskallinfo" may use the files that request read, and a continue of a process the
// same connection stopped goes through the pidfd checked then. Neither may serve another user's
// process or reach a process that exited in between.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "common/child.h"
#include "helper/request_handler.h"
#include "helper/test_support.h"

namespace pelmora {
namespace {

using test::endChild;
using test::eventually;
using test::procState;

XPCDict about(const char* name, pid_t pid) { return {{name, name}, {"pid", int64_t{pid}}}; }

// Reaped by the test itself, since some cases end it early.
pid_t sleeper() {
  return test::forkChild([] {
    for (;;) ::pause();
  });
}

TEST(RecentProcess, RusageAfterTaskAllInfoKeepsItsChecks) {
  const struct {
    const char* name;
    bool owner;          // the caller's uid is the process's
    bool after_allinfo;  // "taskallinfo" for the same pid came just before
    bool exits;          // the process is gone (and reaped) before "rusage"
    int64_t result;
  } cases[] = {
      {"owner, alone", true, false, false, 1},
      {"owner, after taskallinfo", true, true, false, 1},
      {"another user, after taskallinfo", false, true, false, 1 + EPERM},
      {"exited after taskallinfo", true, true, true, 1 + ESRCH},
  };
  RequestHandler handler;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    // Another uid is never 0, so never authorised.
    Connection caller(CallerIdentity{c.owner ? ::getuid() : ::getuid() + 4242, ::getpid(), 1});
    const pid_t pid = sleeper();
    if (c.after_allinfo) {
      ASSERT_EQ(xpcInt(handler.handle(about("taskallinfo", pid), caller), "result"), 1);
    }
    if (c.exits) endChild(pid);
    EXPECT_EQ(xpcInt(handler.handle(about("rusage", pid), caller), "result"), c.result);
    if (!c.exits) endChild(pid);
  }
}

TEST(RecentProcess, ContinueOfWhatThisConnectionStoppedKeepsItsChecks) {
  const struct {
    const char* name;
    bool stopper_continues;  // else a connection of another user that stopped nothing
    bool exits;              // the process is gone (and reaped) before the continue
    bool proc_hidden;        // the continue is served where /proc shows nothing of it
    int64_t kill;            // the "kill" reply
    char state_after;
  } cases[] = {
      {"the connection that stopped it", true, false, false, 0, 'S'},
      // Served through the pidfd alone: no /proc file of the process is read again.
      {"the connection that stopped it, /proc unread", true, false, true, 0, 'S'},
      {"another user's connection", false, false, false, EPERM, 'T'},
      {"exited after it was stopped", true, true, false, ESRCH, '?'},
  };
  RequestHandler handler;
  const testing::TempDir empty;
  HelperOptions blind_options;
  blind_options.root = SysRoot(empty.path().string(), empty.path().string());
  RequestHandler blind(blind_options);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Connection stopper(CallerIdentity{::getuid(), ::getpid(), 1});
    Connection stranger(CallerIdentity{::getuid() + 4242, ::getpid(), 1});
    const pid_t pid = sleeper();
    auto signal = [&](RequestHandler& by, Connection& caller, int number) {
      return xpcInt(by.handle({{"kill", "kill"}, {"pid", int64_t{pid}}, {"signal", number}}, caller), "kill");
    };
    ASSERT_EQ(signal(handler, stopper, SIGSTOP), 0);
    ASSERT_TRUE(eventually([&] { return procState(pid) == 'T'; }));
    if (c.exits) endChild(pid);
    EXPECT_EQ(signal(c.proc_hidden ? blind : handler, c.stopper_continues ? stopper : stranger, SIGCONT), c.kill);
    EXPECT_TRUE(eventually([&] { return procState(pid) == c.state_after; })) << procState(pid);
    if (!c.exits) endChild(pid);
  }
}

}  // namespace
}  // namespace pelmora
