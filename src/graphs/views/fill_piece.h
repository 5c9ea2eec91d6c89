#pragma once
// The area under a series, cut into pieces that Qt's raster painter fills on the calling thread.
// Qt 6.4 hands every span call of 96 spans or more to the global QThreadPool in slices of 64 and
// waits for them (qdrawhelper.cpp, QT_THREAD_PARALLEL_FILLS: (count + 32) / 64 slices, pooled from
// two). One translucent fill under a noisy series is thousands of spans, so each once-a-second
// repaint woke the pool's threads dozens of times. Every piece here stays under that bound.
//
// The picture does not change: vertical cuts fall only on the series' own points, which lie on whole
// pixels, and rows are limited by clip rectangles, which drop spans but do not change how any pixel
// is covered; the pieces' rectangles do not overlap, so each pixel is blended once, as the whole
// polygon blends it. Device pixels: x to the right, y downwards. Free of Qt.
#include <cstddef>
#include <vector>

#include "graphs/graph_geometry.h"

namespace pelmora {

// A span call with no more spans than this stays on the calling thread.
inline constexpr int kMaxSpansPerFill = 95;

struct PixelRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool operator==(const PixelRect&) const = default;
};

struct FillPiece {
  // Top points [first, last] of the area's outline; the slab under them reaches down to the bottom
  // and ends on the left with a vertical edge, or the outline's slanted one after the last point.
  size_t first = 0;
  size_t last = 0;
  // The clip wholly inside the area: filled as a rectangle, without the outline.
  bool solid = false;
  // The pixels this piece paints.
  PixelRect clip;
  bool operator==(const FillPiece&) const = default;
};

// A piece's rectangle inside a frame with rounded corners that clips the painter (the live icon):
// outside the corners' squares the frame covers every pixel wholly, so those parts need no clip path
// and keep the piece's bound; inside them a clip path splits spans, so the parts there are kept to
// fewer pixels than the bound. A corner's part spans the corner's width (the piece's outline limits
// the columns), only its rows are the piece's.
struct FramedPart {
  PixelRect rect;
  bool in_corner = false;
  bool operator==(const FramedPart&) const = default;
};
std::vector<FramedPart> framedParts(const PixelRect& piece, const PixelRect& frame, int corner_px);

// `top`: the series' points in device pixels from the right, on whole and falling x. The area lies
// under them down to `bottom_px`, with a vertical right edge and a slanted left one down to
// (top.back().x - 1, bottom_px). Empty when the points allow no exact cut (off whole pixels, or
// below the bottom): the caller fills the outline at once.
std::vector<FillPiece> fillPieces(const std::vector<GraphPoint>& top, int bottom_px);

// The top points fillPieces takes, in device pixels (y downwards), from a series plotSeries outlined
// in data `plot_height` pixels tall (y upwards); empty when the area is not the shape the pieces are
// cut from (a height off whole pixels, a fill that is not the stroke closed down to the axis).
std::vector<GraphPoint> cuttableTop(const SeriesPath& path, double plot_height);

}  // namespace pelmora
