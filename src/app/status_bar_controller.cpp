#include "app/status_bar_controller.h"

#include <QAction>
#include <QFont>
#include <QLocale>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

#include "graphs/value_formatter.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"

namespace pelmora {

namespace {

constexpr int kTrayIcon_px = 22;

QString number(double value, int decimals) { return QLocale().toString(value, 'f', decimals); }

QString byteRate(double bytes_per_s) {
  return QString::fromStdString(formatValue(bytes_per_s, 1024, 1, "B/s", [](double value, int decimals) {
    return number(value, decimals).toStdString();
  }));
}

}  // namespace

std::array<QString, 3> statusReadouts(const usageInfo& usage, const rwInfo& disk, const cpu_numbers_t& counts,
                                      bool rates_current) {
  // Shares of the whole machine: system, user and idle add up to 100 %, however many processors.
  const QString cpu = rates_current ? QObject::tr("CPU: system %1 %, user %2 %, idle %3 %")
                                          .arg(number(usage.system * 100.0, 1), number(usage.user * 100.0, 1),
                                               number(usage.idle * 100.0, 1))
                                    : QObject::tr("CPU: measuring…");
  const QString io =
      rates_current ? QObject::tr("Disk: read %1, write %2").arg(byteRate(disk.readPerSec), byteRate(disk.writePerSec))
                    : QObject::tr("Disk: measuring…");
  const QString cores = QObject::tr("Processors: %1 logical, %2 physical")
                            .arg(QLocale().toString(counts.logical_cpu), QLocale().toString(counts.physical_cpu));
  return {cpu, io, cores};
}

QIcon iconWithHT(const QIcon& base) {
  QPixmap pixmap(kTrayIcon_px, kTrayIcon_px);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  base.paint(&painter, pixmap.rect());
  QFont font = painter.font();
  font.setBold(true);
  font.setPixelSize(kTrayIcon_px / 2);
  painter.setFont(font);
  // A dark plate under the letters keeps them readable on any graph or panel colour.
  const QRect plate(0, kTrayIcon_px / 2, kTrayIcon_px, kTrayIcon_px / 2);
  painter.fillRect(plate, QColor(0, 0, 0, 170));
  painter.setPen(Qt::white);
  painter.drawText(plate, Qt::AlignCenter, QStringLiteral("HT"));
  painter.end();
  return QIcon(pixmap);
}

StatusBarController::StatusBarController(Pelmora& helper, CPULimiter& limiter, HyperThreading hyper, QObject* parent)
    : QObject(parent), m_helper(helper), m_limiter(limiter), m_hyper(std::move(hyper)), m_menu(new QMenu) {
  for (auto& item : m_readouts) {
    item = m_menu->addAction(QString());
    item->setEnabled(false);
  }
  m_menu->addSeparator();
  connect(m_menu, &QMenu::aboutToShow, this, &StatusBarController::menuShown);
  connect(m_menu, &QMenu::aboutToHide, this, &StatusBarController::menuHidden);
  m_live.setInterval(1000);
  // A read-out a little late is fine: let the system group this wake-up with others.
  m_live.setTimerType(Qt::CoarseTimer);
  connect(&m_live, &QTimer::timeout, this, &StatusBarController::refreshReadouts);
}

StatusBarController::~StatusBarController() {
  menuHidden();
  remove();
  delete m_menu;
}

void StatusBarController::install() {
  if (!m_tray) {
    m_tray = new QSystemTrayIcon(this);
    m_tray->setToolTip(toolTip());
    m_tray->setContextMenu(m_menu);
    connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
      if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) emit activated();
    });
  }
  refreshTitle();
  m_tray->show();
}

void StatusBarController::remove() {
  if (!m_tray) return;
  m_tray->hide();
  m_tray->setContextMenu(nullptr);
  delete m_tray;
  m_tray = nullptr;
}

void StatusBarController::setBaseIcon(const QIcon& icon) {
  m_base_icon = icon;
  refreshTitle();
  refreshToolTip();
}

void StatusBarController::refreshTitle() {
  m_shows_ht = m_hyper && m_hyper();
  if (m_tray) m_tray->setIcon(m_shows_ht ? iconWithHT(m_base_icon) : m_base_icon);
}

void StatusBarController::refreshReadouts() {
  // A field left at -1 means the helper did not answer: the items keep what they showed.
  const cpu_numbers_t unknown{-1, -1, -1, -1};
  const cpu_numbers_t first = m_helper.requestCpuInfo(unknown);
  if (first.logical_cpu < 0) return;
  cpu_numbers_t second = m_helper.requestCpuInfo(unknown);
  if (second.logical_cpu < 0) second = {};
  m_counts = second;
  const auto lines = statusReadouts(m_limiter.usage(), m_limiter.diskRates(), second, ratesCurrent());
  for (size_t i = 0; i < lines.size(); ++i) {
    m_readouts[i]->setText(lines[i]);
    m_readouts[i]->setEnabled(false);
    m_readouts[i]->setVisible(true);
  }
  refreshToolTip();
}

QString StatusBarController::toolTip() const {
  QString text = QStringLiteral("Pelmora");
  // The split and the disk rates only while something keeps them measured; never figures of long ago.
  const bool current = ratesCurrent();
  const auto lines = statusReadouts(m_limiter.usage(), m_limiter.diskRates(), m_counts, current);
  if (current) text += "\n" + lines[0] + "\n" + lines[1];
  if (m_counts.logical_cpu > 0) text += "\n" + lines[2];
  return text;
}

void StatusBarController::menuShown() {
  if (!m_table_client) {
    // With a table already on screen the figures are current now; otherwise from the second full
    // refresh on (the first one after a light pass has no interval to measure).
    const bool shown_elsewhere = m_limiter.tableWanted();
    m_current_after = m_limiter.refreshCounts().full + (shown_elsewhere ? 0 : 2);
    m_limiter.addTableClient();
    m_table_client = true;
  }
  refreshReadouts();
  m_live.start();
}

void StatusBarController::menuHidden() {
  m_live.stop();
  if (!m_table_client) return;
  m_table_client = false;
  m_limiter.removeTableClient();
}

bool StatusBarController::ratesCurrent() const {
  return m_limiter.tableWanted() && m_limiter.refreshCounts().full >= m_current_after;
}

void StatusBarController::refreshToolTip() {
  if (m_tray) m_tray->setToolTip(toolTip());
}

}  // namespace pelmora
