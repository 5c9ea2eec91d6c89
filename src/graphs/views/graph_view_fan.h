#pragma once
// One fan: its speed between its minimum and maximum, scaled to the fastest visible value.
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewFan : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewFan(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<fanStats>& history);

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  std::vector<fan_column> m_fan_speeds;
  int64_t m_min_speed = 100000;
  int64_t m_max_speed = 0;
};

}  // namespace pelmora
