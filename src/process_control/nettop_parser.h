#pragma once
// The line format of pelmora-nettop ("time,name.pid,,,bytes_in,bytes_out", cumulative byte counts,
// once a second) and the arithmetic that turns it into per-process rates. Pure.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "process_control/procinfo.h"

namespace pelmora {

struct NettopSample {
  int32_t pid = 0;
  int64_t rx_bytes = 0;
  int64_t tx_bytes = 0;
  // Seconds since midnight from the line's "HH:MM:SS.ffffff" time; none when it is not one.
  std::optional<double> time_s;
  bool operator==(const NettopSample&) const = default;
};

// "HH:MM:SS" with an optional fraction, as seconds since midnight.
std::optional<double> parseTimeOfDay_s(std::string_view text);
// Seconds from one time of day to a later one, across midnight; none when the two are not a
// plausible step apart (more than a minute, or not forward).
std::optional<double> timeOfDayStep_s(double earlier_s, double later_s);

// One line without its line feed; none for a line that is malformed (ignored silently).
std::optional<NettopSample> parseNettopLine(std::string_view line);

// Appends a chunk of output to `buffer` and returns the samples of every line it completed; a
// trailing partial line stays in the buffer for the next chunk.
std::vector<NettopSample> feedNettopChunk(std::string& buffer, std::string_view chunk);

// Records one sample: rates are bits per second over the time between the tool's two lines (one
// second when the lines carry no usable time), smoothed with the given time constant; a counter
// that went down gives a sample of 0. A new process has no rate until its second line, whose rate
// it then shows as it is.
void recordNettopSample(std::map<int32_t, netUsage>& table, const NettopSample& sample, double time_constant_s);

}  // namespace pelmora
