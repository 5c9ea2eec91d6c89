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

// Each column on a pair of rows that differ only in it (`set` with false, then true): the first sorts
// before the second, and the second's cell reads `text` (nullptr: a further pair for the order only).
TEST(ProcessColumns, EveryColumnOrdersAscendingAndShowsItsText) {
  constexpr uint64_t kStart = 1'000'000'000'000ULL;
  // 1 h 2 min 3 s after the start.
  const CellContext ctx{false, kStart + 3723ULL * 1'000'000'000ULL + 999'000'000ULL};
  using R = ProcessRow;
  const std::tuple<const char*, void (*)(R&, bool), const char*> cases[] = {
      {"process", [](R& r, bool b) { r.info.name = b ? "firefox" : "Alpha"; }, "firefox"},
      // Case does not decide the order of names ("bash" before "Xvfb"), only a tie of letters.
      {"process", [](R& r, bool b) { r.info.name = b ? "Xvfb" : "bash"; }, nullptr},
      {"process", [](R& r, bool b) { r.info.name = b ? "xvfb" : "Xvfb"; }, nullptr},
      {"user", [](R& r, bool b) { r.info.user = b ? "Bob" : "alice"; }, "Bob"},
      {"user", [](R& r, bool b) { r.info.user = b ? "root" : "alice"; }, nullptr},
      {"pid", [](R& r, bool b) { r.info.pid = b ? 4242 : 9; }, "4242"},
      {"kind", [](R& r, bool b) { r.info.kind = b ? "x86_64" : "aarch64"; }, "x86_64"},
      // Later start first: the more recent start (shorter elapsed) sorts first.
      {"elapsed", [](R& r, bool b) { r.info.startTime = b ? kStart : kStart + 1000; }, "01:02:03"},
      {"pctcpu", [](R& r, bool b) { r.info.pctCPU = b ? 0.456 : 0.25; }, "45.6"},
      {"wakeups", [](R& r, bool b) { r.info.idleWakeupsPerSec = b ? 12.34 : 1; }, "12.3"},
      {"energy", [](R& r, bool b) { r.info.energyImpact = b ? 3.05 : 0.1; }, "3.0"},
      {"uid", [](R& r, bool b) { r.info.uid = b ? 1000 : 999; }, "1000"},
      {"sleep", [](R& r, bool b) { r.info.preventSleep = b; }, "Yes"},
      // No limit counts as -1, below any share, even zero.
      {"limit", [](R& r, bool b) { r.limit = b ? std::optional(0.0) : std::nullopt; }, "0.0"},
      {"limit", [](R& r, bool b) { r.limit = b ? 0.25 : 0.2; }, "25.0"},
      {"nice", [](R& r, bool b) { r.nice = b ? 5 : -5; }, "5"},
      {"threads", [](R& r, bool b) { r.info.threads = b ? 17 : 2; }, "17"},
      {"readpersec", [](R& r, bool b) { r.info.readPerSec.value = b ? 12345.6 : 10; }, "12.1 KiB/s"},
      {"writepersec", [](R& r, bool b) { r.info.writePerSec.value = b ? 0.4 : 0; }, "0 B/s"},
      {"netread", [](R& r, bool b) { r.info.netReadPerSec = b ? 8000 : 5; }, "8.0 kbit/s"},
      {"netwrite", [](R& r, bool b) { r.info.netWritePerSec = b ? 1500 : 5; }, "1.5 kbit/s"},
      {"memresident", [](R& r, bool b) { r.info.memRes = b ? 3 * 1048576 + 524288 : 4096; }, "3.5 MiB"},
      {"memvirtual", [](R& r, bool b) { r.info.memVirtual = b ? 1 << 30 : 1 << 20; }, "1.0 GiB"},
      // A kernel thread reads as "[name]", which sorts after a path.
      {"command", [](R& r, bool b) { r.info.command = b ? "" : "/usr/bin/a"; }, "[same]"},
      {"command", [](R& r, bool b) { r.info.command = b ? "Xvfb :1" : "bash -l"; }, nullptr},
  };
  std::set<std::string> covered;
  for (const auto& [column, set, text] : cases) {
    SCOPED_TRACE(column);
    ProcessRow a = rowOf(1, "same"), b = rowOf(1, "same");
    set(a, false);
    set(b, true);
    EXPECT_LT(compareRows(column, a, b), 0);
    EXPECT_GT(compareRows(column, b, a), 0);
    EXPECT_EQ(compareRows(column, a, a), 0);
    if (text) {
      EXPECT_EQ(cellText(column, b, ctx), text);
    }
    covered.insert(column);
  }
  EXPECT_EQ(covered.size(), processColumnIds().size());
  EXPECT_EQ(compareRows("nosuchcolumn", rowOf(1, "a"), rowOf(2, "b")), 0);
  EXPECT_EQ(cellText("nosuchcolumn", rowOf(1, "a"), ctx), "");
  EXPECT_EQ(cellText("sleep", rowOf(1, "a"), ctx), "No");
  // A start in the future (clock step) shows zero, not a wrapped huge time.
  ProcessRow future = rowOf(1, "a");
  future.info.startTime = kStart;
  EXPECT_EQ(cellText("elapsed", future, CellContext{false, 5}), "00:00:00");
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
