// A tree limit on real processes, served in-process: a parent that keeps forking busy children while
// held. The kernel's own counters, read here from /proc apart from the limiter, decide whether the
// members' summed share holds, and whether clearing leaves any of them stopped.
#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "common/child.h"
#include "common/eventually.h"
#include "common/live_limiter.h"
#include "process_control/cpu_limiter.h"
#include "process_control/process_tree.h"
#include "support/proc_task_reader.h"

namespace pelmora {
namespace {

using test::eventually;
using test::procState;

// A parent that forks `first` busy children at once, then one more every 200 ms up to `total`,
// and then only waits. It and its children die with the test (or when it goes out of scope).
test::Child forkingParent(int first, int total) {
  return test::Child([first, total] {
    for (int i = 0; i < total; ++i) {
      if (i >= first) {
        const timespec pause{0, 200'000'000};
        ::nanosleep(&pause, nullptr);
      }
      test::busyChild();
    }
    for (;;) ::pause();
  });
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

TEST(LiveTreeLimit, AParentForkingBusyChildrenWhileHeldStaysWithinItsShareInTotal) {
  const test::Child tree = forkingParent(2, 5);
  const pid_t parent = tree.pid();
  ASSERT_GT(parent, 0);
  test::LiveLimiter live;
  CPULimiter& limiter = *live.limiter;
  constexpr double kShare = 0.3;
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
  for (int32_t pid : after.pids) EXPECT_TRUE(eventually([&] { return procState(pid) != 'T'; })) << pid;
  EXPECT_TRUE(limiter.trees().empty());
  live.release();
}  // the parent is ended, and its children with it (parent-death signal)

}  // namespace
}  // namespace pelmora
