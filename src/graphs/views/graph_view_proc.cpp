#include "graphs/views/graph_view_proc.h"

#include <cmath>

namespace pelmora {

GraphViewProc::GraphViewProc(QWidget* parent) : GraphView(GraphClass::proc, parent) {}

void GraphViewProc::update(const std::vector<procstat>& history) {
  auto scaled = procColumns(history, width());
  m_proc_stats = std::move(scaled.columns);
  m_max_procs = static_cast<int64_t>(std::llround(scaled.max));
  redraw();
}

void GraphViewProc::updateLegend() {
  setUpLegend(tr("Process Counts"), {tr("Owned by me:"), tr("System:"), tr("Other:"), tr("Translated:")});
}

void GraphViewProc::drawGraph(QPainter& painter) {
  // Back to front: each band is the sum of its own count and those drawn after it.
  const auto& p = m_proc_stats;
  plot(painter, 0, p.size(), true, 0.75, [&](size_t i) { return p[i].user + p[i].system + p[i].other; });
  plot(painter, 1, p.size(), true, 0.75, [&](size_t i) { return p[i].system + p[i].other; });
  plot(painter, 2, p.size(), true, 0.75, [&](size_t i) { return p[i].other; });
  plot(painter, 3, p.size(), true, 0.5, [&](size_t i) { return p[i].translated; });
}

QString GraphViewProc::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (m_proc_stats.empty()) return "\n" + tr("My Procs:") + " " + pending();
  const procStat newest = m_proc_stats.back();
  const double max = static_cast<double>(m_max_procs);
  auto count = [&](double fraction) { return number(std::round(fraction * max), 0); };
  return "\n" + tr("My Procs:") + " " + count(newest.user) + "  " + tr("System:") + " " + count(newest.system) +
         "\n" + tr("Other:") + " " + count(newest.other) + "  " + tr("Translated:") + " " +
         count(newest.translated);
}

QString GraphViewProc::scaleText() const {
  return m_max_procs > 0 ? number(static_cast<double>(m_max_procs), 0) : QString();
}

}  // namespace pelmora
