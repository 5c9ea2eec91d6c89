#include "graphs/views/graph_view_fan.h"

namespace pelmora {

GraphViewFan::GraphViewFan(QWidget* parent) : GraphView(GraphClass::fan, parent) {}

void GraphViewFan::update(const std::vector<fanStats>& history) {
  auto scaled = fanColumns(history, width());
  m_fan_speeds = std::move(scaled.columns);
  m_min_speed = scaled.min_speed;
  m_max_speed = scaled.max_speed;
  redraw();
}

void GraphViewFan::updateLegend() { setUpLegend(tr("Fan Speed(rpm)"), {tr("RPM:"), tr("Max RPM:"), tr("Min RPM:")}); }

void GraphViewFan::drawGraph(QPainter& painter) {
  const auto& f = m_fan_speeds;
  plot(painter, 0, f.size(), true, 0.5, [&](size_t i) { return f[i].speed; });
  plot(painter, 1, f.size(), false, 0.0, [&](size_t i) { return f[i].max; });
  plot(painter, 2, f.size(), false, 0.0, [&](size_t i) { return f[i].min; });
}

QString GraphViewFan::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (m_fan_speeds.empty()) return "\n" + tr("Current:") + " " + pending();
  const fan_column newest = m_fan_speeds.back();
  const double max = static_cast<double>(m_max_speed);
  return "\n" + tr("Current:") + " " + number(newest.speed * max, 0) + " " +
         (newest.forced ? tr("forced") : tr("auto")) + "\n" + tr("Maximum:") + " " + number(newest.max * max, 0) +
         "\n" + tr("Minimum:") + " " + number(newest.min * max, 0);
}

QString GraphViewFan::scaleText() const {
  return m_max_speed > 0 ? number(static_cast<double>(m_max_speed), 0) + " rpm" : QString();
}

}  // namespace pelmora
