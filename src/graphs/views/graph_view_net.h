#pragma once
// One network interface: bytes in and out per sample with their running averages, scaled to the
// visible peak; the captions give bits per second. A right click shows the interface's configuration.
#include <QPointer>

#include <optional>
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class TextDisplay;

class GraphViewNet : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewNet(QWidget* parent = nullptr);
  ~GraphViewNet() override;
  using QWidget::update;
  void setInterface(const QString& name);
  // Cumulative byte counters, oldest first. The averaging follows the graph preferences.
  void update(const std::vector<netStats>& history);
  const std::vector<bit_rate>& rates() const { return m_net_stats; }
  double maxBps() const { return m_max_bps; }
  GraphPopover* ifconfigPopover() const;
  void openIfconfig();

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;
  void legendClosed(GraphPopover* popover) override;
  void mousePressEvent(QMouseEvent* event) override;

 private:
  std::optional<QString> m_interface;
  QPointer<GraphPopover> m_ifconfig_popover;
  QPointer<TextDisplay> m_ifconfig;
  std::vector<bit_rate> m_net_stats;
  double m_max_bps = 0.0;  // bytes per sample
};

}  // namespace pelmora
