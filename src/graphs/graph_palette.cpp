#include "graphs/graph_palette.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>

#include "support/default_settings.h"

namespace pelmora {
namespace {

std::optional<uint8_t> hexByte(std::string_view two) {
  unsigned value = 0;
  const auto result = std::from_chars(two.data(), two.data() + two.size(), value, 16);
  if (result.ec != std::errc() || result.ptr != two.data() + two.size()) return std::nullopt;
  return static_cast<uint8_t>(value);
}

std::map<GraphClass, std::vector<GraphColor>>& tables() {
  static auto* t = new std::map<GraphClass, std::vector<GraphColor>>();
  return *t;
}

nlohmann::json toJson(const std::vector<GraphColor>& colors) {
  nlohmann::json array = nlohmann::json::array();
  for (const auto& c : colors) array.push_back(colorToText(c));
  return array;
}

}  // namespace

std::string colorToText(const GraphColor& c) {
  char text[10];
  std::snprintf(text, sizeof text, "#%02X%02X%02X%02X", c.r, c.g, c.b, c.a);
  return text;
}

std::optional<GraphColor> colorFromText(std::string_view text) {
  if ((text.size() != 7 && text.size() != 9) || text.front() != '#') return std::nullopt;
  GraphColor c;
  uint8_t* parts[] = {&c.r, &c.g, &c.b, &c.a};
  for (size_t i = 0; 1 + 2 * i < text.size(); ++i) {
    auto byte = hexByte(text.substr(1 + 2 * i, 2));
    if (!byte) return std::nullopt;
    *parts[i] = *byte;
  }
  return c;
}

GraphColor adjustColourAndAlpha(const GraphColor& color, double factor) {
  const double keep = 1.0 - std::clamp(factor, 0.0, 1.0);
  GraphColor out = color;
  out.a = static_cast<uint8_t>(static_cast<double>(color.a) * keep + 0.5);
  return out;
}

const ColoursKey& GraphPalette::key(GraphClass graph) {
  switch (graph) {
    case GraphClass::cpu: return keys::kCpuColours;
    case GraphClass::mem: return keys::kMemColours;
    case GraphClass::gfx: return keys::kGfxColours;
    case GraphClass::io: return keys::kIOColours;
    case GraphClass::net: return keys::kNetColours;
    case GraphClass::load: return keys::kLoadColours;
    case GraphClass::proc: return keys::kProcColours;
    case GraphClass::power: return keys::kPowerColours;
    case GraphClass::fan: return keys::kFanColours;
    case GraphClass::temp: return keys::kTempColours;
    case GraphClass::battery: return keys::kBatteryColours;
  }
  return keys::kCpuColours;
}

std::vector<GraphColor> GraphPalette::defaults(GraphClass graph) {
  using namespace system_colors;
  switch (graph) {
    case GraphClass::cpu: return {green, red};
    case GraphClass::mem: return {blue, green, red};
    case GraphClass::gfx: return {blue, orange};
    case GraphClass::io: return {blue, red};
    case GraphClass::net: return {blue, green, orange, purple};
    case GraphClass::load: return {blue, green, red};
    case GraphClass::proc: return {blue, green, orange, red};
    case GraphClass::power: return {blue, green, red};
    case GraphClass::fan: return {blue, red, green};
    case GraphClass::temp: return {red, purple, blue};  // processor, GPU, disk
    case GraphClass::battery: return {green, orange};    // charge, rate
  }
  return {};
}

std::vector<GraphColor>& GraphPalette::colors(GraphClass graph) {
  auto [it, inserted] = tables().try_emplace(graph);
  if (inserted) it->second = defaults(graph);
  return it->second;
}

void GraphPalette::load(GraphClass graph, DefaultSettings& store) {
  const auto value = key(graph).load(store);
  if (!value || !value->is_array() || value->size() != defaults(graph).size()) return;
  std::vector<GraphColor> loaded;
  for (const auto& item : *value) {
    auto color = item.is_string() ? colorFromText(item.get<std::string>()) : std::nullopt;
    if (!color) return;
    loaded.push_back(*color);
  }
  colors(graph) = std::move(loaded);
}

void GraphPalette::setColor(GraphClass graph, int index, const GraphColor& color, DefaultSettings& store) {
  auto& array = colors(graph);
  if (index < 0 || static_cast<size_t>(index) >= array.size()) return;
  array[static_cast<size_t>(index)] = color;
  key(graph).save(store, toJson(array));
}

void GraphPalette::restoreDefaults(DefaultSettings& store) {
  for (GraphClass graph : kAllGraphClasses) {
    colors(graph) = defaults(graph);
    key(graph).save(store, toJson(colors(graph)));
  }
}

}  // namespace pelmora
