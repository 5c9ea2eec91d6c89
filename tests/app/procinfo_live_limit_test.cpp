// Limiting from the window really limits: a busy child, the real limiter and the helper served
// in-process, and the window's own limit control set to 20 %. The child is stopped and continued by
// the duty cycle, the table reports the time it was held, and its share there drops from a whole
// processor towards the limit. The measured shares are printed for the record; the assertions are
// on what happened (stops, continues, time held), not on how fast or how close.
#include <QApplication>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#undef signals  // a member of the simulated helper's records carries this name

#include "app/process_table_model.h"
#include "app/procinfo_window.h"
#include "helper_link/in_process_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/live_child.h"
#include "process_control/sim_helper.h"
#include "support/broadcast.h"
#include "support/main_queue.h"

namespace pelmora {
namespace {

void ensureApp() {
  if (QApplication::instance()) return;
  static int argc = 1;
  static char name[] = "procinfo_live_limit_test";
  static char* argv[] = {name, nullptr};
  new QApplication(argc, argv);
}

using test::busyChild;
using test::CountingTransport;

// Runs the main loop (where "processesupdated" arrives) until pred holds; gives up after a minute.
template <typename Pred>
bool runUntil(Pred pred) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    RunLoop::main().runFor(std::chrono::milliseconds(50));
  }
  return true;
}

TEST(ProcinfoLive, BusyChildLimitedTo20PercentThroughTheWindow) {
  ensureApp();
  test::SimRoot dir;
  const pid_t child = busyChild();
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
    limiter.setProcessesUpdateInterval(1000);
    ASSERT_TRUE(limiter.start());
    ProcinfoWindow window(limiter, helper, settings);
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

    // A few refreshes later the table shows the child held stopped part of the time.
    int refreshes = 0;
    AddListener(kProcessesUpdatedBroadcast, "procinfo-live-test", [&](const std::string&) { ++refreshes; });
    EXPECT_TRUE(runUntil([&] { return refreshes >= 4; }));
    RemoveListener(kProcessesUpdatedBroadcast, "procinfo-live-test");
    const auto row = limiter.rowFor(child);
    ASSERT_TRUE(row);
    EXPECT_GT(counts->stops.load(), 0);
    EXPECT_GT(counts->continues.load(), 0);
    EXPECT_GT(row->pctWaiting, 0.0);
    std::printf("busy child: %.1f %% before the limit, %.1f %% after %d refreshes at a 20 %% limit\n",
                before * 100.0, row->pctCPU * 100.0, refreshes);

    window.clearLimit();
    EXPECT_FALSE(limiter.limitFor(child));
    limiter.stopTimer();
    limiter.continueAll();
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace pelmora
