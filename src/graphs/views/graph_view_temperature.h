#pragma once
// Temperatures: one line per chosen sensor in °C against a fixed scale, and each sensor's critical
// limit as a dashed mark in its colour. The lines show the processor package, the hottest GPU and the
// hottest disk unless the user picked other sensors from the graph's context menu; that choice is
// kept under "graph_temp_sensors" and read again whenever the graph is shown.
#include <string>
#include <vector>

#include "graphs/views/kind_graph_view.h"

class QMenu;

namespace pelmora {

class GraphViewTemperature : public KindGraphView<kTemperatureGraph> {
  Q_OBJECT
 public:
  explicit GraphViewTemperature(QWidget* parent = nullptr);
  using QWidget::update;
  void update(const std::vector<std::vector<temperatureStats>>& history);
  const TemperatureColumns& columns() const { return model(); }

  // The sensor drawn in each line by name ("" leaves a line empty); empty: the default choice.
  // Saved, and the graph redrawn from the samples it holds.
  void setSensorChoice(const std::vector<std::string>& choice);
  // The context menu: every sensor of the newest sample, ticked while drawn (at most one per line),
  // and "Default Sensors".
  QMenu* makeSensorMenu(QWidget* parent);

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void showEvent(QShowEvent* event) override;

 private:
  void drawCriticalMark(QPainter& painter, size_t role);
  // The lines drawn now, by sensor name, with the one named `sensor` added or taken out.
  std::vector<std::string> toggled(const std::string& sensor, bool on) const;
  void recompute();

  std::vector<std::vector<temperatureStats>> m_visible;  // the newest samples, as many as there are columns
  std::vector<std::string> m_choice;
};

}  // namespace pelmora
