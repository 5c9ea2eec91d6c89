#pragma once
// One graphics card: the share of its memory in use and its utilisation.
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewGFX : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewGFX(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<graphicsCardStats>& history);
  const std::vector<graphicsCardStats>& gfxStats() const { return m_gfx_stats; }

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  std::vector<graphicsCardStats> m_gfx_stats;
};

}  // namespace pelmora
