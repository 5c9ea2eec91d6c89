#pragma once
// Disk traffic: reads and writes per sample (operations, or bytes), scaled to the visible peak. A
// right click shows the disk's volumes.
#include <QPointer>

#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/views/graph_view.h"

namespace pelmora {

class TextDisplay;

class GraphViewIO : public GraphView {
  Q_OBJECT
 public:
  explicit GraphViewIO(QWidget* parent = nullptr);
  ~GraphViewIO() override;
  using QWidget::update;
  // The disk this graph shows (an empty name: all disks).
  void setDisk(int64_t diskno, const QString& bsdname);
  void setDataRate(bool bytes);
  void update(const std::vector<ioStats>& history);
  double maxIO() const { return m_max_io; }
  GraphPopover* volumesPopover() const;
  void openVolumes();

 protected:
  void updateLegend() override;
  void drawGraph(QPainter& painter) override;
  QString currentText() const override;
  QString scaleText() const override;
  void legendClosed(GraphPopover* popover) override;
  void mousePressEvent(QMouseEvent* event) override;

 private:
  QPointer<GraphPopover> m_volumes_popover;
  QPointer<TextDisplay> m_volumes;
  int64_t m_diskno = -1;
  QString m_bsdname;
  bool m_data_rate = false;
  std::vector<io_rate> m_io_stats;
  double m_max_io = 0.0;
};

}  // namespace pelmora
