#include "graphs/views/graph_view_temperature.h"

#include <QPainter>

namespace pelmora {

GraphViewTemperature::GraphViewTemperature(QWidget* parent) : GraphView(GraphClass::temp, parent) {}

void GraphViewTemperature::update(const std::vector<std::vector<temperatureStats>>& history) {
  m_columns = temperatureColumns(history, width());
  redraw();
}

void GraphViewTemperature::updateLegend() {
  setUpLegend(tr("Temperature (\u00b0C)"), {tr("Processor:"), tr("GPU:"), tr("Disk:")});
}

void GraphViewTemperature::drawGraph(QPainter& painter) {
  const auto& c = m_columns.columns;
  for (size_t role = 0; role < kTemperatureRoles; ++role) {
    if (!m_columns.present(static_cast<TemperatureRole>(role))) continue;
    plot(painter, role, c.size(), role == 0, 0.75, [&](size_t i) { return c[i].value[role]; });
    drawCriticalMark(painter, role);
  }
}

void GraphViewTemperature::drawCriticalMark(QPainter& painter, size_t role) {
  const double crit = m_columns.crit_C[role];
  if (crit <= 0.0 || m_columns.scale_C <= 0.0) return;
  const double y = height() - (height() - 1) * crit / m_columns.scale_C;
  const auto& colors = GraphPalette::colors(GraphClass::temp);
  QPen pen(toQColor(role < colors.size() ? colors[role] : system_colors::gray), 1.0, Qt::DashLine);
  painter.setPen(pen);
  painter.drawLine(QPointF(0, y), QPointF(width(), y));
}

QString GraphViewTemperature::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  QString text;
  for (size_t role = 0; role < kTemperatureRoles; ++role) {
    if (!m_columns.present(static_cast<TemperatureRole>(role))) continue;
    text += "\n" + QString::fromStdString(m_columns.names[role]) + ": " + number(m_columns.newest_C[role], 1) +
            " \u00b0C";
    if (m_columns.crit_C[role] > 0) text += " (" + tr("critical") + " " + number(m_columns.crit_C[role], 0) + ")";
  }
  return text;
}

}  // namespace pelmora
