#pragma once
// Load average: the 1-, 5- and 15-minute averages, scaled to the visible peak.
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewLoad : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewLoad(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<loadAverage>& history);
  const std::vector<load_column>& loadAvg() const { return m_load_avg; }

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  std::vector<load_column> m_load_avg;
  double m_max_load = 0.0;
};

}  // namespace pelmora
