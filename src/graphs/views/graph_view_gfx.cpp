#include "graphs/views/graph_view_gfx.h"

namespace pelmora {

GraphViewGFX::GraphViewGFX(QWidget* parent) : GraphView(GraphClass::gfx, parent) {}

void GraphViewGFX::update(const std::vector<graphicsCardStats>& history) {
  m_gfx_stats = history;
  redraw();
}

void GraphViewGFX::updateLegend() { setUpLegend(tr("GPU Usage"), {tr("VRAM Used:"), tr("Utilisation(%):")}); }

void GraphViewGFX::drawGraph(QPainter& painter) {
  const auto& g = m_gfx_stats;
  plot(painter, 0, g.size(), true, 0.75, [&](size_t i) { return vramUsedFraction(g[i]); });
  plot(painter, 1, g.size(), false, 0.0, [&](size_t i) { return utilisationFraction(g[i]); });
}

QString GraphViewGFX::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (m_gfx_stats.empty()) return "\n" + tr("Free:") + " " + pending() + "\n" + tr("Utilisation:") + " " + pending();
  const graphicsCardStats newest = m_gfx_stats.back();
  return "\n" + tr("Free:") + " " + formatted(static_cast<double>(newest.freeVRAM), 1024, 1, QStringLiteral("B")) +
         "\n" + tr("Utilisation:") + " " + number(static_cast<double>(newest.pctUtil), 1) + " %";
}

QString GraphViewGFX::scaleText() const {
  return QStringLiteral("100 %");
}

}  // namespace pelmora
