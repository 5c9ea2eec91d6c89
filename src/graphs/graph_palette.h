#pragma once
// The series colours of the graph classes. Colours are per class, not per view: one shared array
// for each class, read from the settings under the class's key and written back when the user picks
// a new colour in a legend. Stored as "#RRGGBBAA" strings. Main thread only.
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/settings_keys.h"

namespace pelmora {

class DefaultSettings;

struct GraphColor {
  uint8_t r = 0, g = 0, b = 0, a = 255;
  bool operator==(const GraphColor&) const = default;
};

// The desktop's standard accent colours, the defaults of the series.
namespace system_colors {
inline constexpr GraphColor blue{0, 122, 255, 255};
inline constexpr GraphColor green{52, 199, 89, 255};
inline constexpr GraphColor red{255, 59, 48, 255};
inline constexpr GraphColor orange{255, 149, 0, 255};
inline constexpr GraphColor purple{175, 82, 222, 255};
inline constexpr GraphColor gray{142, 142, 147, 255};
}  // namespace system_colors

std::string colorToText(const GraphColor& color);
// "#RRGGBB" or "#RRGGBBAA"; none for anything else.
std::optional<GraphColor> colorFromText(std::string_view text);
// The fill under a series: the series colour made more transparent by the factor (0...1).
GraphColor adjustColourAndAlpha(const GraphColor& color, double factor);

enum class GraphClass { cpu, mem, gfx, io, net, load, proc, power, fan, temp, battery };
inline constexpr std::array<GraphClass, 11> kAllGraphClasses = {
    GraphClass::cpu,  GraphClass::mem,  GraphClass::gfx,   GraphClass::io,  GraphClass::net,  GraphClass::load,
    GraphClass::proc, GraphClass::power, GraphClass::fan, GraphClass::temp, GraphClass::battery};

class GraphPalette {
 public:
  // "cpu_colors", "mem_colors", ...
  static const ColoursKey& key(GraphClass graph);
  static std::vector<GraphColor> defaults(GraphClass graph);

  // The class's shared array (the defaults until loaded or changed).
  static std::vector<GraphColor>& colors(GraphClass graph);
  // Replaces the shared array with the stored one when the settings hold a well-formed array of the
  // right length; anything else leaves it alone.
  static void load(GraphClass graph, DefaultSettings& store);
  // Sets one colour and saves the whole array. An index outside the array changes nothing.
  static void setColor(GraphClass graph, int index, const GraphColor& color, DefaultSettings& store);
  // Every class back to its defaults, each saved under its key.
  static void restoreDefaults(DefaultSettings& store);
};

}  // namespace pelmora
