#include "graphs/graph_geometry.h"

#include <cmath>

namespace pelmora {

bool drawsContent(double width, double height) { return width >= 1.0 && height >= 1.0; }

SeriesPath plotSeries(double width, double height, size_t count, const std::function<double(size_t)>& value) {
  SeriesPath path;
  path.stroke.push_back({width + 1.0, 0.0});
  double x = width;
  // Walk from the newest entry leftwards; stop one column past the left edge or at the oldest entry.
  for (size_t left = count; x >= -kColumnWidth && left > 0; x -= kColumnWidth) {
    const size_t i = --left;
    path.stroke.push_back({x + 1.0, (height - 1.0) * value(i)});
    ++path.entries;
  }
  path.fill = path.stroke;
  path.fill.push_back({x + kColumnWidth, 0.0});
  path.fill.push_back({width + 1.0, 0.0});
  return path;
}

std::vector<GraphLine> gridLines(double width, double height, const GridOptions& options) {
  std::vector<GraphLine> lines;
  const double g = height + 2.0;
  if (options.show_scale_grid) {
    const double d = g * static_cast<double>(options.scale_grid_percent) / 100.0;
    if (g >= -1.0 && d > 0.0) {
      // Each line from its index, so rounding does not pile up over many steps.
      for (int64_t k = 0;; ++k) {
        const double y = -1.0 + static_cast<double>(k) * d;
        if (y > g) break;
        lines.push_back({{0.0, y}, {width, y}});
      }
    }
  }
  if (options.show_time_grid && options.time_grid_columns >= 1) {
    const double spacing = kColumnWidth * static_cast<double>(options.time_grid_columns);
    for (int64_t k = 0;; ++k) {
      const double x = width + 1.0 - static_cast<double>(k) * spacing;
      if (x <= 0.0) break;
      lines.push_back({{x, 0.0}, {x, g}});
    }
  }
  return lines;
}

size_t visibleColumns(double width) {
  if (!(width > 0.0)) return 1;
  const auto span = static_cast<int64_t>(std::floor(width + kColumnWidth - 1.0));
  const auto step = static_cast<int64_t>(std::floor(kColumnWidth));
  return static_cast<size_t>(span / step + 1);
}

double visibleSpan_s(double width, double sample_interval_s) {
  if (!(width > 0.0)) return 0.0;
  return std::floor(width / kColumnWidth) * sample_interval_s;
}

std::string spanText(double seconds) {
  const auto whole = static_cast<int64_t>(std::llround(seconds));
  if (whole < 120) return std::to_string(whole) + " s";
  if (whole < 2 * 3600) return std::to_string((whole + 30) / 60) + " min";
  return std::to_string((whole + 1800) / 3600) + " h";
}

}  // namespace pelmora
