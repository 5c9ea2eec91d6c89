#include "support/text.h"

#include <gtest/gtest.h>

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
