#include "graphs/views/graph_view_battery.h"

#include "sampling/sample_format.h"

namespace pelmora {
namespace {

QString hoursMinutes(int64_t seconds) { return QString::fromStdString(SampleFormat::duration(seconds)); }

}  // namespace

GraphViewBattery::GraphViewBattery(QWidget* parent) : GraphView(GraphClass::battery, parent) {}

void GraphViewBattery::update(const std::vector<batteryStats>& history) {
  m_columns = batteryColumns(history, width());
  m_newest = history.empty() ? batteryStats{} : history.back();
  redraw();
}

QString GraphViewBattery::chargeState(const batteryStats& battery) {
  return QString::number(battery.charge_pct, 'f', 0) + "% " + QString::fromStdString(battery.status);
}

void GraphViewBattery::updateLegend() { setUpLegend(tr("Battery"), {tr("Charge (%):"), tr("Rate (W):")}); }

void GraphViewBattery::drawGraph(QPainter& painter) {
  const auto& c = m_columns.columns;
  plot(painter, 0, c.size(), true, 0.75, [&](size_t i) { return c[i].charge; });
  if (m_columns.peak_rate_w > 0) plot(painter, 1, c.size(), false, 0.0, [&](size_t i) { return c[i].rate; });
}

QString GraphViewBattery::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  // The live icon is 128 pixels wide: the rate gets a line of its own, and the health stays out.
  const bool icon = displayDock();
  QString text = "\n" + chargeState(m_newest);
  if (m_newest.power_w > 0) text += (icon ? "\n" : "  ") + number(m_newest.power_w, 1) + " W";
  if (m_newest.time_to_empty_s > 0) text += "\n" + tr("Empty in") + " " + hoursMinutes(m_newest.time_to_empty_s);
  if (m_newest.time_to_full_s > 0) text += "\n" + tr("Full in") + " " + hoursMinutes(m_newest.time_to_full_s);
  if (m_newest.health_pct > 0 && !icon) text += "\n" + tr("Health:") + " " + number(m_newest.health_pct, 0) + "%";
  return text;
}

QString GraphViewBattery::scaleText() const { return m_columns.columns.empty() ? QString() : QStringLiteral("100 %"); }

}  // namespace pelmora
