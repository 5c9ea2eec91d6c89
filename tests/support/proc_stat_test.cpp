#include "support/proc_stat.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace pelmora;

namespace {

TEST(ProcStat, FindsTheProcessorLines) {
  const struct {
    const char* label;
    std::string text;
    bool parses;
    std::vector<int> cpus;  // the cpuN lines expected
  } cases[] = {
      {"all online", "cpu 4 0 2 8\ncpu0 1 0 1 4\ncpu1 3 0 1 4\nintr 5 0\n", true, {0, 1}},
      {"offline cpu1 has no line", "cpu 4 0 2 8\ncpu0 1 0 1 4\ncpu2 3 0 1 4\n", true, {0, 2}},
      {"unsorted and sparse", "cpu 1 1 1 1\ncpu12 1 1 1 1\ncpu3 1 1 1 1\n", true, {3, 12}},
      {"no cpu lines at all", "intr 5 0\nctxt 9\n", false, {}},
      {"a cpu line with three columns", "cpu 1 2 3\ncpu0 1 2 3\n", false, {}},
      {"a column that is not a number", "cpu 1 2 3 4\ncpu0 1 x 3 4\n", false, {}},
      {"a processor number that is not a number", "cpu 1 2 3 4\ncpuX 1 2 3 4\n", false, {}},
      {"empty text", "", false, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto stat = ProcStat::parse(c.text);
    ASSERT_EQ(stat.has_value(), c.parses);
    if (!stat) continue;
    std::vector<int> cpus;
    for (const auto& [cpu, ticks] : stat->cpus) cpus.push_back(cpu);
    EXPECT_EQ(cpus, c.cpus);
  }
}

TEST(ProcStat, ReadsEveryColumnAndTheBootTime) {
  auto stat = ProcStat::parse("cpu  10 20 30 40 50 60 70 80 90 100\ncpu0 1 2 3 4 5 6 7 8 9 10\nbtime 1795272806\n");
  ASSERT_TRUE(stat);
  ASSERT_TRUE(stat->total);
  EXPECT_EQ(*stat->total, (cpu_ticks{10, 20, 30, 40, 50, 60, 70, 80, 90, 100}));
  EXPECT_EQ(stat->cpus.at(0), (cpu_ticks{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(stat->btime, 1795272806u);
}

TEST(ProcStat, ColumnsAnOldKernelDoesNotPrintReadZero) {
  auto stat = ProcStat::parse("cpu 5 6 7 8\ncpu0 5 6 7 8 9\n");
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->cpus.at(0), (cpu_ticks{5, 6, 7, 8, 9, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(stat->btime);
}

}  // namespace
