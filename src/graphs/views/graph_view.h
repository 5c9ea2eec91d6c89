#pragma once
// The base of every time-series graph: background, dashed grids, the series drawn by the subclass,
// the label with its current values, the rounded frame when shown as the live icon, the pointing-hand
// cursor, the legend that pops up on a click and a tool's output on a right click where the graph has
// one. A view has no timers: its owner hands it the whole history (the subclass's update) and it
// repaints. Painting reads no settings but the graph
// preferences' switches (GraphSwitches::current()) and builds every path afresh. Main thread only.
#include <QFont>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <functional>
#include <optional>

#include "graphs/graph_geometry.h"
#include "graphs/graph_palette.h"
#include "graphs/graph_switches.h"
#include "graphs/views/graph_kind.h"

class QPainter;
class QPainterPath;

namespace pelmora {

class DefaultSettings;
struct FillPiece;
struct FramedPart;
class GraphLegend;
class GraphPopover;

QColor toQColor(const GraphColor& color);
GraphColor fromQColor(const QColor& color);

class GraphView : public QWidget {
  Q_OBJECT
 public:
  static constexpr double WIDTH = kColumnWidth;

  GraphView(GraphClass graph, QWidget* parent = nullptr);
  ~GraphView() override;
  // The kind of graph: its colours' key, and what the live icon shows.
  GraphClass graphClass() const { return m_graph; }

  void setLabel(const QString& label);
  const QString& label() const { return m_label; }
  void setLabelFont(const QFont& font);
  QFont labelFont() const { return m_font.value_or(font()); }
  // The caption's and the axis strip's font: the label font at the caption's size.
  QFont captionFont() const;
  // In a window: room for every caption line and the axis strip, so that no text is cut (the
  // statistics window scrolls where the screen is too small for all of them).
  QSize minimumSizeHint() const override;

  void setDisplayDock(bool dock);
  // Off for the tray meter: at 22 pixels a caption is unreadable, the graph alone says enough.
  void setShowsCaption(bool shows) { m_shows_caption = shows; }
  bool displayDock() const { return m_display_dock; }

  // The caption as drawn: the label followed by the current values.
  QString labelText() const { return m_label + currentText(); }
  // The axis strip under the data of a window's graph: the span of time shown at the left, the top of
  // the current scale at the right. Empty for the live icon and the tray, and in graphs too low for it.
  QString axisText() const;
  int axisStripHeight() const;
  // The height the data is drawn in: the view less the axis strip.
  double plotHeight() const { return height() - axisStripHeight(); }
  GraphLegend* legend() const;
  GraphPopover* popover() const;
  // What a click does: builds the legend when there is none, refreshes it and shows it.
  void openLegend();
  // What a right click shows beside the legend: the tool's output, run when the popover opens.
  void setDetails(GraphDetails details) { m_details = std::move(details); }
  GraphPopover* detailsPopover() const;
  void openDetails();

  // Where colours are saved (the user's settings unless a test says otherwise).
  static void setSettingsStore(DefaultSettings* store);
  static DefaultSettings& settingsStore();

  // What a value reads before the first sample: a dash, never a made-up zero.
  static QString pending() { return QStringLiteral("—"); }
  // A number in the user's locale, and a value scaled to a unit prefix.
  static QString number(double value, int decimals);
  static QString formatted(double value, int base, int decimals, const QString& unit);
  // The area under a series as plotSeries outlines it in data `plot_height` pixels tall, filled in
  // pieces that keep Qt's raster painter off its thread pool (fill_piece.h). `frame`: the rectangle
  // whose rounded outline (the live icon's) clips the painter.
  static void fillUnder(QPainter& painter, const SeriesPath& path, double plot_height, const QColor& color,
                        std::optional<QRect> frame = std::nullopt);
  // The rounded frame of the live icon, corners of this radius.
  static constexpr double kCornerRadius = 10.0;

 protected:
  virtual void updateLegend() {}
  virtual void drawGraph(QPainter& painter) { (void)painter; }
  virtual QString currentText() const { return {}; }
  // The value at the top of the graph ("100 %", "15.5 GiB", "12.0 Mbit/s"); empty when unknown.
  virtual QString scaleText() const { return {}; }

  // Plots one series: value(i) is entry i as a fraction of full scale, the newest at the right edge.
  void plot(QPainter& painter, size_t series, size_t count, bool may_fill, double fill_factor,
            const std::function<double(size_t)>& value);
  // Fills the legend with the class's colours and a closure that stores and saves a new one.
  void setUpLegend(const QString& title, const QStringList& labels);
  // Asks for a repaint (the subclasses' update hides QWidget::update); a caption that gained or lost
  // a line asks the layout for its new minimum height as well.
  void redraw();

  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void showEvent(QShowEvent* event) override;

 private:
  QRect frameRect() const;
  static QPainterPath roundedFrame(const QRect& frame);
  // fillUnder's steps: one piece's outline, and one part of it filled under its clip.
  static QPainterPath pieceOutline(const FillPiece& piece, const std::vector<GraphPoint>& top, double h);
  static void fillPart(QPainter& painter, const QPainterPath& outline, bool solid, const FramedPart& part,
                       std::optional<QRect> frame, const QColor& color);
  void drawGrid(QPainter& painter);
  void drawLabel(QPainter& painter);
  void drawAxis(QPainter& painter);
  void captionSizeChanged();
  // A popover of this view that closed: it goes, and so does its content.
  void popoverClosed(GraphPopover* popover);
  // The caption's lines with their inset, in pixels.
  int captionHeight() const;
  QColor backgroundColor() const;
  QColor textColor() const;

  const GraphClass m_graph;
  QPointer<GraphPopover> m_popover;
  QPointer<GraphLegend> m_legend;
  std::optional<GraphDetails> m_details;
  QPointer<GraphPopover> m_details_popover;
  QString m_label;
  std::optional<QFont> m_font;
  bool m_display_dock = false;
  bool m_shows_caption = true;
  int m_caption_lines = 1;
};

}  // namespace pelmora
