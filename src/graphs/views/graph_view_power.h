#pragma once
// Power: total, processor and graphics power in watts, scaled to the visible peak.
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewPower : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewPower(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<powerStats>& history);
  const std::vector<power_column>& power() const { return m_power; }

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  std::vector<power_column> m_power;
  double m_max_power = 0.0;
  bool m_sensor = false;
  bool m_sampled = false;  // at least one sample arrived, with or without a sensor
};

}  // namespace pelmora
