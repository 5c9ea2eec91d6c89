// The pelmora-nettop line format and the rates made from it.
#include "process_control/nettop_parser.h"

#include <gtest/gtest.h>

namespace pelmora {
namespace {

TEST(NettopLine, LabelsAndFields) {
  struct Case {
    const char* line;
    std::optional<NettopSample> expected;
  };
  const Case cases[] = {
      {"12:00:00.5,firefox.4242,,,1000,200", NettopSample{4242, 1000, 200, 43200.5}},
      {"t, Web Content.1.2.77 ,,,5,6", NettopSample{77, 5, 6, {}}},   // dots and spaces in the name
      {"t,python3.11.900,,,0,0,extra", NettopSample{900, 0, 0, {}}},  // more fields are fine
      {"t,name.12,,,7,8\r", NettopSample{12, 7, 8, {}}},
      {"t,nodot,,,1,2", std::nullopt},
      {"t,name.,,,1,2", std::nullopt},
      {"t,name.x1,,,1,2", std::nullopt},
      {"t,name.99999999999,,,1,2", std::nullopt},  // not a 32-bit pid
      {"t,   ,,,1,2", std::nullopt},
      {"t,name.5,,,1", std::nullopt},  // five fields
      {"t,name.5,,,abc,2", std::nullopt},
      {"t,name.5,,,1,2x", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(parseNettopLine(c.line), c.expected);
  }
}

TEST(NettopLine, ChunksSplitAnywhereYieldEachLineOnceWhenItEnds) {
  const std::string output = "t,a.1,,,10,20\nt,b b.2,,,30,40\nbad line\nt,c.3,,,50,60\nt,d.4,,,1";
  const std::vector<NettopSample> complete = {{1, 10, 20, {}}, {2, 30, 40, {}}, {3, 50, 60, {}}};
  for (size_t cut1 = 0; cut1 <= output.size(); cut1 += 3) {
    for (size_t cut2 = cut1; cut2 <= output.size(); cut2 += 7) {
      std::string buffer;
      std::vector<NettopSample> got;
      for (auto piece : {output.substr(0, cut1), output.substr(cut1, cut2 - cut1), output.substr(cut2)}) {
        for (auto& s : feedNettopChunk(buffer, piece)) got.push_back(s);
      }
      ASSERT_EQ(got, complete) << "cuts " << cut1 << "," << cut2;
      EXPECT_EQ(buffer, "t,d.4,,,1");  // the unfinished line waits for the next chunk
    }
  }
}

TEST(NettopLine, TimesOfDayAndTheStepsBetweenThem) {
  const struct {
    const char* text;
    std::optional<double> seconds;
  } times[] = {
      {"12:00:00.5", 43200.5}, {"00:00:01", 1.0}, {"23:59:59.250000", 86399.25}, {"01:02:03.000001", 3723.000001},
      {"24:00:00", std::nullopt}, {"1:00:00", std::nullopt}, {"12:00:00,5", std::nullopt},
      {"12:00:00.", std::nullopt}, {"12:60:00", std::nullopt}, {"t", std::nullopt}, {"", std::nullopt},
  };
  for (const auto& t : times) {
    SCOPED_TRACE(t.text);
    const auto got = parseTimeOfDay_s(t.text);
    ASSERT_EQ(got.has_value(), t.seconds.has_value());
    if (got) {
      EXPECT_NEAR(*got, *t.seconds, 1e-9);
    }
  }
  const struct {
    double earlier, later;
    std::optional<double> step;
  } steps[] = {
      {10.0, 11.5, 1.5}, {86399.5, 0.5, 1.0}, {10.0, 10.0, std::nullopt}, {10.0, 9.0, std::nullopt},
      {10.0, 100.0, std::nullopt},
  };
  for (const auto& s : steps) {
    EXPECT_EQ(timeOfDayStep_s(s.earlier, s.later), s.step) << s.earlier << " " << s.later;
  }
}

// A new process starts at 0. The first measured rate is shown as it is (an average starting from 0
// would read a steady 8 kbit/s as 1.5 kbit/s after a second); later ones are smoothed over the real
// step between lines, and a counter that went back (the connection table restarted) gives no rate.
TEST(NettopRates, FirstRateAsMeasuredThenSmoothedOverTheRealStepNeverNegative) {
  std::map<int32_t, netUsage> table;
  recordNettopSample(table, {1, 0, 500, 100.0}, 5.0);
  EXPECT_EQ(table[1].rx_rate.current(), 0.0);
  EXPECT_EQ(table[1].tx_rate.current(), 0.0);
  const double alpha = 1.0 - std::exp(-1.0 / 5.0);
  const struct {
    int64_t rx, tx;
    std::optional<double> time_s;  // a line without one counts as one second after the one before
    double rx_bits, tx_bits;       // the last measured rates
    std::optional<double> rx_shown;
  } steps[] = {
      {1000, 500, 101.0, 8000, 0, 8000},
      {3000, 500, 103.0, 8000, 0, 8000},  // the tool ran late: 2000 bytes over two seconds
      {5000, 600, {}, 16000, 800, 8000 + alpha * (16000 - 8000)},
      {100, 50, {}, 0, 0, {}},
      {300, 150, {}, 1600, 800, {}},  // counting goes on from the new values
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.rx);
    recordNettopSample(table, {1, s.rx, s.tx, s.time_s}, 5.0);
    EXPECT_DOUBLE_EQ(table[1].rx_rate.last_sample, s.rx_bits);
    EXPECT_DOUBLE_EQ(table[1].tx_rate.last_sample, s.tx_bits);
    EXPECT_EQ(table[1].rx_bytes, s.rx);
    if (s.rx_shown) {
      EXPECT_NEAR(table[1].rx_rate.current(), *s.rx_shown, 1e-9);
    }
  }
}

}  // namespace
}  // namespace pelmora
