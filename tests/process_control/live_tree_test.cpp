// A tree limit on real processes, served in-process: a parent that keeps forking busy children while
// held. The kernel's own counters, read here from /proc apart from the limiter, decide whether the
// members' summed share holds, and whether clearing leaves any of them stopped.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/process_tree.h"
#include "live_child.h"
#include "sim_helper.h"
#include "support/proc_task_reader.h"

namespace pelmora {
namespace {

template <typename Pred>
bool eventually(Pred pred) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// A parent that forks `first` busy children at once, then one more every 200 ms up to `total`,
// and then only waits. It and its children die with the test.
pid_t forkingParent(int first, int total) {
  const pid_t test = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != test) ::_exit(0);
    for (int i = 0; i < total; ++i) {
      if (i >= first) {
        const timespec pause{0, 200'000'000};
        ::nanosleep(&pause, nullptr);
      }
      test::busyChild();
    }
    for (;;) ::pause();
  }
  return pid;
}

struct Descendants {
  std::set<int32_t> pids;
  uint64_t cpu_ticks = 0;  // utime + stime of them all
};

// `root` and its descendants as the kernel lists them now, with their processor time.
Descendants descendantsOf(pid_t root) {
  ProcessTree tree(SysRoot::current());
  tree.refresh();
  Descendants out;
  out.pids = treeMembers({root}, tree.links());
  for (int32_t pid : out.pids)
    if (auto stat = ProcTaskReader().readStat(pid)) out.cpu_ticks += stat->utime_ticks + stat->stime_ticks;
  return out;
}

char stateOf(pid_t pid) {
  const auto stat = ProcTaskReader().readStat(pid);
  return stat ? stat->state : '?';
}

TEST(LiveTreeLimit, AParentForkingBusyChildrenWhileHeldStaysWithinItsShareInTotal) {
  test::SimRoot dir;
  const pid_t parent = forkingParent(2, 5);
  ASSERT_GT(parent, 0);
  Pelmora helper(std::make_unique<test::CountingTransport>());
  DefaultSettings settings(dir.settingsFile());
  CPULimiter::Options options;
  options.nettop_path = "/bin/true";
  options.journal_dir = dir.journalDir();
  constexpr double kShare = 0.3;
  CPULimiter limiter(helper, SysRoot::current(), settings, options);
  ASSERT_TRUE(limiter.start());
  {
    MutexLock lock(limiter.mutex());
    limiter.setLimit(parent, kShare, true);
  }
  // Every child forked while held joins: the limiter's members are the kernel's descendants.
  ASSERT_TRUE(eventually([&] { return descendantsOf(parent).pids.size() == 6; }));
  EXPECT_TRUE(eventually([&] { return limiter.trees()[parent] == descendantsOf(parent).pids; }));
  // Five busy children would take every processor there is; held together, they get the share.
  const auto before = descendantsOf(parent);
  const auto t0 = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(3));
  const auto after = descendantsOf(parent);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const double share = static_cast<double>(after.cpu_ticks - before.cpu_ticks) /
                       static_cast<double>(sysconf(_SC_CLK_TCK)) / seconds;
  EXPECT_EQ(after.pids, before.pids);
  EXPECT_GT(share, 0.05) << "the tree did not run at all";
  EXPECT_LT(share, kShare + 0.2) << "the tree was not held to its share in total";
  limiter.clearLimit(parent);
  for (int32_t pid : after.pids) EXPECT_TRUE(eventually([&] { return stateOf(pid) != 'T'; })) << pid;
  EXPECT_TRUE(limiter.trees().empty());
  limiter.stopTimer();
  ::kill(parent, SIGKILL);  // its children follow it (parent-death signal)
  ::waitpid(parent, nullptr, 0);
}

}  // namespace
}  // namespace pelmora
