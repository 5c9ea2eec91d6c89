#include "graphs/views/fill_piece.h"

#include <algorithm>
#include <cmath>

namespace pelmora {
namespace {

// The pixel rows [from, to) an edge between two heights passes through.
struct Rows {
  int from = 0;
  int to = 0;
};

Rows rowsOf(double y1, double y2) {
  const int from = static_cast<int>(std::floor(std::min(y1, y2)));
  return {from, std::max(static_cast<int>(std::ceil(std::max(y1, y2))), from + 1)};
}

int rowsIn(Rows rows, int from, int to) { return std::max(0, std::min(rows.to, to) - std::max(rows.from, from)); }

bool cuttable(const std::vector<GraphPoint>& top, int bottom_px) {
  for (size_t k = 0; k < top.size(); ++k) {
    const GraphPoint& p = top[k];
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || p.x != std::floor(p.x) || p.y > bottom_px) return false;
    if (k > 0 && !(p.x < top[k - 1].x)) return false;
  }
  return !top.empty();
}

// Points [first, last] of the outline as a slab grows to the left.
struct Slab {
  size_t first = 0;
  size_t last = 0;
  double highest = 0.0;  // the least y of its points
  int edge_spans = 0;    // three per row for each edge between its points
};

// Cuts the area above `interior` (the first row wholly under the series) into slabs between points.
class SlabCutter {
 public:
  SlabCutter(const std::vector<GraphPoint>& top, int bottom_px, int interior)
      : m_top(top), m_bottom(bottom_px), m_interior(interior) {}

  void cut(std::vector<FillPiece>& out) const {
    const size_t n = m_top.size();
    for (size_t i = 0;;) {
      Slab slab{i, i, m_top[i].y, 0};
      if (i + 1 < n) slab = grown(slab);
      while (slab.last + 1 < n) {
        const Slab wider = grown(slab);
        if (bound(wider) > kMaxSpansPerFill) break;
        slab = wider;
      }
      push(out, slab);
      if (slab.last == n - 1) return;
      i = slab.last;
    }
  }

 private:
  Slab grown(Slab slab) const {
    const GraphPoint &from = m_top[slab.last], &to = m_top[slab.last + 1];
    slab.edge_spans += 3 * rowsIn(rowsOf(from.y, to.y), 0, m_interior);
    slab.highest = std::min(slab.highest, to.y);
    ++slab.last;
    return slab;
  }

  int firstRow(const Slab& slab) const { return std::max(0, static_cast<int>(std::floor(slab.highest))); }
  bool closes(const Slab& slab) const { return slab.last == m_top.size() - 1; }

  // Spans of the rows the slab's outline passes through, at most: per row one run wholly inside,
  // and three for each edge (two partly covered pixels and the run after them).
  int bound(const Slab& slab) const {
    const int closing = closes(slab) ? 3 * rowsIn(rowsOf(m_top[slab.last].y, m_bottom), 0, m_interior) : 0;
    return std::max(0, m_interior - firstRow(slab)) + slab.edge_spans + closing;
  }

  void push(std::vector<FillPiece>& out, const Slab& slab) const {
    const int from = firstRow(slab);
    if (from >= m_interior) return;
    const int left = static_cast<int>(m_top[slab.last].x) - (closes(slab) ? 1 : 0);
    FillPiece piece{slab.first, slab.last, false, {left, from, static_cast<int>(m_top[slab.first].x) - left, 0}};
    // A single step that climbs many rows: its rows in bands, each within the bound.
    const int edges = static_cast<int>(slab.last - slab.first) + (closes(slab) ? 1 : 0);
    const int rows = bound(slab) <= kMaxSpansPerFill ? m_interior - from
                                                     : std::max(1, kMaxSpansPerFill / (1 + 3 * edges));
    for (int y = from; y < m_interior; y += rows) {
      piece.clip.y = y;
      piece.clip.height = std::min(rows, m_interior - y);
      out.push_back(piece);
    }
  }

