#pragma once
// Process counts: the user's own, root's and everyone else's as stacked bands, and the translated
// count as a line of its own; scaled to the visible peak of the stacked total.
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewProc : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewProc(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<procstat>& history);

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  std::vector<procStat> m_proc_stats;
  int64_t m_max_procs = 0;
};

}  // namespace pelmora
