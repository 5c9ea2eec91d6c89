// The text helpers and the /proc/stat parser built on them: text in, record out.
#include "support/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/proc_stat.h"

using namespace pelmora;

TEST(Text, CpuLists) {
  struct Case {
    const char* text;
    std::optional<std::vector<int>> cpus;
  } cases[] = {
      {"0-3", std::vector<int>{0, 1, 2, 3}},
      {"0,2-3,8\n", std::vector<int>{0, 2, 3, 8}},
      {"", std::vector<int>{}},
      {"5", std::vector<int>{5}},
      {"3-1", std::nullopt},
      {"a-b", std::nullopt},
      {"1-2-3", std::nullopt},
      {"-1", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(parseCpuList(c.text), c.cpus) << c.text;
}

TEST(Text, NumbersMustBeWhole) {
  EXPECT_EQ(parseInt64("42"), 42);
  EXPECT_EQ(parseInt64("-7"), -7);
  EXPECT_EQ(parseInt64("+7"), 7);
  EXPECT_EQ(parseInt64("4 2"), std::nullopt);
  EXPECT_EQ(parseInt64(""), std::nullopt);
  EXPECT_EQ(parseInt64("99999999999999999999"), std::nullopt);
  EXPECT_EQ(parseUInt64("18446744073709551615"), UINT64_MAX);
  EXPECT_EQ(parseDouble("2064"), 2064.0);
  EXPECT_EQ(parseDouble("2064.5"), 2064.5);
  EXPECT_EQ(parseDouble("2064MHz"), std::nullopt);
}

TEST(Text, SplitKeepsOrDropsEmptyPieces) {
  EXPECT_EQ(split("a,,b", ',').size(), 3u);
  EXPECT_EQ(split("a,,b", ',', false).size(), 2u);
  EXPECT_EQ(splitWhitespace("  2064   MHz \n").size(), 2u);
  EXPECT_EQ(trim(" \t x y \n"), "x y");
}

TEST(Text, NaturalOrderOfDeviceNames) {
  const std::vector<std::string> ordered = {
      "card0", "card1", "card2", "card9", "card10", "card10-DP-1", "card11", "card100",
      "fan1_input", "fan2_input", "fan10_input", "hwmon0", "hwmon01", "hwmon1", "hwmon9", "hwmon10",
      "intel-rapl:0", "intel-rapl:0:1", "intel-rapl:1", "renderD128", "version",
  };
  for (size_t i = 0; i < ordered.size(); ++i) {
    for (size_t j = 0; j < ordered.size(); ++j) {
      EXPECT_EQ(naturalLess(ordered[i], ordered[j]), i < j) << ordered[i] << " vs " << ordered[j];
    }
  }
  // Runs of digits longer than any integer still compare by value.
  EXPECT_TRUE(naturalLess("x99999999999999999999999", "x100000000000000000000000"));
}

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
  ASSERT_TRUE(stat && stat->total);
  EXPECT_EQ(*stat->total, (cpu_ticks{10, 20, 30, 40, 50, 60, 70, 80, 90, 100}));
  EXPECT_EQ(stat->cpus.at(0), (cpu_ticks{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(stat->btime, 1795272806u);
  // Columns an old kernel does not print read zero.
  stat = ProcStat::parse("cpu 5 6 7 8\ncpu0 5 6 7 8 9\n");
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->cpus.at(0), (cpu_ticks{5, 6, 7, 8, 9, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(stat->btime);
}
