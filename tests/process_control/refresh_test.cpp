// The process-table refresh against a simulated helper and a fake clock.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <set>

#include "common/sim_limiter.h"
#include "process_control/cpu_limiter.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/main_queue.h"
#include "support/timeval.h"

namespace pelmora {
namespace {

using test::SimProcess;

// Two seconds apart: rates over the real interval, none at the first sighting; a broadcast after
// each refresh, and the owners the sampler counts processes by.
TEST(Refresh, FirstSightingHasNoRatesSecondHasRatesOverTheRealInterval) {
  test::SimLimiter t;
  auto& limiter = *t.limiter;
  t.add(1, {.uid = 0});
  t.add(2, {.uid = 33});
  t.add(3, {.uid = 1000});
  t.add(100, {.name = "worker", .uid = 1000, .cpu_ns = 5'000'000'000, .wakeups = 10, .read_bytes = 1000,
              .write_bytes = 2000});
  int updates = 0;
  AddListener(kProcessesUpdatedBroadcast, "test", [&](const std::string&) { ++updates; });
  limiter.refresh();
  auto first = limiter.rowFor(100);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->name, "worker");
  EXPECT_EQ(first->uid, 1000u);
  EXPECT_EQ(first->totalCPU, 5'000'000);
  EXPECT_EQ(first->startTime, 1'700'000'000'250'000'000ULL);
  EXPECT_EQ(first->pctCPU + first->idleWakeupsPerSec + first->readPerSec.current() + first->energyImpact, 0.0);

