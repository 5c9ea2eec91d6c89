#pragma once
// StatusBarController: the tray icon and its menu. The menu starts with three read-outs (processor
// split, disk rates, processor counts), refreshed from the helper and the limiter when the menu is
// about to show and every second while it shows; the application appends its own actions below them.
// The machine's split and disk rates come from the limiter's full table refresh, which runs only while
// something shows them: an open menu is such a client, and until its second refresh has measured an
// interval the two lines say they are measuring rather than show old figures. The icon carries "HT" while
// hyper-threading is on; where the desktop cannot show a live window icon (Wayland) it shows the live
// graph instead of the program's icon. Main thread only.
#include <QIcon>
#include <QObject>
#include <QString>
#include <QTimer>

#include <array>
#include <functional>

#include "process_control/procinfo.h"
#include "support/kernel_records.h"

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace pelmora {

class CPULimiter;
class Pelmora;

// The three read-out lines (processor split of the whole machine, disk rates, processor counts),
// numbers in the current locale. Pure.
// Without `rates_current` the first two say that they are being measured.
std::array<QString, 3> statusReadouts(const usageInfo& usage, const rwInfo& disk, const cpu_numbers_t& counts,
                                      bool rates_current = true);
// The icon with "HT" drawn over it (at 22 x 22 pixels, the common tray size).
QIcon iconWithHT(const QIcon& base);

class StatusBarController : public QObject {
  Q_OBJECT
 public:
  // Whether hyper-threading is on now (the machine has threads and the settings window's box is on).
  using HyperThreading = std::function<bool()>;

  StatusBarController(Pelmora& helper, CPULimiter& limiter, HyperThreading hyper, QObject* parent = nullptr);
  ~StatusBarController() override;

  QMenu* statusMenu() const { return m_menu; }
  // Shows the tray icon (creating it when absent) / removes it.
  void install();
  void remove();
  bool installed() const { return m_tray != nullptr; }
  QSystemTrayIcon* tray() const { return m_tray; }

  // The program's icon, or the live graph where the window icon cannot show it.
  void setBaseIcon(const QIcon& icon);
  // Redraws the icon for the current hyper-threading state.
  void refreshTitle();
  // The menuNeedsUpdate: the three read-outs from the helper and the limiter.
  void refreshReadouts();
  QAction* readout(int index) const { return m_readouts.at(static_cast<size_t>(index)); }
  // The figures behind the icon, shown when the pointer rests on it; refreshed with the icon.
  QString toolTip() const;
  void refreshToolTip();

 signals:
  // A click on the icon itself (not the menu).
  void activated();

 private:
  // The open menu is a client of the limiter's table while it shows.
  void menuShown();
  void menuHidden();
  bool ratesCurrent() const;

  Pelmora& m_helper;
  CPULimiter& m_limiter;
  HyperThreading m_hyper;
  QMenu* m_menu;
  std::array<QAction*, 3> m_readouts{};
  QSystemTrayIcon* m_tray = nullptr;
  QIcon m_base_icon;
  cpu_numbers_t m_counts{};  // from the last menu refresh
  bool m_shows_ht = false;
  QTimer m_live;                 // refreshes the read-outs while the menu shows
  bool m_table_client = false;   // registered with the limiter while the menu shows
  uint64_t m_current_after = 0;  // the limiter's full refresh count from which its rates are current
};

}  // namespace pelmora
