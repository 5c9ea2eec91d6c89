#include "graphs/views/graph_view_mem.h"

namespace pelmora {

GraphViewMEM::GraphViewMEM(QWidget* parent) : GraphView(GraphClass::mem, parent) {}

void GraphViewMEM::update(const std::vector<memoryStats>& history, int64_t page_size_bytes) {
  m_mem_stats = memColumns(history);
  m_total_mem = 0.0;
  if (!history.empty()) {
    const auto& m = history.back();
    m_total_mem = static_cast<double>(m.free_count + m.active_count + m.inactive_count + m.wire_count) *
                  static_cast<double>(page_size_bytes);
  }
  redraw();
}

void GraphViewMEM::updateLegend() {
  setUpLegend(tr("Memory Usage"), {tr("Inactive:"), tr("Active:"), tr("Wired:")});
}

void GraphViewMEM::drawGraph(QPainter& painter) {
  const auto& m = m_mem_stats;
  plot(painter, 0, m.size(), true, 0.75,
       [&](size_t i) { return m[i].inactive_count + m[i].active_count + m[i].wire_count; });
  plot(painter, 1, m.size(), true, 0.75, [&](size_t i) { return m[i].active_count + m[i].wire_count; });
  plot(painter, 2, m.size(), true, 0.75, [&](size_t i) { return m[i].wire_count; });
}

QString GraphViewMEM::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (m_mem_stats.empty()) return "\n" + tr("Free:") + " " + pending();
  return "\n" + tr("Free:") + " " + formatted(m_mem_stats.back().free_count * m_total_mem, 1024, 1, QStringLiteral("B"));
}

QString GraphViewMEM::scaleText() const {
  return m_total_mem > 0.0 ? formatted(m_total_mem, 1024, 1, QStringLiteral("B")) : QString();
}

}  // namespace pelmora
