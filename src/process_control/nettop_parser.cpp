#include "process_control/nettop_parser.h"

#include <algorithm>

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
  return NettopSample{static_cast<int32_t>(*pid), *rx, *tx};
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
  constexpr double kStep_s = 1.0;  // the tool writes once a second
  auto it = table.find(sample.pid);
  netUsage use;
  if (it != table.end()) {
    use = it->second;
    const int64_t drx = std::max<int64_t>(0, sample.rx_bytes - use.rx_bytes);
    const int64_t dtx = std::max<int64_t>(0, sample.tx_bytes - use.tx_bytes);
    use.rx_rate.update(static_cast<double>(drx) * 8.0, time_constant_s, kStep_s);
    use.tx_rate.update(static_cast<double>(dtx) * 8.0, time_constant_s, kStep_s);
  }
  use.rx_bytes = sample.rx_bytes;
  use.tx_bytes = sample.tx_bytes;
  table[sample.pid] = use;
}

}  // namespace pelmora
