// Limiting from the window really limits: a busy child, the real limiter and the helper served
// in-process, and the window's own limit control set to 20 %. The child is stopped and continued by
// the duty cycle, the table reports the time it was held, and its share there drops from a whole
// processor towards the limit. The measured shares are printed for the record; the assertions are
// on what happened (stops, continues, time held), not on how fast or how close.
#include <gtest/gtest.h>

#include <cstdio>

#include "app/process_table_model.h"
#include "app/procinfo_window.h"
#include "common/child.h"
#include "common/eventually.h"
#include "common/live_limiter.h"
#include "support/broadcast.h"
#include "support/main_queue.h"

namespace pelmora {
namespace {

using test::runUntil;

TEST(ProcinfoLive, BusyChildLimitedTo20PercentThroughTheWindow) {
  const test::Child busy = test::Child::busy();
  const pid_t child = busy.pid();
  ASSERT_GT(child, 0);
  test::LiveLimiter live;
  CPULimiter& limiter = *live.limiter;
  limiter.setProcessesInterval_ms(1000);
  ASSERT_TRUE(limiter.start());
  {
    ProcinfoWindow window(limiter, *live.helper, *live.settings);
    window.show();  // a hidden window does not rebuild its rows
    ASSERT_TRUE(runUntil([&] { return window.model().rowOfPid(child) >= 0; }));
    ASSERT_TRUE(runUntil([&] {
      const auto row = limiter.rowFor(child);
      return row && row->pctCPU > 0.0;
    }));
    const double before = limiter.rowFor(child)->pctCPU;

    window.selectPid(child);
    ASSERT_TRUE(window.limitControl()->controlEnabled());
    window.limitControl()->setValue(20);
    EXPECT_EQ(limiter.limitFor(child), 0.2);

    // Some refreshes later the table shows the child held stopped part of the time. On a crowded
    // machine the child may get less than the limit for a while, and then nothing needs holding, so
    // this waits for the stops rather than for a fixed number of refreshes.
    int refreshes = 0;
    AddListener(kProcessesUpdatedBroadcast, "procinfo-live-test", [&](const std::string&) { ++refreshes; });
    const bool held = runUntil([&] {
      const auto row = limiter.rowFor(child);
      return live.counts->stops.load() > 0 && live.counts->continues.load() > 0 && row && row->pctWaiting > 0.0;
    });
    RemoveListener(kProcessesUpdatedBroadcast, "procinfo-live-test");
    const auto row = limiter.rowFor(child);
    ASSERT_TRUE(row);
    EXPECT_TRUE(held) << live.counts->stops.load() << " stops, " << live.counts->continues.load() << " continues, "
                      << row->pctWaiting * 100.0 << " % waiting";
    std::printf("busy child: %.1f %% before the limit, %.1f %% after %d refreshes at a 20 %% limit\n",
                before * 100.0, row->pctCPU * 100.0, refreshes);

    window.clearLimit();
    EXPECT_FALSE(limiter.limitFor(child));
  }
}

}  // namespace
}  // namespace pelmora
