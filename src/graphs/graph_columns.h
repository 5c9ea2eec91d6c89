#pragma once
// How each metric graph turns the raw sample history (oldest first) into one value record per time
// column. Fractions (CPU, memory, GPU) are drawn against 0...1; the others are scaled to the peak of
// the columns the view can show, so the highest visible point touches the top. Pure functions.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sampling/sample_records.h"

namespace pelmora {

struct cpu_util {
  double pctIdle = 0.0;
  double pctUser = 0.0;
  double pctSystem = 0.0;
  double frequency = 0.0;  // MHz, of the older sample of the pair
  bool operator==(const cpu_util&) const = default;
};

// Fractions of the four counts' sum.
struct mem_stats {
  double free_count = 0.0;
  double active_count = 0.0;
  double inactive_count = 0.0;
  double wire_count = 0.0;
  bool operator==(const mem_stats&) const = default;
};

struct io_rate {
  double reads = 0.0;
  double writes = 0.0;
  bool operator==(const io_rate&) const = default;
};

// Byte deltas per sample; the texts multiply by 8 for bits.
struct bit_rate {
  double bps_in = 0.0;
  double bps_out = 0.0;
  double avg_bps_in = 0.0;
  double avg_bps_out = 0.0;
  bool operator==(const bit_rate&) const = default;
};

struct load_column {
  double one = 0.0;
  double five = 0.0;
  double fifteen = 0.0;
  bool operator==(const load_column&) const = default;
};

struct procStat {
  double user = 0.0;
  double system = 0.0;
  double other = 0.0;
  double translated = 0.0;
  bool operator==(const procStat&) const = default;
};

struct power_column {
  double total = 0.0;
  double cpu = 0.0;
  double gpu = 0.0;
  bool operator==(const power_column&) const = default;
};

struct fan_column {
  bool forced = false;
  double speed = 0.0;
  double max = 0.0;
  double min = 0.0;
  bool operator==(const fan_column&) const = default;
};

// Columns scaled to their peak; empty (and max 0) when the peak is 0.
template <typename Column>
struct PeakColumns {
  std::vector<Column> columns;
  double max = 0.0;
};

struct FanColumns {
  std::vector<fan_column> columns;
  int64_t min_speed = 100000;
  int64_t max_speed = 0;
};

// The difference of two readings of a 64-bit kernel counter. Such a counter never wraps; one that
// went backwards was reset (a disk or network card left, a driver reloaded), and that step counts 0
// rather than a spike as large as everything counted before.
int64_t counterDelta(int64_t older, int64_t newer);

std::vector<cpu_util> cpuColumns(const std::vector<cpu_sample_t>& history);
std::vector<mem_stats> memColumns(const std::vector<memoryStats>& history);
double vramUsedFraction(const graphicsCardStats& stats);
double utilisationFraction(const graphicsCardStats& stats);
// Operations per sample, or bytes when data_rate is set.
PeakColumns<io_rate> ioColumns(const std::vector<ioStats>& history, bool data_rate, double width);
PeakColumns<load_column> loadColumns(const std::vector<loadAverage>& history, double width);
// The peak is that of the stacked total (user + system + other) and of the translated count.
PeakColumns<procStat> procColumns(const std::vector<procstat>& history, double width);
PeakColumns<power_column> powerColumns(const std::vector<powerStats>& history, double width);
FanColumns fanColumns(const std::vector<fanStats>& history, double width);

// Network averaging: the length N in samples from the pop-up's index (0: 5, 1: 10, else 60).
int networkAveragingLength(int64_t menu_index);
struct NetworkAveraging {
  int length = 10;
  bool exponential = true;
};
// One record per sample after the first: the byte deltas and their running averages.
std::vector<bit_rate> networkRates(const std::vector<netStats>& history, const NetworkAveraging& averaging);
PeakColumns<bit_rate> netColumns(const std::vector<netStats>& history, const NetworkAveraging& averaging,
                                 double width);

}  // namespace pelmora
