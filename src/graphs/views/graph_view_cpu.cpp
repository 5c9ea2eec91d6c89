#include "graphs/views/graph_view_cpu.h"

namespace pelmora {

GraphViewCPU::GraphViewCPU(QWidget* parent) : GraphView(GraphClass::cpu, parent) {}

void GraphViewCPU::update(const std::vector<cpu_sample_t>& history, bool total_system) {
  m_utils = cpuColumns(history);
  m_total_system = total_system;
  redraw();
}

void GraphViewCPU::updateLegend() {
  setUpLegend(tr("CPU Utilisation (%)"), {tr("User:"), tr("System:")});
}

void GraphViewCPU::drawGraph(QPainter& painter) {
  const auto& u = m_utils;
  plot(painter, 0, u.size(), true, 0.5, [&](size_t i) { return u[i].pctUser + u[i].pctSystem; });
  plot(painter, 1, u.size(), true, 0.5, [&](size_t i) { return u[i].pctSystem; });
}

QString GraphViewCPU::currentText() const {
  const auto& s = GraphSwitches::current();
  if (!s.show_current) return {};
  const bool none = m_utils.empty();
  const double busy = none ? 0.0 : m_utils.back().pctUser + m_utils.back().pctSystem;
  QString text = "\n" + tr("Current:") + " " + (none ? pending() : number(busy * 100.0, 1) + " %");
  if (s.show_cpu_frequency && !m_total_system) {
    // The frequency reader reports nothing on machines without cpufreq or MSRs: 0 means unknown.
    const double mhz = none ? 0.0 : m_utils.back().frequency;
    text += "\n" + tr("Frequency:") + " " + (mhz > 0.0 ? number(mhz, 0) + " MHz" : pending());
  }
  return text;
}

QString GraphViewCPU::scaleText() const {
  return QStringLiteral("100 %");
}

}  // namespace pelmora
