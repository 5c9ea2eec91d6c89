#pragma once
// Turns samples into text for the command line: one human line per sample (rates from the
// difference with the previous sample) or the whole SampleSet as JSON. Pure: no I/O, no clock.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sampling/sample_records.h"

namespace pelmora {

struct SampleFormat {
  // Busy share of each processor in percent over the interval between two samples: 100 x (user +
  // system) / (user + system + idle) of the differences. None for a processor whose counters did
  // not advance or went backwards (it was offline for part of the interval), or that is new.
  static std::vector<std::optional<double>> cpuBusyPercent(const std::vector<cpu_sample_t>& previous,
                                                           const std::vector<cpu_sample_t>& current);
  // Per second; 0 when no time passed or the counter went backwards (a device was replaced).
  static double ratePerSecond(int64_t previous, int64_t current, int64_t interval_us);
  // 1536 -> "1.5 KiB"; below 1024 whole bytes ("512 B").
  static std::string bytes(double value);
  // 52000 -> "52.0 °C".
  static std::string celsius(int64_t mC);
  // Whole minutes as hours:minutes: 12266 -> "3:24".
  static std::string duration(int64_t seconds);
  // One line; without a previous sample (or interval) the rates read "--".
  static std::string line(const SampleSet* previous, const SampleSet& current, int64_t interval_us,
                          int64_t page_size_bytes, int64_t memory_total_bytes);
  static nlohmann::ordered_json toJson(const SampleSet& sample);
};

}  // namespace pelmora
