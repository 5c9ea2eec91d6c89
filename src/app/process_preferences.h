#pragma once
// The "Processes" pane of the preferences: apply the CPU settings at boot, launch at login, the
// task-bar entry and the tray icon (never both off), remembering limited and reniced programs and
// limiting the frontmost application. Every change is saved at once and announced with
// "net.tandrel.pelmora.prefschanged".
#include <QPointer>
#include <QWidget>

#include <functional>
#include <optional>

#include "app/launch_at_login.h"
#include "helper_link/boot_flags.h"
#include "helper_link/boot_locations.h"

class QCheckBox;
class QMessageBox;

namespace pelmora {

class DefaultSettings;
class Pelmora;

class ProcessPreferences : public QWidget {
  Q_OBJECT
 public:
  // The CPU settings window's controls, for the boot-time settings text; none without that window.
  using BootControlsSource = std::function<std::optional<BootControls>()>;
  struct Options {
    LaunchAtLogin login = LaunchAtLogin::standard();
    BootLocations boot = BootLocations::standard();
  };

  ProcessPreferences(DefaultSettings& store, Pelmora& helper, BootControlsSource controls, Options options,
                     QWidget* parent = nullptr);
  static QString toolbarTitle() { return tr("Processes"); }
  static QString toolbarIcon() { return QStringLiteral("processes"); }

  void load();
  void save();
  void preferencesChanged(QCheckBox* sender);
  void launchAtLogin(bool on);
  void applyBoot(bool on);

  QCheckBox* m_apply_boot;
  QCheckBox* m_launch_login;
  QCheckBox* m_show_dock;
  QCheckBox* m_show_menubar;
  QCheckBox* m_save_limited;
  QCheckBox* m_save_reniced;
  QCheckBox* m_limit_frontmost;
  QPointer<QMessageBox> m_boot_alert;  // open while the apply-at-boot warning is shown

 private:
  void build();
  void installBoot(bool install);
  void showBootWarning();

  DefaultSettings& m_store;
  Pelmora& m_helper;
  BootControlsSource m_controls;
  Options m_options;
};

// The Dock/status-item rule: when both are off the Dock icon comes back. Returns the Dock state. Pure.
bool keepDockOrStatusItem(bool show_dock, bool show_menubar);

}  // namespace pelmora