  // Half a processor, 5 wake-ups/s, 500 B/s read, 1000 B/s written.
  t.clock.advance_us(2'000'000);
  auto& p = t.wire->procs[100];
  p.cpu_ns += 1'000'000'000;
  p.wakeups += 10;
  p.read_bytes += 1000;
  p.write_bytes += 2000;
  limiter.refresh();
  auto second = limiter.rowFor(100);
  ASSERT_TRUE(second);
  EXPECT_DOUBLE_EQ(second->pctCPU, 0.5);
  EXPECT_DOUBLE_EQ(second->idleWakeupsPerSec, 5.0);
  // Smoothing starts from 0 with a time constant of 0.5 s over a 2 s step.
  EXPECT_GT(second->readPerSec.current(), 450.0);
  EXPECT_LE(second->readPerSec.current(), 500.0);
  EXPECT_DOUBLE_EQ(second->readPerSec.last_sample, 500.0);
  EXPECT_DOUBLE_EQ(second->writePerSec.last_sample, 1000.0);
  EXPECT_DOUBLE_EQ(limiter.diskRates().readPerSec, second->readPerSec.current());
  EXPECT_GT(second->energyImpact, 0.0);
  EXPECT_EQ(second->update.microseconds(), t.clock.now_us());
  RunLoop::main().runUntilIdle();
  RemoveListener(kProcessesUpdatedBroadcast, "test");
  EXPECT_EQ(updates, 2);
  const auto owners = limiter.owners().uids;
  EXPECT_EQ(std::multiset<uint32_t>(owners.begin(), owners.end()), (std::multiset<uint32_t>{0, 33, 1000, 1000}));
}

// On demand, without a window: light passes note new processes (names for the saved lists) but read
// no figures, and the first full table after them shows no rate measured against stale totals.
TEST(Refresh, AfterLightPassesTheFirstFullTableStartsItsRatesAfresh) {
  test::SimLimiter t;
  auto& limiter = *t.limiter;
  t.add(100, {.name = "worker", .uid = getuid(), .cpu_ns = 5'000'000'000});
  const auto pass = [&](int64_t cpu_ns) {
    t.clock.advance_us(5'000'000);
    t.wire->procs[100].cpu_ns += cpu_ns;
    limiter.owners();  // a graph counts the processes
    limiter.tick();
  };
  limiter.refresh();
  pass(2'500'000'000);
  EXPECT_DOUBLE_EQ(limiter.rowFor(100)->pctCPU, 0.5);
  limiter.setTableOnDemand(true);
  t.add(101, {.name = "newcomer", .uid = getuid()});
  pass(5'000'000'000);
  ASSERT_TRUE(limiter.rowFor(101));
  EXPECT_EQ(limiter.rowFor(101)->name, "newcomer");
  limiter.addTableClient();
  pass(2'500'000'000);
  EXPECT_EQ(limiter.rowFor(100)->pctCPU, 0.0);
  pass(2'500'000'000);
  EXPECT_DOUBLE_EQ(limiter.rowFor(100)->pctCPU, 0.5);
  EXPECT_EQ(limiter.refreshCounts().light, 1u);
  EXPECT_EQ(limiter.refreshCounts().full, 4u);
}

// A refresh of many processes takes a while: each row's rates run from the moment that row was
// read, so a slow refresh after a quick one still shows a busy loop at exactly one processor.
TEST(Refresh, EachRowsIntervalRunsFromItsOwnRead) {
  test::SimLimiter t;
  t.add(40, {.name = "first"});
  t.add(41, {.name = "second"});
  t.limiter->refresh();
  t.clock.advance_us(1'000'000);
  t.wire->run(1'000'000);
  t.wire->before_taskallinfo = [&] {
    t.clock.advance_us(400'000);
    t.wire->run(400'000);
  };
  t.limiter->refresh();
  for (int32_t pid : {40, 41}) EXPECT_DOUBLE_EQ(t.limiter->rowFor(pid)->pctCPU, 1.0) << pid;
}

// Via the helper exactly when authorised: otherwise the rows come from reading /proc directly.
TEST(Refresh, UnauthorisedReadsProcItselfAuthorisedAsksTheHelper) {
  const SysRoot fixture(std::string(PELMORA_FIXTURES) + "/proc-task", "/nonexistent");
  test::SimLimiter t(false);
  Pelmora helper(std::make_unique<test::SimTransport>(t.wire), fixture);
  CPULimiter limiter(helper, fixture, t.settings, CPULimiter::Options{"", t.dir.journalDir()});
  t.wire->procs[4242] = {.name = "told by the helper", .threads = 9};
  t.wire->procs[4250] = {.name = "solo", .threads = 9};

  limiter.refresh();
  EXPECT_TRUE(t.wire->requests.empty());
  const auto local = limiter.rowFor(4242);
  ASSERT_TRUE(local);
  EXPECT_EQ(local->name, "my (odd) prog");
  EXPECT_EQ(local->threads, 3);
  EXPECT_EQ(local->memRes, 2560 * ::sysconf(_SC_PAGESIZE));

  helper.setAuthorised(true);
  limiter.refresh();
  // One batch for the whole table: a few round trips, not several per row.
  ASSERT_EQ(t.wire->requests.size(), 1u);
  EXPECT_TRUE(xpcHas(t.wire->requests[0], "tasklist"));
  EXPECT_EQ(limiter.rowFor(4242)->threads, 9);
}

// Between two refreshes: a counter that went back gives no rate, a process that can no longer be
// read keeps its last totals or drops out (logged once, its network entry pruned).
TEST(Refresh, CountersGoingBackAndUnreadableProcesses) {
  struct Case {
    const char* what;
    void (*change)(SimProcess&);
    const char* line;  // a dropped row's log line: what drops a process is logged at its first sighting
    double (*zero_rate)(const procinfo&);
    uint64_t read_total;
  };
  const Case cases[] = {
      {"cpu went back", [](SimProcess& p) { p.cpu_ns = 0; }, nullptr, [](const procinfo& r) { return r.pctCPU; },
       90'000},
      {"wake-ups went back", [](SimProcess& p) { p.wakeups = 1; }, nullptr,
       [](const procinfo& r) { return r.idleWakeupsPerSec; }, 90'000},
      {"read went back", [](SimProcess& p) { p.read_bytes = 0; }, nullptr,
       [](const procinfo& r) { return r.readPerSec.last_sample; }, 0},
      {"write went back", [](SimProcess& p) { p.write_bytes = 5; }, nullptr,
       [](const procinfo& r) { return r.writePerSec.last_sample; }, 90'000},
      {"resource usage refused: the last totals stay, and no rate is made from them",
       [](SimProcess& p) {
         p.rusage_fails = true;
         p.wakeups += 100;
       },
       nullptr, [](const procinfo& r) { return r.idleWakeupsPerSec; }, 90'000},
      {"exited between walk and query", [](SimProcess& p) { p.taskallinfo_fails = true; },
       "procinfo_taskallinfo failed", nullptr, 0},
      {"no name", [](SimProcess& p) { p.pidname_fails = true; }, "procinfo_pidname failed", nullptr, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::SimLimiter t;
    auto& limiter = *t.limiter;
    t.add(1, {.name = "init", .uid = 0});
    t.add(2, {.cpu_ns = 9'000'000'000, .wakeups = 900, .read_bytes = 90'000, .write_bytes = 90'000});
    if (c.line) c.change(t.wire->procs[2]);
    LogCapture log;
    limiter.refresh();
    limiter.handleNettopChunk("10:00:00.1,init.1,,,1000,100\n10:00:00.1,victim.2,,,10,1\n");
    limiter.handleNettopChunk("10:00:01.1,init.1,,,2000,300\n10:00:01.1,victim.2,,,20,2\n");
    if (!c.line) c.change(t.wire->procs[2]);
    t.clock.advance_us(1'000'000);
    limiter.refresh();
    const auto init = limiter.rowFor(1);
    ASSERT_TRUE(init);
    EXPECT_GT(init->netReadPerSec, 0.0);
    EXPECT_DOUBLE_EQ(init->netReadPerSec, limiter.netUse().at(1).rx_rate.current());
    EXPECT_GT(init->netWritePerSec, 0.0);
    const auto row = limiter.rowFor(2);
    EXPECT_EQ(row.has_value(), !c.line);
    EXPECT_EQ(limiter.netUse().count(2), c.line ? 0u : 1u);
    if (row) {
      EXPECT_EQ(c.zero_rate(*row), 0.0);
      EXPECT_EQ(row->totalBytesRead, c.read_total);
    } else {  // still unreadable at the next refresh: not logged again
      limiter.refresh();
      const auto lines = log.lines();
      EXPECT_EQ(std::count(lines.begin(), lines.end(), c.line), 1);
    }
  }
}

TEST(Refresh, TimerRefreshesAtItsIntervalAndKeepsTheFastPeriodWhileLimiting) {
  test::SimLimiter t;
  auto& limiter = *t.limiter;
  t.add(5, {.name = "busy"});
  limiter.tick();  // nothing due yet
  EXPECT_FALSE(limiter.rowFor(5));
  t.clock.advance_us(5'000'000);
  limiter.tick();
  EXPECT_TRUE(limiter.rowFor(5));
  EXPECT_EQ(limiter.tickInterval_ms(), 5000);
  t.limit(5, 0.5);
  EXPECT_EQ(limiter.tickInterval_ms(), 30);
  limiter.setProcessesInterval_ms(2000);
  EXPECT_EQ(limiter.tickInterval_ms(), 30);
  EXPECT_EQ(t.settings.loadInt("UPDATE_PROCESSES", 0), 2000);
  limiter.clearLimit(5);
  EXPECT_EQ(limiter.tickInterval_ms(), 2000);
}

}  // namespace
}  // namespace pelmora
