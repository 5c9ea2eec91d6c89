#include "graphs/views/graph_view_net.h"

#include <QMouseEvent>

#include "graphs/views/graph_popover.h"
#include "graphs/views/text_display.h"

namespace pelmora {
namespace {
constexpr double kBitsPerByte = 8.0;
}

GraphViewNet::GraphViewNet(QWidget* parent) : GraphView(GraphClass::net, parent) {}

GraphViewNet::~GraphViewNet() {
  if (m_ifconfig_popover) m_ifconfig_popover->disconnect(this);
}

GraphPopover* GraphViewNet::ifconfigPopover() const { return m_ifconfig_popover; }

void GraphViewNet::setInterface(const QString& name) { m_interface = name; }

void GraphViewNet::update(const std::vector<netStats>& history) {
  const auto& s = GraphSwitches::current();
  auto scaled = netColumns(history, {networkAveragingLength(s.net_avg), s.net_avg_exp}, width());
  m_net_stats = std::move(scaled.columns);
  m_max_bps = scaled.max;
  redraw();
}

void GraphViewNet::updateLegend() {
  setUpLegend(tr("Network I/O"), {tr("bps in:"), tr("bps out:"), tr("avg bps in:"), tr("avg bps out:")});
}

void GraphViewNet::drawGraph(QPainter& painter) {
  const auto& r = m_net_stats;
  plot(painter, 0, r.size(), true, 0.5, [&](size_t i) { return r[i].bps_in; });
  plot(painter, 1, r.size(), true, 0.5, [&](size_t i) { return r[i].bps_out; });
  if (!GraphSwitches::current().show_net_avg) return;
  plot(painter, 2, r.size(), false, 0.0, [&](size_t i) { return r[i].avg_bps_in; });
  plot(painter, 3, r.size(), false, 0.0, [&](size_t i) { return r[i].avg_bps_out; });
}

QString GraphViewNet::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (m_net_stats.empty()) return "\n" + tr("In:") + " " + pending() + "\n" + tr("Out:") + " " + pending();
  const bit_rate newest = m_net_stats.back();
  const QString unit = QStringLiteral("bit/s");
  auto bits = [&](double fraction) { return formatted(fraction * m_max_bps * kBitsPerByte, 1000, 1, unit); };
  return "\n" + tr("In:") + " " + bits(newest.bps_in) + "\n" + tr("Out:") + " " + bits(newest.bps_out) + "\n" +
         tr("Peak:") + " " + bits(m_max_bps > 0.0 ? 1.0 : 0.0);
}

void GraphViewNet::mousePressEvent(QMouseEvent* event) {
  if (event->button() == Qt::RightButton && rect().contains(event->position().toPoint()))
    openIfconfig();
  else
    GraphView::mousePressEvent(event);
}

void GraphViewNet::openIfconfig() {
  if (!m_ifconfig_popover) {
    QStringList args = {"addr", "show"};
    if (m_interface) args << "dev" << *m_interface;
    m_ifconfig = new TextDisplay(TextDisplay::toolOutput("ip", args));
    m_ifconfig_popover = new GraphPopover(tr("ifconfig"), m_ifconfig, this);
    connect(m_ifconfig_popover, &GraphPopover::closed, this, [this](GraphPopover* p) { legendClosed(p); });
  }
  if (!m_ifconfig_popover->isVisible()) m_ifconfig_popover->showNextTo(this);
}

void GraphViewNet::legendClosed(GraphPopover* popover) {
  if (popover && popover == m_ifconfig_popover) {
    m_ifconfig_popover->disconnect(this);
    m_ifconfig_popover->deleteLater();
    m_ifconfig_popover = nullptr;
    m_ifconfig = nullptr;
    return;
  }
  GraphView::legendClosed(popover);
}

QString GraphViewNet::scaleText() const {
  return m_max_bps > 0.0 ? formatted(m_max_bps * kBitsPerByte, 1000, 1, QStringLiteral("bit/s")) : QString();
}

}  // namespace pelmora
