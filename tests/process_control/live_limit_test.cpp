// The limiter's stops and continues on real processes, served in-process. Through the helper's
// real handler: after the first signal has passed the checks, the following ones go through the
// pidfd kept from then, with no /proc reads, wherever the checks could not come out otherwise while
// the process lives; a connection allowed only its owner's processes is checked in full at every
// stop; a process that has exited is never signalled again through its pid. Served in-process, the
// client sends those later ones without a request at all, keeping the same record of what it
// stopped; to the daemon every one still crosses the socket. While held, the journal names the
// child, and however the hold ends the child is continued and the journal emptied; the journal
// continues what a dead holder left stopped, and never a process that merely reuses a journalled pid.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "common/child.h"
#include "common/eventually.h"
#include "common/live_limiter.h"
#include "common/temp_dir.h"
#include "helper/connection.h"
#include "helper/request_handler.h"
#include "helper_link/fallback_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/stop_journal.h"
#include "support/proc_pid_stat.h"
#include "support/sys_root.h"

namespace pelmora {
namespace {

using test::eventually;
using test::procState;

int64_t kill(RequestHandler& handler, Connection& caller, pid_t pid, int signal) {
  const XPCDict reply = handler.handle({{"kill", "kill"}, {"pid", int64_t{pid}}, {"signal", int64_t{signal}}}, caller);
  return xpcInt(reply, "kill").value_or(-1);
}

TEST(SignalPath, LaterStopsAndContinuesSkipTheChecksOnlyWhereTheyCannotChange) {
  const uid_t owner = ::getuid() != 0 ? ::getuid() : 12345;
  struct Case {
    const char* what;
    bool privileged;
    uid_t caller_uid;
    bool later_stops_unchecked;
  };
  const Case cases[] = {
      {"served in-process: the kernel checks each signal against our own rights", false, ::getuid(), true},
      {"an authorised connection (root)", true, 0, true},
      {"a connection allowed only its owner's processes", true, owner, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::Child child = test::Child::busy();
    const pid_t pid = child.pid();
    ASSERT_GT(pid, 0);
    // The handler reads the process from a copy of its /proc files, owned by the caller.
    const test::TempDir dir;
    const std::string proc = std::to_string(pid) + "/";
    dir.write("proc/" + proc + "stat", SysRoot::readFile("/proc/" + proc + "stat").value_or(""));
    const std::string status = SysRoot::readFile("/proc/" + proc + "status").value_or("");
    const std::string id = std::to_string(c.caller_uid == 0 ? owner : c.caller_uid);
    dir.write("proc/" + proc + "status", std::regex_replace(status, std::regex("\nUid:[^\n]*"),
                                                            "\nUid:\t" + id + "\t" + id + "\t" + id + "\t" + id));
    HelperOptions options = RequestHandler::inProcessOptions();
    options.root = SysRoot((dir / "proc").string(), (dir / "sys").string());
    options.privileged = c.privileged;
    RequestHandler handler(options);
    Connection caller(CallerIdentity{c.caller_uid, ::getpid(), 0});

    ASSERT_EQ(kill(handler, caller, pid, SIGSTOP), 0);
    EXPECT_TRUE(eventually([&] { return procState(pid) == 'T'; }));
    // From here on the handler finds no file of the process: only a kept pidfd can reach it.
    std::filesystem::remove_all(dir / "proc");
    EXPECT_EQ(kill(handler, caller, pid, SIGCONT), 0);  // what this connection stopped, always
    EXPECT_TRUE(eventually([&] { return procState(pid) != 'T'; }));
    EXPECT_EQ(kill(handler, caller, pid, SIGSTOP), c.later_stops_unchecked ? 0 : ESRCH);
    if (!c.later_stops_unchecked) continue;
    EXPECT_TRUE(eventually([&] { return procState(pid) == 'T'; }));
    EXPECT_EQ(kill(handler, caller, pid, SIGCONT), 0);
    EXPECT_EQ(kill(handler, caller, pid, SIGCONT), 0);  // a redundant continue, as after "continue all"
    EXPECT_TRUE(eventually([&] { return procState(pid) != 'T'; }));
    // Gone and reaped: its pid may name another process by now, which the kept pidfd never reaches.
    { const test::Child ending = std::move(child); }  // once reaped, ending it again could hit another process
    EXPECT_EQ(kill(handler, caller, pid, SIGSTOP), ESRCH);
    EXPECT_EQ(kill(handler, caller, pid, SIGCONT), ESRCH);
  }
}

TEST(SignalPath, ServedInProcessOnlyTheFirstStopIsARequestAndTheConnectionStillContinuesWhatItStopped) {
  struct Case {
    const char* what;
    bool daemon_answers;  // else served in-process
    bool behind_fallback;
  };
  const Case cases[] = {
      {"served in-process", false, false},
      {"no daemon: the fallback serves it in-process", false, true},
      {"the daemon answers: every signal crosses its socket", true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const test::Child child = test::Child::busy();
    ASSERT_GT(child.pid(), 0);
    auto daemon = std::make_unique<test::CountingTransport>(std::make_unique<InProcessTransport>(), true);
    auto in_process = std::make_unique<test::CountingTransport>();
    const test::CountingTransport& to_daemon = *daemon;
    const test::CountingTransport& served_here = *in_process;
    std::unique_ptr<XPCTransport> transport = std::move(in_process);
    if (c.behind_fallback) {
      transport = std::make_unique<FallbackTransport>(
          std::move(daemon), [&] { return c.daemon_answers; }, std::move(transport));
    }
    auto client = std::make_unique<Pelmora>(std::move(transport));
    for (int signal : {SIGSTOP, SIGCONT, SIGSTOP, SIGCONT, SIGSTOP})
      EXPECT_EQ(client->sendSignal(child.pid(), signal), 0);
    EXPECT_TRUE(eventually([&] { return procState(child.pid()) == 'T'; }));
    const test::CountingTransport& used = c.daemon_answers ? to_daemon : served_here;
    EXPECT_EQ(used.stops, 3);
    EXPECT_EQ(used.continues, 2);
    EXPECT_EQ(used.kill_requests, c.daemon_answers ? 5 : 1);
    // The client goes away with the process stopped by a request-less stop: its connection
    // continues it, as the daemon continues what a vanished client stopped.
    client.reset();
    EXPECT_NE(procState(child.pid()), 'T');
  }
}

// Waits until the duty cycle has the child stopped and then stops the timer, so that only the
// ending under test can continue it.
bool heldStopped(test::LiveLimiter& live, pid_t pid) {
  return eventually([&] {
    if (procState(pid) != 'T') return false;
    live.limiter->stopTimer();
    if (procState(pid) == 'T') return true;
    live.limiter->start();  // it was continued just before the timer stopped: once more
    return false;
  });
}

TEST(LiveLimit, SteadyStopsAndContinuesMakeNoRequestAndEveryEndingContinuesTheChild) {
  struct Ending {
    const char* what;
    void (*end)(test::LiveLimiter& live, pid_t pid);
  };
  const Ending endings[] = {
      {"its limit cleared", [](test::LiveLimiter& live, pid_t pid) { live.limiter->clearLimit(pid); }},
      {"every limit cleared", [](test::LiveLimiter& live, pid_t) { live.limiter->clearAllLimits(); }},
      {"the limiter destroyed", [](test::LiveLimiter& live, pid_t) { live.limiter.reset(); }},
  };
  for (const auto& ending : endings) {
    SCOPED_TRACE(ending.what);
    const test::Child child = test::Child::busy();
    ASSERT_GT(child.pid(), 0);
    test::LiveLimiter live;
    ASSERT_TRUE(live.limiter->start());
    live.limit(child.pid(), 0.05);
    EXPECT_TRUE(eventually([&] { return live.counts->stops >= 4 && live.counts->continues >= 4; }));
    // Only the first stop went as a "kill" request, checked in full; the rest through its pidfd.
    EXPECT_EQ(live.counts->kill_requests, 1);
    ASSERT_TRUE(heldStopped(live, child.pid()));
    // While held, the journal names it, so that a crash of this program would not leave it stopped.
    EXPECT_FALSE(std::filesystem::is_empty(live.journalDir()));
    const int continues = live.counts->continues;
    ending.end(live, child.pid());
    EXPECT_NE(procState(child.pid()), 'T');
    EXPECT_EQ(live.counts->continues, continues + 1);
    EXPECT_EQ(live.counts->kill_requests, 1);
    EXPECT_TRUE(!std::filesystem::exists(live.journalDir()) || std::filesystem::is_empty(live.journalDir()));
  }
}

TEST(StopJournal, ContinuesWhatADeadHolderLeftStoppedButNeverAnotherProcess) {
  const test::TempDir dir;
  const auto journal_dir = dir / "held";
  const test::Child held_child = test::Child::busy(), other_child = test::Child::busy();
  const pid_t held = held_child.pid(), other = other_child.pid();
  ASSERT_GT(held, 0);
  ASSERT_GT(other, 0);
  ::kill(held, SIGSTOP);
  ::kill(other, SIGSTOP);
  ASSERT_TRUE(eventually([&] { return procState(held) == 'T' && procState(other) == 'T'; }));
  const auto start = [](pid_t pid) {
    return parseProcPidStat(*SysRoot::readFile("/proc/" + std::to_string(pid) + "/stat"))->starttime_ticks;
  };
  std::filesystem::create_directories(journal_dir);
  // A holder that is gone (no such pid), which held `held`, and `other` under a different start
  // time: a pid that was reused since.
  std::ofstream(journal_dir / "999999999-5.json")
      << "[{\"pid\":" << held << ",\"start_ticks\":" << start(held) << "},{\"pid\":" << other
      << ",\"start_ticks\":" << start(other) + 1 << "}]";
  // A holder that is alive (this test) is left alone.
  std::ofstream(journal_dir / (std::to_string(getpid()) + "-" + std::to_string(start(getpid())) + ".json"))
      << "[{\"pid\":" << other << ",\"start_ticks\":" << start(other) << "}]";
  std::ofstream(journal_dir / "1-1.json") << "not json";
  StopJournal journal(journal_dir);
  EXPECT_EQ(journal.recover(), 1);
  EXPECT_TRUE(eventually([&] { return procState(held) != 'T'; }));
  EXPECT_EQ(procState(other), 'T');
  EXPECT_FALSE(std::filesystem::exists(journal_dir / "999999999-5.json"));
  EXPECT_FALSE(std::filesystem::exists(journal_dir / "1-1.json"));
}

}  // namespace
}  // namespace pelmora
