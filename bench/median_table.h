#pragma once
// Shared by the benchmarks that print our figure beside its peers': keeps the median of each
// benchmark's repetitions and prints them as one table with the ratio to a baseline row.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace pelmora::bench {

class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs)
      if (run.aggregate_name == "median") medians_us[run.run_name.function_name] = run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> medians_us;
};

// rows: (benchmark name, label); the first row is the baseline the ratios are taken against.
inline void printMedianTable(const std::map<std::string, double>& medians_us, const char* title,
                             const char* ratio_header, const std::vector<std::pair<const char*, const char*>>& rows,
                             int label_width) {
  if (rows.empty()) return;
  const auto base = medians_us.find(rows.front().first);
  if (base == medians_us.end()) return;
  std::printf("\n%-*s %14s %12s\n", label_width, title, "median (us)", ratio_header);
  for (const auto& [name, label] : rows) {
    auto it = medians_us.find(name);
    if (it == medians_us.end()) continue;
    std::printf("%-*s %14.1f %11.2fx\n", label_width, label, it->second, it->second / base->second);
  }
}

}  // namespace pelmora::bench
