#include "graphs/thermal_columns.h"

#include <algorithm>
#include <cmath>

#include "graphs/graph_geometry.h"
#include "sampling/temperature_collector.h"

namespace pelmora {
namespace {

constexpr double kMilliPerUnit = 1000.0;
constexpr double kScaleStep_C = 10.0;

template <typename T>
std::vector<T> newest(const std::vector<T>& all, double width) {
  const size_t keep = std::min(visibleColumns(width), all.size());
  return std::vector<T>(all.end() - static_cast<std::ptrdiff_t>(keep), all.end());
}

}  // namespace

std::optional<TemperatureRole> temperatureRole(const std::string& kind) {
  if (kind == TemperatureCollector::kCpu) return TemperatureRole::processor;
  if (kind == TemperatureCollector::kGpu) return TemperatureRole::gpu;
  if (kind == TemperatureCollector::kDisk) return TemperatureRole::disk;
  return std::nullopt;
}

std::array<const temperatureStats*, kTemperatureRoles> chosenSensors(const std::vector<temperatureStats>& sensors,
                                                                      const std::vector<std::string>& choice) {
  std::array<const temperatureStats*, kTemperatureRoles> out{};
  bool any = false;
  for (size_t line = 0; line < std::min(choice.size(), kTemperatureRoles); ++line) {
    auto found = std::find_if(sensors.begin(), sensors.end(), [&](const auto& s) { return s.name == choice[line]; });
    if (found == sensors.end()) continue;  // the line stays empty: the others keep their colours
    out[line] = &*found;
    any = true;
  }
  if (any) return out;
  for (size_t i : TemperatureCollector::defaultChoice(sensors))
    if (auto role = temperatureRole(sensors[i].kind)) out[static_cast<size_t>(*role)] = &sensors[i];
  return out;
}

TemperatureColumns temperatureColumns(const std::vector<std::vector<temperatureStats>>& history, double width,
                                      const std::vector<std::string>& choice) {
  TemperatureColumns out;
  double top_C = 0.0;
  std::vector<temperature_column> degrees;
  for (const auto& sample : newest(history, width)) {
    temperature_column column;
    const auto picks = chosenSensors(sample, choice);
    for (size_t role = 0; role < kTemperatureRoles; ++role) {
      if (!picks[role]) continue;
      column.value[role] = static_cast<double>(picks[role]->temp_mC) / kMilliPerUnit;
      top_C = std::max({top_C, column.value[role], static_cast<double>(picks[role]->crit_mC) / kMilliPerUnit});
    }
    degrees.push_back(column);
  }
  if (!history.empty()) {
    const auto picks = chosenSensors(history.back(), choice);
    for (size_t role = 0; role < kTemperatureRoles; ++role) {
      if (!picks[role]) continue;
      out.names[role] = picks[role]->name;
      out.newest_C[role] = static_cast<double>(picks[role]->temp_mC) / kMilliPerUnit;
      out.crit_C[role] = static_cast<double>(picks[role]->crit_mC) / kMilliPerUnit;
    }
  }
  if (top_C <= 0.0) return out;
  out.scale_C = std::ceil(top_C / kScaleStep_C) * kScaleStep_C;
  if (out.scale_C == top_C) out.scale_C += kScaleStep_C;  // a mark on the very top edge would be cut off
  for (auto& column : degrees)
    for (double& value : column.value) value /= out.scale_C;
  out.columns = std::move(degrees);
  return out;
}

BatteryColumns batteryColumns(const std::vector<batteryStats>& history, double width) {
  BatteryColumns out;
  const auto visible = newest(history, width);
  for (const auto& b : visible) out.peak_rate_w = std::max(out.peak_rate_w, b.power_w);
  for (const auto& b : visible)
    out.columns.push_back({std::clamp(b.charge_pct / 100.0, 0.0, 1.0), out.peak_rate_w > 0 ? b.power_w / out.peak_rate_w : 0.0});
  return out;
}

}  // namespace pelmora
