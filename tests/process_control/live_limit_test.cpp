// The limiter on real processes, served in-process: after the first stop, the duty cycle's signals
// make no request; while held, the journal names the child, and however the hold ends the child is
// continued and the journal emptied. The journal continues what a dead holder left stopped, and
// never a process that merely reuses a journalled pid.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "common/child.h"
#include "common/eventually.h"
#include "common/live_limiter.h"
#include "common/temp_dir.h"
#include "process_control/stop_journal.h"
#include "support/proc_pid_stat.h"

namespace pelmora {
namespace {

using test::eventually;
using test::procState;

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
