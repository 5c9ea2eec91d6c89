// The limiter on real processes, served in-process: a busy child held to 30 % is stopped and
// continued and runs freely afterwards; the journal continues what a dead holder left stopped,
// and never a process that merely reuses a journalled pid.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "helper_link/in_process_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/stop_journal.h"
#include "support/proc_pid_stat.h"
#include "live_child.h"
#include "sim_helper.h"

namespace pelmora {
namespace {

char stateOf(pid_t pid) {
  auto text = SysRoot::readFile("/proc/" + std::to_string(pid) + "/stat");
  auto id = text ? parseProcPidStat(*text) : std::nullopt;
  return id ? id->state : '?';
}

template <typename Pred>
bool eventually(Pred pred) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

using test::busyChild;
using test::CountingTransport;

TEST(LiveLimit, BusyChildHeldAt30PercentIsStoppedContinuedAndRunningAfterwards) {
  test::SimRoot dir;
  const pid_t child = busyChild(4);
  ASSERT_GT(child, 0);
  auto transport = std::make_unique<CountingTransport>();
  CountingTransport* counts = transport.get();
  Pelmora helper(std::move(transport));
  DefaultSettings settings(dir.settingsFile());
  CPULimiter::Options options;
  options.nettop_path = "/bin/true";
  options.journal_dir = dir.journalDir();
  {
    CPULimiter limiter(helper, SysRoot::current(), settings, options);
    ASSERT_TRUE(limiter.start());
    {
      MutexLock lock(limiter.mutex());
      limiter.setLimit(child, 0.3);
    }
    EXPECT_TRUE(eventually([&] { return stateOf(child) == 'T'; }));
    EXPECT_TRUE(eventually([&] { return counts->stops >= 3 && counts->continues >= 3; }));
    EXPECT_EQ(limiter.limits().count(child), 1u);
    // While held, the journal names it, so a crash of this program would not leave it stopped.
    EXPECT_FALSE(std::filesystem::is_empty(dir.journalDir()));
    limiter.clearLimit(child);
    EXPECT_TRUE(limiter.limits().empty());
    limiter.stopTimer();
  }
  EXPECT_NE(stateOf(child), 'T');
  EXPECT_TRUE(!std::filesystem::exists(dir.journalDir()) || std::filesystem::is_empty(dir.journalDir()));
  // It runs: its processor time still grows.
  const auto before = helper.taskInfo(child, false);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto after = helper.taskInfo(child, false);
  ASSERT_TRUE(before && after);
  EXPECT_GT(after->pti_total_user + after->pti_total_system, before->pti_total_user + before->pti_total_system);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST(StopJournal, ContinuesWhatADeadHolderLeftStoppedButNeverAnotherProcess) {
  test::SimRoot dir;
  const pid_t held = busyChild();
  const pid_t other = busyChild();
  ASSERT_GT(held, 0);
  ASSERT_GT(other, 0);
  ::kill(held, SIGSTOP);
  ::kill(other, SIGSTOP);
  ASSERT_TRUE(eventually([&] { return stateOf(held) == 'T' && stateOf(other) == 'T'; }));
  const auto start = [](pid_t pid) {
    return parseProcPidStat(*SysRoot::readFile("/proc/" + std::to_string(pid) + "/stat"))->starttime_ticks;
  };
  std::filesystem::create_directories(dir.journalDir());
  // A holder that is gone (no such pid), which held `held`, and `other` under a different start
  // time: a pid that was reused since.
  std::ofstream(dir.journalDir() / "999999999-5.json")
      << "[{\"pid\":" << held << ",\"start_ticks\":" << start(held) << "},{\"pid\":" << other
      << ",\"start_ticks\":" << start(other) + 1 << "}]";
  // A holder that is alive (this test) is left alone.
  std::ofstream(dir.journalDir() / (std::to_string(getpid()) + "-" + std::to_string(start(getpid())) + ".json"))
      << "[{\"pid\":" << other << ",\"start_ticks\":" << start(other) << "}]";
  std::ofstream(dir.journalDir() / "1-1.json") << "not json";
  StopJournal journal(dir.journalDir());
  EXPECT_EQ(journal.recover(), 1);
  EXPECT_TRUE(eventually([&] { return stateOf(held) != 'T'; }));
  EXPECT_EQ(stateOf(other), 'T');
  EXPECT_FALSE(std::filesystem::exists(dir.journalDir() / "999999999-5.json"));
  EXPECT_FALSE(std::filesystem::exists(dir.journalDir() / "1-1.json"));
  for (pid_t pid : {held, other}) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
}

}  // namespace
}  // namespace pelmora
