#include "graphs/value_formatter.h"

#include <gtest/gtest.h>

using namespace pelmora;

namespace {

TEST(ValueFormatter, PrefixesScalingAndTheNumberWriter) {
  struct Case {
    double value;
    int base;
    const char* text;
  } cases[] = {
      {0, 1000, "0 B/s"},  // whole units below the first prefix
      {999, 1000, "999 B/s"},
      {1000, 1000, "1.0 kB/s"},  // exactly the base already takes the prefix
      {1023, 1024, "1023 B/s"},
      {1024, 1024, "1.0 KiB/s"},
      {1.5e6, 1000, "1.5 MB/s"},
      {3.0 * 1024 * 1024 * 1024, 1024, "3.0 GiB/s"},
      {2.5e12, 1000, "2.5 TB/s"},
      {4e15, 1000, "4000.0 TB/s"},  // nothing beyond T
  };
  for (const auto& c : cases) EXPECT_EQ(formatValue(c.value, c.base, 1, "B/s"), c.text) << c.value;
  // The number writer, not the process's locale, decides the decimal mark.
  auto comma = [](double v, int decimals) {
    std::string s = writeNumberC(v, decimals);
    for (auto& ch : s)
      if (ch == '.') ch = ',';
    return s;
  };
  EXPECT_EQ(formatValue(12345, 1000, 2, "bit/s", comma), "12,35 kbit/s");
  EXPECT_EQ(scaleValue(2048, 1024), (ScaledValue{2.0, "Ki"}));
}

}  // namespace