  const std::vector<GraphPoint>& m_top;
  const int m_bottom;
  const int m_interior;
};

// Rows [from, bottom) of `piece` in bands of one span per row.
void pushRows(std::vector<FillPiece>& out, FillPiece piece, int from, int bottom) {
  for (int y = from; y < bottom; y += kMaxSpansPerFill) {
    piece.clip.y = y;
    piece.clip.height = std::min(kMaxSpansPerFill, bottom - y);
    if (piece.clip.width > 0) out.push_back(piece);
  }
}

PixelRect intersected(const PixelRect& a, const PixelRect& b) {
  const int x = std::max(a.x, b.x), y = std::max(a.y, b.y);
  const int right = std::min(a.x + a.width, b.x + b.width), bottom = std::min(a.y + a.height, b.y + b.height);
  return {x, y, std::max(0, right - x), std::max(0, bottom - y)};
}

}  // namespace

std::vector<FramedPart> framedParts(const PixelRect& piece, const PixelRect& frame, int corner_px) {
  const int c = std::clamp(corner_px, 0, std::min(frame.width, frame.height) / 2);
  const int right = frame.x + frame.width, bottom = frame.y + frame.height;
  const PixelRect plain[] = {{frame.x, frame.y + c, frame.width, frame.height - 2 * c},
                             {frame.x + c, frame.y, frame.width - 2 * c, c},
                             {frame.x + c, bottom - c, frame.width - 2 * c, c}};
  const PixelRect corners[] = {{frame.x, frame.y, c, c},
                               {right - c, frame.y, c, c},
                               {frame.x, bottom - c, c, c},
                               {right - c, bottom - c, c, c}};
  std::vector<FramedPart> parts;
  for (const PixelRect& area : plain) {
    const PixelRect part = intersected(piece, area);
    if (part.width > 0 && part.height > 0) parts.push_back({part, false});
  }
  for (const PixelRect& area : corners) {
    const PixelRect part = intersected(piece, area);
    if (part.width <= 0 || part.height <= 0) continue;
    // The corner's whole width, each pixel one span at most: a piece's outline covers no column
    // outside its own, and Qt takes a clip path cut to one span per row, all alike, for a rectangle
    // and drops its partial cover.
    const int rows = std::max(1, kMaxSpansPerFill / area.width), end = part.y + part.height;
    for (int y = part.y; y < end; y += rows) parts.push_back({{area.x, y, area.width, std::min(rows, end - y)}, true});
  }
  return parts;
}

std::vector<FillPiece> fillPieces(const std::vector<GraphPoint>& top, int bottom_px) {
  if (!cuttable(top, bottom_px)) return {};
  double lowest = top.front().y;
  for (const GraphPoint& p : top) lowest = std::max(lowest, p.y);
  const int interior = std::max(0, static_cast<int>(std::ceil(lowest)));
  std::vector<FillPiece> pieces;
  SlabCutter(top, bottom_px, interior).cut(pieces);
  // Under the lowest point every pixel between the slanted edge and the right one is wholly covered;
  // the slanted edge's own column is the last point's to fill.
  const int right = static_cast<int>(top.front().x), left = static_cast<int>(top.back().x);
  const size_t last = top.size() - 1;
  pushRows(pieces, {0, 0, true, {left, 0, right - left, 0}}, interior, bottom_px);
  pushRows(pieces, {last, last, false, {left - 1, 0, 1, 0}}, interior, bottom_px);
  return pieces;
}

std::vector<GraphPoint> cuttableTop(const SeriesPath& path, double plot_height) {
  const double h = plot_height;
  std::vector<GraphPoint> top;
  for (size_t k = 1; k < path.stroke.size(); ++k) top.push_back({path.stroke[k].x, h - path.stroke[k].y});
  const bool closed_down = !top.empty() && h == std::floor(h) && path.fill.size() == path.stroke.size() + 2 &&
                           path.stroke.front() == GraphPoint{top.front().x, 0.0} &&
                           path.fill.back() == path.stroke.front() &&
                           path.fill[path.fill.size() - 2] == GraphPoint{top.back().x - 1.0, 0.0};
  return closed_down ? top : std::vector<GraphPoint>{};
}

}  // namespace pelmora
