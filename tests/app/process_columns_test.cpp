// The process window's columns, filters and search, without widgets.
#include <gtest/gtest.h>

#include "app/process_columns.h"

#include <algorithm>

namespace pelmora {
namespace {

ProcessRow rowOf(int32_t pid, const std::string& name, uint32_t uid = 1000) {
  ProcessRow row;
  row.info.pid = pid;
  row.info.name = name;
  row.info.uid = uid;
  return row;
}

// Every column's ascending comparator on a pair (smaller, larger) that differs only in that column.
TEST(ProcessColumns, EveryComparatorOrdersAscending) {
  struct Case {
    const char* column;
    void (*smaller)(ProcessRow&);
    void (*larger)(ProcessRow&);
  };
  const Case cases[] = {
      {"process", [](ProcessRow& r) { r.info.name = "Alpha"; }, [](ProcessRow& r) { r.info.name = "beta"; }},
      // Case does not decide the order of names ("bash" before "Xvfb"), only a tie of letters.
      {"process", [](ProcessRow& r) { r.info.name = "bash"; }, [](ProcessRow& r) { r.info.name = "Xvfb"; }},
      {"process", [](ProcessRow& r) { r.info.name = "Xvfb"; }, [](ProcessRow& r) { r.info.name = "xvfb"; }},
      {"user", [](ProcessRow& r) { r.info.user = "alice"; }, [](ProcessRow& r) { r.info.user = "Bob"; }},
      {"pid", [](ProcessRow& r) { r.info.pid = 9; }, [](ProcessRow& r) { r.info.pid = 10; }},
      {"kind", [](ProcessRow& r) { r.info.kind = "aarch64"; }, [](ProcessRow& r) { r.info.kind = "x86_64"; }},
      // Later start first: the more recent start (shorter elapsed) sorts first.
      {"elapsed", [](ProcessRow& r) { r.info.startTime = 2000; }, [](ProcessRow& r) { r.info.startTime = 1000; }},
      {"pctcpu", [](ProcessRow& r) { r.info.pctCPU = 0.25; }, [](ProcessRow& r) { r.info.pctCPU = 1.5; }},
      {"wakeups", [](ProcessRow& r) { r.info.idleWakeupsPerSec = 1; }, [](ProcessRow& r) { r.info.idleWakeupsPerSec = 2; }},
      {"energy", [](ProcessRow& r) { r.info.energyImpact = 0.1; }, [](ProcessRow& r) { r.info.energyImpact = 9; }},
      {"user", [](ProcessRow& r) { r.info.user = "alice"; }, [](ProcessRow& r) { r.info.user = "root"; }},
      {"uid", [](ProcessRow& r) { r.info.uid = 999; }, [](ProcessRow& r) { r.info.uid = 1000; }},
      {"sleep", [](ProcessRow& r) { r.info.preventSleep = false; }, [](ProcessRow& r) { r.info.preventSleep = true; }},
      // No limit counts as -1, below any share, even zero.
      {"limit", [](ProcessRow& r) { r.limit.reset(); }, [](ProcessRow& r) { r.limit = 0.0; }},
      {"limit", [](ProcessRow& r) { r.limit = 0.2; }, [](ProcessRow& r) { r.limit = 0.5; }},
      {"nice", [](ProcessRow& r) { r.nice = -5; }, [](ProcessRow& r) { r.nice = 3; }},
      {"threads", [](ProcessRow& r) { r.info.threads = 2; }, [](ProcessRow& r) { r.info.threads = 40; }},
      {"readpersec", [](ProcessRow& r) { r.info.readPerSec.value = 10; }, [](ProcessRow& r) { r.info.readPerSec.value = 11; }},
      {"writepersec", [](ProcessRow& r) { r.info.writePerSec.value = 0; }, [](ProcessRow& r) { r.info.writePerSec.value = 1; }},
      {"netread", [](ProcessRow& r) { r.info.netReadPerSec = 5; }, [](ProcessRow& r) { r.info.netReadPerSec = 50; }},
      {"netwrite", [](ProcessRow& r) { r.info.netWritePerSec = 5; }, [](ProcessRow& r) { r.info.netWritePerSec = 6; }},
      {"memresident", [](ProcessRow& r) { r.info.memRes = 4096; }, [](ProcessRow& r) { r.info.memRes = 8192; }},
      {"memvirtual", [](ProcessRow& r) { r.info.memVirtual = 1 << 20; }, [](ProcessRow& r) { r.info.memVirtual = 1 << 30; }},
      // A kernel thread reads as "[name]", which sorts after a path.
      {"command", [](ProcessRow& r) { r.info.command = "/usr/bin/a"; }, [](ProcessRow& r) { r.info.command = ""; }},
      {"command", [](ProcessRow& r) { r.info.command = "bash -l"; }, [](ProcessRow& r) { r.info.command = "Xvfb :1"; }},
  };
  std::set<std::string> covered;
  for (const auto& c : cases) {
    ProcessRow a = rowOf(1, "same"), b = rowOf(1, "same");
    c.smaller(a);
    c.larger(b);
    EXPECT_LT(compareRows(c.column, a, b), 0) << c.column;
    EXPECT_GT(compareRows(c.column, b, a), 0) << c.column;
    EXPECT_EQ(compareRows(c.column, a, a), 0) << c.column;
    covered.insert(c.column);
  }
  EXPECT_EQ(covered.size(), processColumnIds().size());
  EXPECT_EQ(compareRows("nosuchcolumn", rowOf(1, "a"), rowOf(2, "b")), 0);
}

TEST(ProcessColumns, CellTexts) {
  ProcessRow r = rowOf(4242, "firefox");
  r.info.kind = "x86_64";
  r.info.user = "alice";
  r.info.startTime = 1'000'000'000'000ULL;
  r.info.pctCPU = 0.456;
  r.info.idleWakeupsPerSec = 12.34;
  r.info.energyImpact = 3.05;
  r.info.preventSleep = true;
  r.info.threads = 17;
  r.info.readPerSec.value = 12345.6;
  r.info.writePerSec.value = 0.4;
  r.info.netReadPerSec = 8000;
  r.info.netWritePerSec = 1500;
  r.info.memRes = 3 * 1048576 + 524288;
  r.info.memVirtual = 1073741824;
  r.nice = 5;
  r.limit = 0.25;
  // 1 h 2 min 3 s after the start.
  const CellContext ctx{false, r.info.startTime + 3723ULL * 1'000'000'000ULL + 999'000'000ULL};
  const std::pair<const char*, const char*> cases[] = {
      {"process", "firefox"}, {"pid", "4242"},        {"kind", "x86_64"},        {"elapsed", "01:02:03"},
      {"pctcpu", "45.6"},     {"wakeups", "12.3"},    {"energy", "3.0"},         {"user", "alice"},
      {"uid", "1000"},        {"sleep", "Yes"},       {"limit", "25.0"},         {"nice", "5"},
      {"threads", "17"},      {"readpersec", "12.1 KiB/s"}, {"writepersec", "0 B/s"}, {"netread", "8.0 kbit/s"},
      {"netwrite", "1.5 kbit/s"}, {"memresident", "3.5 MiB"}, {"memvirtual", "1.0 GiB"}, {"bogus", ""},
      {"command", "[firefox]"},
  };
  for (const auto& [column, text] : cases) EXPECT_EQ(cellText(column, r, ctx), text) << column;
  r.info.preventSleep = false;
  EXPECT_EQ(cellText("sleep", r, ctx), "No");
  // A start in the future (clock step) shows zero, not a wrapped huge time.
  EXPECT_EQ(cellText("elapsed", r, CellContext{false, 5}), "00:00:00");
  EXPECT_EQ(elapsedText(123ULL * 3600 * 1'000'000'000ULL), "123:00:00");
}

// The window's tree test covers the order and depth of a sane tree; stale parent links that close
// a loop (or name the process itself) happen only between two reads of /proc.
TEST(ProcessColumns, TreeOrderLosesNoRowToAParentLoop) {
  auto row = [](int32_t pid, int32_t ppid) {
    ProcessRow r = rowOf(pid, "p" + std::to_string(pid));
    r.info.ppid = ppid;
    return r;
  };
  std::vector<std::pair<int32_t, int>> shown;
  for (const ProcessRow& r : treeOrder({row(7, 8), row(8, 7), row(9, 9)})) shown.emplace_back(r.info.pid, r.depth);
  EXPECT_EQ(shown, (std::vector<std::pair<int32_t, int>>{{9, 0}, {7, 0}, {8, 1}}));
}

using Pids = std::vector<int32_t>;

// A table of processes: pid, name, share of a processor.
std::map<int32_t, procinfo> tableOf(std::initializer_list<std::tuple<int32_t, const char*, double>> procs) {
  std::map<int32_t, procinfo> table;
  for (auto [pid, name, cpu] : procs) {
    table[pid] = rowOf(pid, name).info;
    table[pid].pctCPU = cpu;
  }
  return table;
}

Pids pidsOf(const std::vector<ProcessRow>& rows) {
  Pids pids;
  for (const ProcessRow& r : rows) pids.push_back(r.info.pid);
  return pids;
}

// Equal shares keep pid order in either direction, so a refresh does not shuffle ties, and an unknown
// sort key sorts by the share. The window's tests drive the filters, the search and the limits.
TEST(ProcessColumns, BuildRowsKeepsTiesInPidOrderAndSortsAnUnknownKeyByShare) {
  const auto table = tableOf({{10, "p", 0.5}, {11, "p", 0.5}, {12, "p", 0.9}, {13, "p", 0.1}});
  std::map<int32_t, pidInfo> limits;
  limits[11].cpuLimit = 0.3;
  const std::tuple<const char*, bool, Pids> cases[] = {{"pctcpu", false, {12, 10, 11, 13}},
                                                       {"pctcpu", true, {13, 10, 11, 12}},
                                                       {"limit", true, {10, 12, 13, 11}},
                                                       {"unknown", true, {13, 10, 11, 12}}};
  for (const auto& [key, ascending, pids] : cases) {
    RowQuery q;
    q.sort_key = key;
    q.sort_ascending = ascending;
    EXPECT_EQ(pidsOf(buildRows(table, limits, q)), pids) << key << (ascending ? " ascending" : "");
  }
}

// A held tree: its first process's row carries the group's summed share (members hidden by the
// search included) and its limit, both marked; members name the process that heads them.
TEST(ProcessColumns, ATreesFirstRowShowsTheGroupAndItsMembersAreMarked) {
  const auto table = tableOf({{20, "make", 0.01}, {21, "cc", 0.20}, {22, "cc", 0.15}, {23, "shell", 0.30}});
  std::map<int32_t, pidInfo> limits;
  limits[20].cpuLimit = 0.4;
  const std::map<int32_t, std::set<int32_t>> trees = {{20, {20, 21, 22, 99}}};  // 99: not in the table
  RowQuery q;
  q.search = "e";  // "make" and "shell" only: the group's 0.36 above the shell's 0.30
  EXPECT_EQ(pidsOf(buildRows(table, limits, q, trees)), (Pids{20, 23}));
  q.search.clear();
  const auto rows = buildRows(table, limits, q, trees);
  ASSERT_EQ(pidsOf(rows), (Pids{20, 23, 21, 22}));
  const std::tuple<size_t, const char*, const char*> cases[] = {
      {0, "pctcpu", "36.0 Σ"}, {0, "limit", "40.0 Σ"}, {2, "limit", "with 20"},
      {2, "pctcpu", "20.0"},   {1, "limit", ""},       {1, "pctcpu", "30.0"},
  };
  for (const auto& [row, column, text] : cases) EXPECT_EQ(cellText(column, rows[row], {}), text) << row << column;
  EXPECT_FALSE(rows[2].limit);
  EXPECT_FALSE(rows[1].held_with);
}

}  // namespace
}  // namespace pelmora
