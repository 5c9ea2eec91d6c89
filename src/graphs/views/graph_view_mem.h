#pragma once
// Memory: wired, active and inactive pages as stacked bands, as fractions of all pages.
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewMEM : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewMEM(QWidget* parent = nullptr);
  using QWidget::update;
  // Page counts, oldest first; page_size_bytes turns the free count into bytes for the caption.
  void update(const std::vector<memoryStats>& history, int64_t page_size_bytes);

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  std::vector<mem_stats> m_mem_stats;
  double m_total_mem = 0.0;  // bytes of the newest sample
};

}  // namespace pelmora
