#include "graphs/views/graph_view_load.h"

namespace pelmora {

GraphViewLoad::GraphViewLoad(QWidget* parent) : GraphView(GraphClass::load, parent) {}

void GraphViewLoad::update(const std::vector<loadAverage>& history) {
  auto scaled = loadColumns(history, width());
  m_load_avg = std::move(scaled.columns);
  m_max_load = scaled.max;
  redraw();
}

void GraphViewLoad::updateLegend() {
  setUpLegend(tr("Load Average"), {tr("1 Minute:"), tr("5 Minutes:"), tr("15 Minutes:")});
}

void GraphViewLoad::drawGraph(QPainter& painter) {
  const auto& l = m_load_avg;
  plot(painter, 0, l.size(), true, 0.4, [&](size_t i) { return l[i].one; });
  plot(painter, 1, l.size(), false, 0.0, [&](size_t i) { return l[i].five; });
  plot(painter, 2, l.size(), false, 0.0, [&](size_t i) { return l[i].fifteen; });
}

QString GraphViewLoad::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (m_load_avg.empty()) return "\n" + tr("1 Min:") + " " + pending();
  const load_column newest = m_load_avg.back();
  auto value = [&](double fraction) { return number(fraction * m_max_load, 2); };
  return "\n" + tr("1 Min:") + " " + value(newest.one) + "  " + tr("5 Min:") + " " + value(newest.five) + "  " +
         tr("15 Min:") + " " + value(newest.fifteen) + "\n" + tr("Peak:") + " " + number(m_max_load, 2);
}

QString GraphViewLoad::scaleText() const {
  return m_max_load > 0.0 ? number(m_max_load, 2) : QString();
}

}  // namespace pelmora
