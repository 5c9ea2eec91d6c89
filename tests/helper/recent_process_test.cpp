// Shortcuts a connection may take with what it did just before, each keeping its checks: "rusage"
// right after "taskallinfo" may use the files that request read, and a continue of a process the
// same connection stopped goes through the pidfd checked then. Neither may serve another user's
// process or reach a process that exited in between.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "common/child.h"
#include "helper/request_handler.h"
#include "support/proc_task_reader.h"

namespace pelmora {
namespace {

pid_t startSleeper() {
  return test::forkChild([] {
    for (;;) ::pause();
  });
}

using test::endChild;

int64_t rusageResult(RequestHandler& handler, Connection& caller, pid_t pid) {
  const XPCDict reply = handler.handle({{"rusage", "rusage"}, {"pid", int64_t{pid}}}, caller);
  return xpcInt(reply, "result").value_or(-1);
}

TEST(RecentProcess, RusageAfterTaskAllInfoKeepsItsChecks) {
  struct Case {
    const char* name;
    bool owner;          // the caller's uid is the process's
    bool after_allinfo;  // "taskallinfo" for the same pid came just before
    bool exits;          // the process is gone (and reaped) before "rusage"
    int64_t result;
  };
  const Case cases[] = {
      {"owner, alone", true, false, false, 1},
      {"owner, after taskallinfo", true, true, false, 1},
      {"another user, after taskallinfo", false, true, false, 1 + EPERM},
      {"exited after taskallinfo", true, true, true, 1 + ESRCH},
  };
  RequestHandler handler;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const uid_t other_uid = ::getuid() + 4242;  // never 0, so never authorised
    Connection caller(CallerIdentity{c.owner ? ::getuid() : other_uid, ::getpid(), 1});
    const pid_t pid = startSleeper();
    ASSERT_GT(pid, 0);
    if (c.after_allinfo) {
      const XPCDict all = handler.handle({{"taskallinfo", "taskallinfo"}, {"pid", int64_t{pid}}}, caller);
      ASSERT_TRUE(xpcInt(all, "result"));
      EXPECT_EQ(*xpcInt(all, "result"), 1);
    }
    if (c.exits) endChild(pid);
    EXPECT_EQ(rusageResult(handler, caller, pid), c.result);
    if (!c.exits) endChild(pid);
  }
}

char stateOf(pid_t pid) {
  const auto stat = ProcTaskReader().readStat(pid);
  return stat ? stat->state : '?';
}

TEST(RecentProcess, ContinueOfWhatThisConnectionStoppedKeepsItsChecks) {
  struct Case {
    const char* name;
    bool stopper_continues;  // else a connection of another user that stopped nothing
    bool exits;              // the process is gone (and reaped) before the continue
    bool proc_hidden;        // the continue is served where /proc shows nothing of it
    int64_t kill;            // the "kill" reply
    char state_after;
  };
  const Case cases[] = {
      {"the connection that stopped it", true, false, false, 0, 'S'},
      // Served through the pidfd alone: no /proc file of the process is read again.
      {"the connection that stopped it, /proc unread", true, false, true, 0, 'S'},
      {"another user's connection", false, false, false, EPERM, 'T'},
      {"exited after it was stopped", true, true, false, ESRCH, '?'},
  };
  RequestHandler handler;
  const auto empty = std::filesystem::temp_directory_path() / ("recent-process-" + std::to_string(::getpid()));
  std::filesystem::create_directories(empty);
  HelperOptions blind_options;
  blind_options.root = SysRoot(empty.string(), empty.string());
  RequestHandler blind(blind_options);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Connection stopper(CallerIdentity{::getuid(), ::getpid(), 1});
    Connection stranger(CallerIdentity{::getuid() + 4242, ::getpid(), 1});
    const pid_t pid = startSleeper();
    ASSERT_GT(pid, 0);
    auto signal = [&](RequestHandler& by, Connection& caller, int number) {
      return xpcInt(by.handle({{"kill", "kill"}, {"pid", int64_t{pid}}, {"signal", number}}, caller), "kill");
    };
    ASSERT_EQ(signal(handler, stopper, SIGSTOP), 0);
    for (int i = 0; i < 200 && stateOf(pid) != 'T'; ++i) ::usleep(5000);
    if (c.exits) endChild(pid);
    EXPECT_EQ(signal(c.proc_hidden ? blind : handler, c.stopper_continues ? stopper : stranger, SIGCONT), c.kill);
    for (int i = 0; i < 200 && c.state_after == 'S' && stateOf(pid) != 'S'; ++i) ::usleep(5000);
    EXPECT_EQ(stateOf(pid), c.state_after);
    if (!c.exits) endChild(pid);
  }
  std::filesystem::remove_all(empty);
}

}  // namespace
}  // namespace pelmora
