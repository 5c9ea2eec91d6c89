#include "process_control/nettop_parser.h"

#include <algorithm>
#include <cmath>

#include "support/text.h"

namespace pelmora {

std::optional<NettopSample> parseNettopLine(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const auto fields = split(line, ',');
  if (fields.size() < 6) return std::nullopt;
  const auto label = trim(fields[1]);
  if (label.empty()) return std::nullopt;
  const auto rx = parseInt64(trim(fields[4]));
  const auto tx = parseInt64(trim(fields[5]));
  if (!rx || !tx) return std::nullopt;
  const auto dot = label.rfind('.');
  if (dot == std::string_view::npos) return std::nullopt;
  const auto pid = parseInt64(label.substr(dot + 1));
  if (!pid || *pid < INT32_MIN || *pid > INT32_MAX) return std::nullopt;
  return NettopSample{static_cast<int32_t>(*pid), *rx, *tx, parseTimeOfDay_s(trim(fields[0]))};
}

std::optional<double> parseTimeOfDay_s(std::string_view text) {
  const auto parts = split(text, ':');
  if (parts.size() != 3 || parts[0].size() != 2 || parts[1].size() != 2 || parts[2].size() < 2) return std::nullopt;
  const auto hours = parseInt64(parts[0]), minutes = parseInt64(parts[1]);
  const auto whole = parseInt64(parts[2].substr(0, 2));
  if (!hours || !minutes || !whole || *hours < 0 || *hours > 23 || *minutes < 0 || *minutes > 59 || *whole < 0 ||
      *whole > 60) {
    return std::nullopt;
  }
  double fraction = 0.0;
  if (parts[2].size() > 2) {
    const std::string_view digits = parts[2].substr(3);
    const auto value = parseInt64(digits);
    if (parts[2][2] != '.' || digits.empty() || digits.size() > 9 || !value || *value < 0) return std::nullopt;
    fraction = static_cast<double>(*value) / std::pow(10.0, static_cast<double>(digits.size()));
  }
  return static_cast<double>(*hours * 3600 + *minutes * 60 + *whole) + fraction;
}

std::optional<double> timeOfDayStep_s(double earlier_s, double later_s) {
  constexpr double kDay_s = 86400.0, kLongestStep_s = 60.0;
  double step = later_s - earlier_s;
  if (step < -kDay_s / 2) step += kDay_s;  // past midnight
  if (step <= 0.0 || step > kLongestStep_s) return std::nullopt;
  return step;
}

std::vector<NettopSample> feedNettopChunk(std::string& buffer, std::string_view chunk) {
  std::vector<NettopSample> out;
  for (;;) {
    const auto lf = chunk.find('\n');
    if (lf == std::string_view::npos) break;
    buffer.append(chunk.substr(0, lf));
    if (auto sample = parseNettopLine(buffer)) out.push_back(*sample);
    buffer.clear();
    chunk.remove_prefix(lf + 1);
  }
  buffer.append(chunk);
  return out;
}

void recordNettopSample(std::map<int32_t, netUsage>& table, const NettopSample& sample, double time_constant_s) {
  constexpr double kToolPeriod_s = 1.0;  // the tool writes once a second
  auto it = table.find(sample.pid);
  netUsage use;
  if (it != table.end()) {
    use = it->second;
    // A loaded machine runs the tool late now and then: the bytes are over the real step.
    const auto measured = use.time_s && sample.time_s ? timeOfDayStep_s(*use.time_s, *sample.time_s) : std::nullopt;
    const double step_s = measured.value_or(kToolPeriod_s);
    const int64_t drx = std::max<int64_t>(0, sample.rx_bytes - use.rx_bytes);
    const int64_t dtx = std::max<int64_t>(0, sample.tx_bytes - use.tx_bytes);
    use.rx_rate.update(static_cast<double>(drx) * 8.0 / step_s, time_constant_s, step_s);
    use.tx_rate.update(static_cast<double>(dtx) * 8.0 / step_s, time_constant_s, step_s);
  }
  use.rx_bytes = sample.rx_bytes;
  use.tx_bytes = sample.tx_bytes;
  use.time_s = sample.time_s;
  table[sample.pid] = use;
}

}  // namespace pelmora
