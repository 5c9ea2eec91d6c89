#pragma once
// The geometry of a graph view, free of any toolkit so it can be checked exactly: where a series'
// polyline and fill go, where the dashed grid lines lie, how many columns fit. Coordinates have their
// origin at the bottom-left corner and y growing upwards, in points; the painter flips them.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace pelmora {

// One history entry is drawn every 2.0 points.
inline constexpr double kColumnWidth = 2.0;
// Dash pattern of the grids: 3 points drawn, 2 left out.
inline constexpr double kGridDashOn = 3.0;
inline constexpr double kGridDashOff = 2.0;

struct GraphPoint {
  double x = 0.0;
  double y = 0.0;
  bool operator==(const GraphPoint&) const = default;
};

struct GraphLine {
  GraphPoint from;
  GraphPoint to;
  bool operator==(const GraphLine&) const = default;
};

// A view smaller than one point in either direction shows nothing but its background.
bool drawsContent(double width, double height);

// The polyline of one series: it starts at (W + 1, 0), then the newest entry at x = W + 1 and each
// older one 2 points further left, down to x = -WIDTH + 1; y = (H - 1) * value(i). Values are not
// clamped: above 1.0 the line leaves the top and the view cuts it off.
struct SeriesPath {
  std::vector<GraphPoint> stroke;
  // The stroke closed down to the x axis: the area filled under the series.
  std::vector<GraphPoint> fill;
  // How many history entries the path visits.
  size_t entries = 0;
};
SeriesPath plotSeries(double width, double height, size_t count, const std::function<double(size_t)>& value);

struct GridOptions {
  bool show_time_grid = false;
  bool show_scale_grid = false;
  int64_t time_grid_columns = 30;  // spacing of the vertical lines, in history columns
  int64_t scale_grid_percent = 25; // spacing of the horizontal lines, in percent of the height
};
// Horizontal lines first (from y = -1.0 upwards), then vertical ones (from x = W + 1 leftwards).
std::vector<GraphLine> gridLines(double width, double height, const GridOptions& options);

// How many columns a view of this width shows: floor(W + WIDTH - 1) div floor(WIDTH) + 1.
size_t visibleColumns(double width);

// The time a graph of this width spans: one column per sample, one sample per interval.
double visibleSpan_s(double width, double sample_interval_s);
// A span as a person reads it on an axis: "45 s", "15 min", "2 h".
std::string spanText(double seconds);

}  // namespace pelmora
