#include "graphs/views/graph_view_power.h"

namespace pelmora {

GraphViewPower::GraphViewPower(QWidget* parent) : GraphView(GraphClass::power, parent) {}

void GraphViewPower::update(const std::vector<powerStats>& history) {
  auto scaled = powerColumns(history, width());
  m_power = std::move(scaled.columns);
  m_max_power = scaled.max;
  m_sampled = !history.empty();
  m_sensor = m_sampled && history.back().sensor;
  redraw();
}

void GraphViewPower::updateLegend() { setUpLegend(tr("Power (W)"), {tr("Total:"), tr("CPU:"), tr("GPU:")}); }

void GraphViewPower::drawGraph(QPainter& painter) {
  const auto& p = m_power;
  plot(painter, 0, p.size(), true, 0.75, [&](size_t i) { return p[i].total; });
  plot(painter, 1, p.size(), false, 0.0, [&](size_t i) { return p[i].cpu; });
  plot(painter, 2, p.size(), false, 0.0, [&](size_t i) { return p[i].gpu; });
}

QString GraphViewPower::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (!m_sampled) return "\n" + tr("Total:") + " " + pending();
  // Without a sensor the figure would read "0.0 W", which no machine draws. Checked before the
  // columns, which stay empty when every sample is zero.
  if (!m_sensor) return "\n" + tr("no power sensor");
  if (m_power.empty()) return "\n" + tr("Total:") + " " + pending();
  const double total = m_power.back().total * m_max_power;
  return "\n" + tr("Total:") + " " + number(total, 1) + " W\n" + tr("Peak:") + " " + number(m_max_power, 1) + " W";
}

QString GraphViewPower::scaleText() const {
  return m_max_power > 0.0 ? number(m_max_power, 1) + " W" : QString();
}

}  // namespace pelmora
