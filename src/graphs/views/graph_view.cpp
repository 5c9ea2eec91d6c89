#include "graphs/views/graph_view.h"

#include <QLocale>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>

#include "graphs/value_formatter.h"
#include "graphs/views/fill_piece.h"
#include "graphs/views/graph_legend.h"
#include "graphs/views/graph_popover.h"
#include "graphs/views/text_display.h"
#include "sampling/system_stats.h"
#include "support/default_settings.h"

namespace pelmora {
namespace {

DefaultSettings* g_store = nullptr;

constexpr double kLabelPointSize = 10.0;
constexpr double kLabelInset = 2.0;
constexpr int kMinWidth_px = 60;
const QColor kGridGray(142, 142, 147);

QRect toQRect(const PixelRect& r) { return QRect(r.x, r.y, r.width, r.height); }

QPainterPath outlineOf(const std::vector<GraphPoint>& points, double h, bool close) {
  QPainterPath p;
  p.moveTo(points.front().x, h - points.front().y);
  for (size_t k = 1; k < points.size(); ++k) p.lineTo(points[k].x, h - points[k].y);
  if (close) p.closeSubpath();
  return p;
}

}  // namespace

QColor toQColor(const GraphColor& c) { return QColor(c.r, c.g, c.b, c.a); }

GraphColor fromQColor(const QColor& color) {
  const QColor rgb = color.toRgb();
  return {static_cast<uint8_t>(rgb.red()), static_cast<uint8_t>(rgb.green()), static_cast<uint8_t>(rgb.blue()),
          static_cast<uint8_t>(rgb.alpha())};
}

GraphView::GraphView(GraphClass graph, QWidget* parent) : QWidget(parent), m_graph(graph) {
  setCursor(Qt::PointingHandCursor);  // every graph looks clickable
}

GraphView::~GraphView() {
  // Their closing must not call back into a view that is half destroyed.
  if (m_details_popover) m_details_popover->disconnect(this);
  if (m_popover) m_popover->disconnect(this);
  delete m_popover;  // owns the legend
}

GraphLegend* GraphView::legend() const { return m_legend; }
GraphPopover* GraphView::popover() const { return m_popover; }
GraphPopover* GraphView::detailsPopover() const { return m_details_popover; }

void GraphView::setSettingsStore(DefaultSettings* store) { g_store = store; }

DefaultSettings& GraphView::settingsStore() { return g_store ? *g_store : DefaultSettings::shared(); }

void GraphView::setLabel(const QString& label) {
  m_label = label;
  redraw();
}

void GraphView::setLabelFont(const QFont& font) {
  m_font = font;
  captionSizeChanged();
  redraw();
}

void GraphView::setDisplayDock(bool dock) {
  m_display_dock = dock;
  redraw();
}

void GraphView::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  GraphPalette::load(m_graph, settingsStore());  // another view of the class may have saved a colour
}

QColor GraphView::backgroundColor() const {
  const auto& s = GraphSwitches::current();
  if (s.radio_dark) return QColor(30, 30, 30);
  if (s.radio_light) return QColor(Qt::white);
  return palette().color(QPalette::Base);
}

QColor GraphView::textColor() const {
  const auto& s = GraphSwitches::current();
  if (s.radio_dark) return QColor(235, 235, 235);
  if (s.radio_light) return QColor(Qt::black);
  return palette().color(QPalette::Text);
}

// The frame, not the bounds: in the live icon the view sits at the origin, where both agree.
QRect GraphView::frameRect() const { return isWindow() ? rect() : geometry(); }

QPainterPath GraphView::roundedFrame(const QRect& frame) {
  QPainterPath rounded;
  rounded.addRoundedRect(QRectF(frame), kCornerRadius, kCornerRadius);
  return rounded;
}

void GraphView::paintEvent(QPaintEvent* event) {
  QPainter painter(this);
  painter.save();
  const QPainterPath rounded = roundedFrame(frameRect());
  if (m_display_dock) {
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setClipPath(rounded);
  }
  painter.fillRect(event->rect(), backgroundColor());
  if (drawsContent(width(), height())) {
    painter.setRenderHint(QPainter::Antialiasing, true);
    drawGrid(painter);
    drawGraph(painter);
    drawLabel(painter);
    drawAxis(painter);
    if (m_display_dock) {
      painter.setPen(QPen(textColor(), 1.0));
      painter.setBrush(Qt::NoBrush);
      painter.drawPath(rounded);
    }
  }
  painter.restore();
}

void GraphView::drawGrid(QPainter& painter) {
  const double h = plotHeight();
  const auto lines = gridLines(width(), h, GraphSwitches::current().grid());
  if (lines.empty()) return;
  QPainterPath path;
  for (const auto& line : lines) {
    path.moveTo(line.from.x, h - line.from.y);
    path.lineTo(line.to.x, h - line.to.y);
  }
  QPen pen(kGridGray, 1.0);
  pen.setDashPattern({kGridDashOn, kGridDashOff});
  painter.strokePath(path, pen);
}

