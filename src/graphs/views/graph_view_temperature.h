#pragma once
// Temperatures: one line per chosen sensor (the processor package, the hottest GPU, the hottest disk)
// in °C against a fixed scale, and each sensor's critical limit as a dashed mark in its colour.
#include <vector>

#include "graphs/thermal_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewTemperature : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewTemperature(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<std::vector<temperatureStats>>& history);
  const TemperatureColumns& columns() const { return m_columns; }

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;

 private:
  void drawCriticalMark(QPainter& painter, size_t role);
  TemperatureColumns m_columns;
};

}  // namespace pelmora
