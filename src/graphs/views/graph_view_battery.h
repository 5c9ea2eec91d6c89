#pragma once
// One battery: its charge in percent (filled) and the rate it charges or discharges at, scaled to the
// visible peak rate; the caption says the state and the time left.
#include <vector>

#include "graphs/thermal_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class GraphViewBattery : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewBattery(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<batteryStats>& history);
  const BatteryColumns& columns() const { return m_columns; }
  // "63% discharging", "80% charging": what the live icon and the caption say first.
  static QString chargeState(const batteryStats& battery);

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;

 private:
  BatteryColumns m_columns;
  batteryStats m_newest;
};

}  // namespace pelmora
