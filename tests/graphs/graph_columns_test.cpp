#include "graphs/graph_columns.h"

#include <gtest/gtest.h>

using namespace pelmora;

namespace {

constexpr int64_t k2to32 = int64_t{1} << 32;

TEST(CpuColumns, Rules) {
  struct Case {
    const char* what;
    std::vector<cpu_sample_t> history;  // system, user, idle, frequency
    std::vector<cpu_util> expected;     // idle, user, system, frequency
  } cases[] = {
      {"empty", {}, {}},
      {"one sample draws nothing", {{1, 2, 3, 800}}, {}},
      {"user grew, idle did not", {{10, 10, 10, 800}, {10, 30, 10, 900}}, {{0, 1, 0, 800}}},
      {"nothing grew", {{5, 5, 5, 0}, {5, 5, 5, 0}}, {{0, 0, 0, 0}}},
      {"a counter going backwards is no change",
       {{100, 10, 10, 0}, {40, 20, 40, 0}}, {{0.75, 0.25, 0, 0}}},
      {"frequency one sample behind",
       {{0, 0, 0, 1000}, {1, 1, 2, 2000}, {2, 3, 3, 3000}},
       {{0.5, 0.25, 0.25, 1000}, {0.25, 0.5, 0.25, 2000}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(cpuColumns(c.history), c.expected);
  }
}

TEST(MemAndGfxColumns, FractionsOfTheSum) {
  // free, active, inactive, wired
  EXPECT_EQ(memColumns({{1, 1, 1, 1}, {0, 0, 0, 0}, {50, 25, 0, 25}}),
            (std::vector<mem_stats>{{0.25, 0.25, 0.25, 0.25}, {0, 0, 0, 0}, {0.5, 0.25, 0, 0.25}}));
  EXPECT_DOUBLE_EQ(vramUsedFraction({1000, 250, 750, 0, 40}), 0.25);
  EXPECT_DOUBLE_EQ(vramUsedFraction({0, 250, 0, 0, 40}), 0.0);
  EXPECT_DOUBLE_EQ(utilisationFraction({0, 0, 0, 0, 40}), 0.4);
}

TEST(CounterDelta, ACounterThatWentBackwardsWasResetAndCountsZero) {
  struct Case {
    int64_t older, newer, delta;
  } cases[] = {
      {5, 9, 4},
      {7, 7, 0},
      {0, INT64_MAX, INT64_MAX},        // no overflow on the way
      {k2to32 - 6, 10, 0},              // 64-bit counters never wrap at 32 bits
      {3 * k2to32 + 5, 1, 0},           // a network card left and came back
      {INT64_MAX, 0, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(counterDelta(c.older, c.newer), c.delta) << c.older << " " << c.newer;
}

// Deltas of the chosen counters, scaled to the peak of the columns a view of that width shows. A disk
// that leaves takes its bytes out of the total: the step down is a zero column, no gigabyte spike
// that would flatten every other column of the Total Disk I/O graph.
TEST(IoColumns, DeltasOfTheChosenCountersScaledToTheVisiblePeak) {
  const int64_t gib = int64_t{1} << 30;
  // bytes_read, bytes_write, count_read, count_write
  const std::vector<ioStats> history = {{0, 0, 2, 0}, {100, 400, 18, 4}, {300, 400, 26, 8}};
  const std::vector<ioStats> reset = {{gib, gib, 0, 0}, {gib + 100, gib + 200, 0, 0}, {50, 60, 0, 0}, {150, 160, 0, 0}};
  const struct {
    const char* what;
    PeakColumns<io_rate> got;
    double max;
    std::vector<io_rate> columns;
  } cases[] = {
      {"operations", ioColumns(history, false, 100), 16, {{1.0, 0.25}, {0.5, 0.25}}},
      {"bytes", ioColumns(history, true, 100), 400, {{0.25, 1.0}, {0.5, 0}}},
      {"one column wide: the newest delta and its peak", ioColumns(history, true, 0.5), 200, {{1.0, 0}}},
      {"nothing moved", ioColumns({{1, 1, 1, 1}, {1, 1, 1, 1}}, true, 100), 0, {}},
      {"a disk left", ioColumns(reset, true, 100), 200, {{0.5, 1.0}, {0, 0}, {0.5, 0.5}}},
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(c.got.max, c.max) << c.what;
    EXPECT_EQ(c.got.columns, c.columns) << c.what;
  }
}

TEST(PeakColumns, LoadPowerAndProcesses) {
  std::vector<loadAverage> load;
  for (int i = 0; i < 72; ++i) load.push_back({double(i), 1, 0.5});
  auto l = loadColumns(load, 100);
  ASSERT_EQ(l.columns.size(), 51u);  // the newest 51 of 72
  EXPECT_DOUBLE_EQ(l.max, 71);
  EXPECT_EQ(l.columns.front(), (load_column{21 / 71.0, 1 / 71.0, 0.5 / 71.0}));
  EXPECT_DOUBLE_EQ(l.columns.back().one, 1.0);

  // Old peaks scrolled out of view do not count; a visible window of zeros draws nothing.
  std::vector<loadAverage> quiet(60, loadAverage{});
  quiet.front() = {9, 9, 9};
  auto q = loadColumns(quiet, 100);
  EXPECT_TRUE(q.columns.empty());
  EXPECT_EQ(q.max, 0);

  auto p = powerColumns({{10, 4, 2}, {20, 8, 1}}, 100);
  EXPECT_DOUBLE_EQ(p.max, 20);
  EXPECT_EQ(p.columns, (std::vector<power_column>{{0.5, 0.2, 0.1}, {1.0, 0.4, 0.05}}));

  // user, system, other, translated: the peak is the stacked total, or the translated count if larger.
  auto procs = procColumns({{10, 20, 10, 0}, {5, 5, 5, 3}}, 100);
  EXPECT_DOUBLE_EQ(procs.max, 40);
  EXPECT_EQ(procs.columns.back(), (procStat{0.125, 0.125, 0.125, 0.075}));
  EXPECT_DOUBLE_EQ(procColumns({{1, 1, 1, 50}}, 100).max, 50);
}

TEST(FanColumns, SpeedsOverTheVisibleWindow) {
  auto none = fanColumns({}, 100);
  EXPECT_TRUE(none.columns.empty());
  EXPECT_EQ(none.min_speed, 100000);
  EXPECT_EQ(none.max_speed, 0);

  // forced, speed, max, min
  auto fans = fanColumns({{false, 1200, 6000, 1000}, {true, 6500, 6000, 1200}}, 100);
  EXPECT_EQ(fans.max_speed, 6500);  // a fan driven above its stated maximum sets the scale
  EXPECT_EQ(fans.min_speed, 1000);
  ASSERT_EQ(fans.columns.size(), 2u);
  EXPECT_EQ(fans.columns[1], (fan_column{true, 1.0, 6000 / 6500.0, 1200 / 6500.0}));

  auto stopped = fanColumns({{false, 0, 0, 0}}, 100);
  EXPECT_TRUE(stopped.columns.empty());
  EXPECT_EQ(stopped.min_speed, 0);
}

TEST(NetworkAveraging, BothMethods) {
  for (auto [index, length] : {std::pair{0, 5}, {1, 10}, {2, 60}, {-1, 60}})
    EXPECT_EQ(networkAveragingLength(index), length) << index;

  // bytes in grow by 100 per sample, bytes out by 10, except that the out counter is reset (the
  // card left and came back) between samples 3 and 4, where that step counts 0.
  std::vector<netStats> history;
  for (int64_t i = 0; i < 8; ++i) history.push_back({1000 + 100 * i, i < 4 ? k2to32 + 10 * i : 10 * (i - 4)});
  const std::vector<double> out = {10, 10, 10, 0, 10, 10, 10};
  EXPECT_TRUE(networkRates({history[0]}, {5, true}).empty());

  struct Case {
    const char* what;
    NetworkAveraging averaging;
    std::vector<double> avg_in;
    std::vector<double> avg_out;
  } cases[] = {
      // Plain: the sum of the last N steps divided by N, even while fewer exist (reads low first).
      {"plain, 5", {5, false}, {20, 40, 60, 80, 100, 100, 100}, {2, 4, 6, 6, 8, 8, 8}},
      {"plain, 10", {10, false}, {10, 20, 30, 40, 50, 60, 70}, {1, 2, 3, 3, 4, 5, 6}},
      // Exponential from 0, alpha = 1 - e^(-1/N): a constant rate is approached, never reached.
      {"exponential, 5",
       {5, true},
       {18.127, 32.968, 45.119, 55.067, 63.212, 69.881, 75.340},
       {1.813, 3.297, 4.512, 3.694, 4.837, 5.773, 6.539}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto rates = networkRates(history, c.averaging);
    ASSERT_EQ(rates.size(), 7u);
    for (size_t i = 0; i < rates.size(); ++i) {
      EXPECT_DOUBLE_EQ(rates[i].bps_in, 100);
      EXPECT_DOUBLE_EQ(rates[i].bps_out, out[i]);
      EXPECT_NEAR(rates[i].avg_bps_in, c.avg_in[i], 1e-3);
      EXPECT_NEAR(rates[i].avg_bps_out, c.avg_out[i], 1e-3);
    }
  }

  // The peak is the largest of all four series over the visible columns.
  auto cols = netColumns(history, {5, false}, 100);
  EXPECT_DOUBLE_EQ(cols.max, 100);
  EXPECT_DOUBLE_EQ(cols.columns.front().avg_bps_in, 0.2);
  EXPECT_DOUBLE_EQ(cols.columns.back().bps_out, 0.1);
}

}  // namespace