void GraphView::plot(QPainter& painter, size_t series, size_t count, bool may_fill, double fill_factor,
                     const std::function<double(size_t)>& value) {
  const auto& colors = GraphPalette::colors(m_graph);
  const GraphColor color = series < colors.size() ? colors[series] : system_colors::gray;
  const double h = plotHeight();
  const SeriesPath path = plotSeries(width(), h, count, value);
  painter.strokePath(outlineOf(path.stroke, h, false), QPen(toQColor(color), 1.0));
  if (may_fill && GraphSwitches::current().fill_graph)
    fillUnder(painter, path, h, toQColor(adjustColourAndAlpha(color, fill_factor)),
              m_display_dock ? std::optional<QRect>(frameRect()) : std::nullopt);
}

// At once where the outline is not the one the pieces are cut from, and under a clip other than the
// frame's: the pieces' bound counts spans before a clip path splits them.
void GraphView::fillUnder(QPainter& painter, const SeriesPath& path, double h, const QColor& color,
                          std::optional<QRect> frame) {
  const auto whole = [&] { painter.fillPath(outlineOf(path.fill, h, true), color); };
  if (painter.hasClipping() && !frame) return whole();
  const std::vector<GraphPoint> top = cuttableTop(path, h);
  const auto pieces = top.empty() ? std::vector<FillPiece>{} : fillPieces(top, static_cast<int>(h));
  if (pieces.empty()) return whole();
  for (const FillPiece& piece : pieces) {
    const QPainterPath outline = pieceOutline(piece, top, h);
    const auto parts = frame ? framedParts(piece.clip, {frame->x(), frame->y(), frame->width(), frame->height()},
                                           static_cast<int>(kCornerRadius))
                             : std::vector<FramedPart>{{piece.clip, false}};
    for (const FramedPart& part : parts) fillPart(painter, outline, piece.solid, part, frame, color);
  }
}

// The piece's slab under its top points, or its rectangle when it lies wholly inside the area.
QPainterPath GraphView::pieceOutline(const FillPiece& piece, const std::vector<GraphPoint>& top, double h) {
  QPainterPath outline;
  if (piece.solid) {
    outline.addPolygon(QPolygonF(QRectF(toQRect(piece.clip))));
  } else {
    outline.moveTo(top[piece.first].x, h);
    for (size_t k = piece.first; k <= piece.last; ++k) outline.lineTo(top[k].x, top[k].y);
    outline.lineTo(top[piece.last].x - (piece.last + 1 == top.size() ? 1.0 : 0.0), h);
  }
  outline.closeSubpath();
  return outline;
}

void GraphView::fillPart(QPainter& painter, const QPainterPath& outline, bool solid, const FramedPart& part,
                         std::optional<QRect> frame, const QColor& color) {
  const QRect clip = toQRect(part.rect);
  painter.save();
  // Off the frame's corners the frame covers every pixel: the rectangle alone clips there. In a
  // corner the frame's outline clips as well, cut to the rectangle.
  painter.setClipRect(clip, Qt::ReplaceClip);
  if (part.in_corner) painter.setClipPath(roundedFrame(*frame), Qt::IntersectClip);
  // Qt 6.4 fills a rectangle through a clip path without the path's partial cover at the corners:
  // there the rectangle is filled as an outline.
  if (solid && !part.in_corner)
    painter.fillRect(clip, color);
  else
    painter.fillPath(outline, color);
  painter.restore();
}

void GraphView::drawLabel(QPainter& painter) {
  const QString text = m_shows_caption ? labelText() : QString();
  if (text.isEmpty()) return;
  painter.setFont(captionFont());
  painter.setPen(textColor());
  const QRectF room(kLabelInset, kLabelInset, width() - kLabelInset, plotHeight() - kLabelInset);
  const QRectF size = painter.boundingRect(room, Qt::AlignLeft | Qt::AlignTop, text);
  painter.save();
  painter.setClipRect(room);  // long captions are cut, not wrapped
  painter.drawText(QRectF(kLabelInset, kLabelInset, size.width(), size.height()), Qt::AlignLeft | Qt::AlignTop, text);
  painter.restore();
}

// A splitter re-reads its children's minimums when told, but does not pass its own new minimum on
// to its parent: every level up to the window is told, so nested splitters and the scrolling area
// around them all make room.
void GraphView::captionSizeChanged() {
  for (QWidget* widget = this; widget && !widget->isWindow(); widget = widget->parentWidget()) widget->updateGeometry();
}

void GraphView::redraw() {
  const int lines = static_cast<int>(labelText().count('\n')) + 1;
  if (lines != m_caption_lines) {
    m_caption_lines = lines;
    captionSizeChanged();
  }
  QWidget::update();
}

