#pragma once
// Processor utilisation: the busy share (user + system) with the system share as a band beneath it.
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewCPU : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewCPU(QWidget* parent = nullptr);
  using QWidget::update;
  // The processor's (or the whole system's) sample history, oldest first.
  void update(const std::vector<cpu_sample_t>& history, bool total_system);
  const std::vector<cpu_util>& utils() const { return m_utils; }

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  std::vector<cpu_util> m_utils;
  bool m_total_system = false;
};

}  // namespace pelmora
