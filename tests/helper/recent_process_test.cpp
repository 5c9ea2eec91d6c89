// "rusage" right after "taskallinfo" on the same connection may use the files that request read;
// it must still refuse another user's process and must notice a process that exited in between.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "helper/request_handler.h"

namespace pelmora {
namespace {

pid_t startSleeper() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    for (;;) ::pause();
  }
  return pid;
}

void reap(pid_t pid) {
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

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
    if (c.exits) reap(pid);
    EXPECT_EQ(rusageResult(handler, caller, pid), c.result);
    if (!c.exits) reap(pid);
  }
}

}  // namespace
}  // namespace pelmora
