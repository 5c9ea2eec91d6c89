#include "graphs/graph_geometry.h"

#include <gtest/gtest.h>

using namespace pelmora;

namespace {

TEST(GraphGeometry, OnlyTheColumnsThatFitAreVisited) {
  struct Case {
    double width;
    size_t history, visited;
    double leftmost_x;
  } cases[] = {
      {100, 72, 52, -1.0},  // x runs 100, 98 ... -2; points at x + 1
      {100, 10, 10, 83.0},
      {100, 0, 0, 101.0},   // only the start point
      {1, 5, 2, 0.0},       // a one-point view still walks to -WIDTH
      {99.5, 200, 51, 0.5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.width);
    std::vector<size_t> asked;
    auto path = plotSeries(c.width, 50, c.history, [&](size_t i) {
      asked.push_back(i);
      return 0.5;
    });
    EXPECT_EQ(path.entries, c.visited);
    ASSERT_EQ(path.stroke.size(), c.visited + 1);
    EXPECT_EQ(path.stroke.front(), (GraphPoint{c.width + 1, 0}));
    EXPECT_DOUBLE_EQ(path.stroke.back().x, c.leftmost_x);
    // Newest first, no entry twice, never an index outside the history.
    for (size_t k = 0; k < asked.size(); ++k) EXPECT_EQ(asked[k], c.history - 1 - k);
  }
}

TEST(GraphGeometry, ValuesScaleToHeightMinusOneUnclampedAndTheFillClosesOnTheAxis) {
  const double values[] = {0.0, 1.0, 1.5, 0.25};
  auto path = plotSeries(10, 21, 4, [&](size_t i) { return values[i]; });
  const std::vector<GraphPoint> stroke = {{11, 0}, {11, 5}, {9, 30}, {7, 20}, {5, 0}};
  EXPECT_EQ(path.stroke, stroke);
  std::vector<GraphPoint> fill = stroke;
  fill.push_back({4, 0});  // one column step beyond the last point, as the walk left it
  fill.push_back({11, 0});
  EXPECT_EQ(path.fill, fill);
}

TEST(GraphGeometry, GridLines) {
  struct Case {
    const char* what;
    double width, height;
    GridOptions options;
    std::vector<double> ys, xs;
  } cases[] = {
      {"both off", 100, 48, {false, false, 30, 25}, {}, {}},
      {"scale 25%", 100, 48, {false, true, 30, 25}, {-1, 11.5, 24, 36.5, 49}, {}},
      {"scale 0 draws none", 100, 48, {false, true, 30, 0}, {}, {}},
      {"time 10 columns", 50, 48, {true, false, 10, 25}, {}, {51, 31, 11}},
      {"time below 1 draws none", 50, 48, {true, false, 0, 25}, {}, {}},
      {"both", 30, 8, {true, true, 10, 50}, {-1, 4, 9}, {31, 11}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<double> ys, xs;
    for (const auto& line : gridLines(c.width, c.height, c.options)) {
      if (line.from.y == line.to.y) {
        EXPECT_EQ(line.from.x, 0);
        EXPECT_EQ(line.to.x, c.width);
        ys.push_back(line.from.y);
      } else {
        EXPECT_EQ(line.from, (GraphPoint{line.to.x, 0}));
        EXPECT_EQ(line.to.y, c.height + 2);
        xs.push_back(line.from.x);
      }
    }
    EXPECT_EQ(ys, c.ys);
    EXPECT_EQ(xs, c.xs);
  }
}

// How many columns, and how much time, a view of a width shows; the smallest view drawn at all.
TEST(GraphGeometry, VisibleColumnsTheirSpanAndTheSmallestDrawnView) {
  const std::pair<double, size_t> widths[] = {{100, 51}, {101, 52}, {102, 52}, {0.5, 1}, {1, 2}, {3, 3}};
  for (auto [width, columns] : widths) EXPECT_EQ(visibleColumns(width), columns) << width;
  const struct {
    double width, interval_s;
    const char* text;
  } spans[] = {
      {0, 1, "0 s"},      {1, 1, "0 s"},      {200, 1, "100 s"},    {238, 1, "119 s"}, {240, 1, "2 min"},
      {900, 2, "15 min"}, {1000, 1, "8 min"}, {7198, 2, "120 min"}, {7200, 2, "2 h"},  {36000, 5, "25 h"},
  };
  for (const auto& c : spans) EXPECT_EQ(spanText(visibleSpan_s(c.width, c.interval_s)), c.text) << c.width;
  EXPECT_TRUE(drawsContent(1.0, 1.0));
  EXPECT_FALSE(drawsContent(0.99, 100));
  EXPECT_FALSE(drawsContent(100, 0.5));
}

}  // namespace
