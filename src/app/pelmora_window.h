#pragma once
// PelmoraWindow: the CPU settings window. Shows the processor counts, lets an authorised administrator
// choose hyper-threading, the preference for physical cores and I/O throttling, keeps one set of
// these per power source (Settings, "CPU_Settings") and sends the set of the active source to the
// helper. While the limiter holds any process it raises this program's own priority so that the
// duty cycle keeps its timing. Main thread only; the helper client, power monitor and limiter are
// read under their own locks.
#include <QPointer>
#include <QWidget>

#include <optional>

#include "app/settings.h"
#include "app/slider_stepper.h"
#include "helper_link/boot_flags.h"
#include "support/kernel_records.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QMessageBox;
class QPushButton;
class QTimer;

namespace pelmora {

class CPULimiter;
class DefaultSettings;
class Pelmora;
class PowerMonitor;

class PelmoraWindow : public QWidget, public SliderStepperDelegate {
  Q_OBJECT
 public:
  struct Options {
    bool has_hardware_threads = false;
    int32_t own_pid = 0;
    std::optional<int> own_priority;  // this process's nice value at load; none: 0
    // Run the one-second limiter watch (tests call limiterWatch() themselves).
    bool start_watch = true;
  };
  // The options of this machine and this process.
  static Options currentOptions();

  // Loads the settings, sends those of the active source to the helper and starts the watch.
  PelmoraWindow(Pelmora& helper, PowerMonitor& power, CPULimiter& limiter, DefaultSettings& store,
                Options options, QWidget* parent = nullptr);
  ~PelmoraWindow() override;

  void storeSettings();
  void applySettings();
  void refreshProcessorCounts();
  void copySettingsToControls();
  void setEnabledStates();
  void limiterWatch();
  // Whether the one-second limiter watch runs.
  bool watching() const;
  // The controls that make up the boot-time settings text.
  BootControls bootControls() const;

  void sliderStepperValueChanged(SliderStepper& sender) override;

  // The actions of the controls (public for the application's menus and for tests).
  void hyperThreading(QCheckBox* sender);
  void throttleTasks(bool on);
  void changePowerSource();
  void toggleLock();
  // The answer to the lock button's request, on the main thread.
  void authorizationAnswered(const std::string& answer);
  void openSystemMonitor();
  void powerSourceChanged();

  QLabel* m_header_icon;  // the power-source symbol
  QLabel* m_header_title;
  QCheckBox* m_hyperthreading;
  QCheckBox* m_prefer_phys;
  QLabel* m_phys_cpu;
  QLabel* m_log_cpu;
  QPushButton* m_activity_monitor;
  QLabel* m_constrained;
  QCheckBox* m_throttle;
  QComboBox* m_powersource;
  QPushButton* m_power_switch;
  QLabel* m_power_note;  // why battery settings show on a machine without a battery
  QPushButton* m_auth;
  QLabel* m_mode;    // who serves the helper requests: the root daemon or this process
  QLabel* m_notice;  // why the helper refused the last change, until the next one succeeds
  QWidget* m_ph_controller;
  SliderStepper* m_cpucontrol;
  QPointer<QMessageBox> m_throttle_alert;  // open while the throttling warning is shown

 signals:
  // The processor set changed: the statistics window rebuilds its processor graphs.
  void processorSetChanged();
  // A control that the status item's title shows changed.
  void controlsChanged();

 protected:
  void closeEvent(QCloseEvent* event) override;
  void showEvent(QShowEvent* event) override;

 private:
  void build();
  QWidget* buildCountsBox();
  QWidget* buildControlsBox();
  std::string shownPowerName() const;
  bool showingActiveSource();
  void setHeaderTitle();
  void setChecked(QCheckBox* box, bool on);
  void sendThrottle(bool enable);
  // Sends the processor set in force; false (and the user told why) when the helper refused.
  bool sendCpuCount();
  void showRefusal(const QString& what, const std::string& why);
  void listen();
  void unlisten();
  void showThrottleWarning();
  void setOwnPriority(int nice);

  Pelmora& m_helper;
  PowerMonitor& m_power;
  CPULimiter& m_limiter;
  DefaultSettings& m_store;
  Options m_options;
  bool m_updating = false;
  int m_priority = 0;
  bool m_limiting = false;
  QTimer* m_timer;
  Settings m_settings;
  cpu_numbers_t m_counts;
};

// The nice value asked for while processes are limited: five below our own, never below -20. Pure.
int raisedPriority(int own_priority);
// The header line beside the power-source symbol: the program's name and the power source.
QString headerTitle(bool on_battery);
// The caption beside "Limited:": "none", "1 process" or "N processes".
QString constrainedCaption(size_t limited);
// Who serves the helper requests, as the CPU settings and process windows show it.
QString helperModeText(bool via_daemon);

}  // namespace pelmora
