#include "graphs/views/graph_view_io.h"

#include <QMouseEvent>

#include "graphs/views/graph_popover.h"
#include "graphs/views/text_display.h"

namespace pelmora {

GraphViewIO::GraphViewIO(QWidget* parent) : GraphView(GraphClass::io, parent) {}

GraphViewIO::~GraphViewIO() {
  // Its closing must not call back into a view that is half destroyed.
  if (m_volumes_popover) m_volumes_popover->disconnect(this);
}

GraphPopover* GraphViewIO::volumesPopover() const { return m_volumes_popover; }

void GraphViewIO::setDisk(int64_t diskno, const QString& bsdname) {
  m_diskno = diskno;
  m_bsdname = bsdname;
}

void GraphViewIO::setDataRate(bool bytes) { m_data_rate = bytes; }

void GraphViewIO::update(const std::vector<ioStats>& history) {
  auto scaled = ioColumns(history, m_data_rate, width());
  m_io_stats = std::move(scaled.columns);
  m_max_io = scaled.max;
  redraw();
}

void GraphViewIO::updateLegend() { setUpLegend(tr("Disk I/O"), {tr("Read/sec:"), tr("Write/sec:")}); }

void GraphViewIO::drawGraph(QPainter& painter) {
  const auto& r = m_io_stats;
  plot(painter, 0, r.size(), true, 0.5, [&](size_t i) { return r[i].reads; });
  plot(painter, 1, r.size(), false, 0.0, [&](size_t i) { return r[i].writes; });
}

QString GraphViewIO::currentText() const {
  if (!GraphSwitches::current().show_current) return {};
  if (m_io_stats.empty())
    return "\n" + tr("Read:") + " " + pending() + "\n" + tr("Write:") + " " + pending();
  const io_rate newest = m_io_stats.back();
  // Byte rates in binary units like the memory graph; operation counts in plain thousands.
  const int base = m_data_rate ? 1024 : 1000;
  const QString unit = m_data_rate ? QStringLiteral("B/s") : tr("IO/s");
  return "\n" + tr("Read:") + " " + formatted(newest.reads * m_max_io, base, 1, unit) + "\n" + tr("Write:") + " " +
         formatted(newest.writes * m_max_io, base, 1, unit) + "\n" + tr("Peak:") + " " +
         formatted(m_max_io, base, 1, unit);
}

void GraphViewIO::mousePressEvent(QMouseEvent* event) {
  if (event->button() == Qt::RightButton && rect().contains(event->position().toPoint()))
    openVolumes();
  else
    GraphView::mousePressEvent(event);
}

void GraphViewIO::openVolumes() {
  if (!m_volumes_popover) {
    QStringList args = {"--output", "NAME,SIZE,TYPE,FSTYPE,LABEL,MOUNTPOINTS"};
    if (!m_bsdname.isEmpty()) args << "/dev/" + m_bsdname;
    m_volumes = new TextDisplay(TextDisplay::toolOutput("lsblk", args));
    m_volumes_popover = new GraphPopover(tr("Volumes"), m_volumes, this);
    connect(m_volumes_popover, &GraphPopover::closed, this, [this](GraphPopover* p) { legendClosed(p); });
  }
  if (!m_volumes_popover->isVisible()) m_volumes_popover->showNextTo(this);
}

void GraphViewIO::legendClosed(GraphPopover* popover) {
  if (popover && popover == m_volumes_popover) {
    m_volumes_popover->disconnect(this);
    m_volumes_popover->deleteLater();
    m_volumes_popover = nullptr;
    m_volumes = nullptr;
    return;
  }
  GraphView::legendClosed(popover);
}

QString GraphViewIO::scaleText() const {
  if (!(m_max_io > 0.0)) return {};
  return formatted(m_max_io, m_data_rate ? 1024 : 1000, 1, m_data_rate ? QStringLiteral("B/s") : tr("IO/s"));
}

}  // namespace pelmora