int GraphView::captionHeight() const {
  return static_cast<int>(2 * kLabelInset) + m_caption_lines * QFontMetrics(captionFont()).lineSpacing();
}

// The caption alone: the axis strip comes only where there is room for it beside the caption.
QSize GraphView::minimumSizeHint() const {
  if (m_display_dock || !m_shows_caption) return QWidget::minimumSizeHint();
  return {kMinWidth_px, captionHeight()};
}

QFont GraphView::captionFont() const {
  QFont font = m_font.value_or(this->font());
  font.setPointSizeF(kLabelPointSize);
  return font;
}

int GraphView::axisStripHeight() const {
  if (m_display_dock || !m_shows_caption) return 0;
  const int strip = QFontMetrics(captionFont()).height() + 2;
  // A graph must keep at least twice the strip for its data, and never lets the strip cover its caption.
  return height() >= std::max(3 * strip, captionHeight() + strip) ? strip : 0;
}

QString GraphView::axisText() const {
  if (axisStripHeight() == 0) return {};
  const double interval_s = SystemStats::kDefaultSampleInterval_ms / 1000.0;
  return tr("last %1").arg(QString::fromStdString(spanText(visibleSpan_s(width(), interval_s)))) +
         (scaleText().isEmpty() ? QString() : QStringLiteral("\t") + tr("top:") + " " + scaleText());
}

// Under the data, never over it: the strip has its own band of the view, a hairline above it.
void GraphView::drawAxis(QPainter& painter) {
  const int strip = axisStripHeight();
  if (strip == 0) return;
  const QStringList parts = axisText().split('\t');
  const QRectF band(kLabelInset, height() - strip, width() - 2 * kLabelInset, strip);
  painter.setPen(QPen(kGridGray, 1.0));
  painter.drawLine(QPointF(0, height() - strip + 0.5), QPointF(width(), height() - strip + 0.5));
  painter.setFont(captionFont());
  painter.setPen(textColor());
  painter.drawText(band, Qt::AlignLeft | Qt::AlignVCenter, parts.value(0));
  painter.drawText(band, Qt::AlignRight | Qt::AlignVCenter, parts.value(1));
}

void GraphView::mousePressEvent(QMouseEvent* event) {
  if (!rect().contains(event->position().toPoint())) return;
  // The other buttons are the context menu's, where a graph has one.
  if (event->button() == Qt::LeftButton) openLegend();
  if (event->button() == Qt::RightButton) openDetails();
}

void GraphView::openLegend() {
  if (!m_legend) {
    auto* legend = new GraphLegend();
    m_popover = new GraphPopover(tr("Legend"), legend, this);
    m_legend = legend;
    connect(m_popover, &GraphPopover::closed, this, &GraphView::popoverClosed);
  }
  updateLegend();
  if (m_popover->isVisible()) return;
  m_popover->showNextTo(this);
}

void GraphView::openDetails() {
  if (!m_details) return;
  if (!m_details_popover) {
    auto* text = new TextDisplay(TextDisplay::toolOutput(m_details->program, m_details->arguments));
    m_details_popover = new GraphPopover(m_details->title, text, this);
    connect(m_details_popover, &GraphPopover::closed, this, &GraphView::popoverClosed);
  }
  if (!m_details_popover->isVisible()) m_details_popover->showNextTo(this);
}

void GraphView::popoverClosed(GraphPopover* popover) {
  if (!popover || (popover != m_popover && popover != m_details_popover)) return;
  popover->disconnect(this);
  popover->deleteLater();
  if (popover == m_popover) m_legend = nullptr;
  (popover == m_popover ? m_popover : m_details_popover) = nullptr;
}

void GraphView::setUpLegend(const QString& title, const QStringList& labels) {
  QList<QColor> colors;
  for (const auto& c : GraphPalette::colors(m_graph)) colors.append(toQColor(c));
  const GraphClass graph = m_graph;
  QPointer<GraphView> self(this);
  m_legend->setUp(title, labels, colors, [graph, self](int index, const QColor& color) {
    GraphPalette::setColor(graph, index, fromQColor(color), settingsStore());
    if (self) self->redraw();
  });
}

namespace {
// The user's decimal separator, without thousands grouping (a caption is not a ledger).
QLocale numberLocale() {
  QLocale locale;
  locale.setNumberOptions(QLocale::OmitGroupSeparator);
  return locale;
}
}  // namespace

QString GraphView::number(double value, int decimals) { return numberLocale().toString(value, 'f', decimals); }

QString GraphView::formatted(double value, int base, int decimals, const QString& unit) {
  const std::string text = formatValue(value, base, decimals, unit.toStdString(), [](double v, int d) {
    return numberLocale().toString(v, 'f', d).toStdString();
  });
  return QString::fromStdString(text);
}

}  // namespace pelmora
