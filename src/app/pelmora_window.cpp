#include "app/pelmora_window.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "app/desktop_icons.h"
#include "app/system_monitor_entry.h"
#include "app/window_frame.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/power_monitor.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/pid.h"
#include "support/power_assertion.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

constexpr const char* kListenerKey = "net.tandrel.pelmora.authchanged.PelmoraWindow";
constexpr const char* kAuthChanged = "net.tandrel.pelmora.authchanged";
constexpr const char* kCpuChanged = "net.tandrel.pelmora.cpuchanged";
constexpr int kWatchPeriod_ms = 1000;
// A reply cannot hold a negative count, so this marks "the helper did not answer".
constexpr cpu_numbers_t kNoAnswer{-1, -1, -1, -1};

}  // namespace

int raisedPriority(int own_priority) { return std::max(own_priority - 5, -20); }

QString headerTitle(bool on_battery) {
  return QObject::tr("Pelmora") + QStringLiteral(" — ") +
         (on_battery ? QObject::tr("on battery power") : QObject::tr("on AC power"));
}

QString constrainedCaption(size_t limited) {
  if (limited == 0) return QObject::tr("none");
  if (limited == 1) return QObject::tr("1 process");
  return QObject::tr("%1 processes").arg(limited);
}

QString helperModeText(bool via_daemon) {
  return via_daemon ? QObject::tr("Root helper serving: changes are made with the administrator's rights.")
                    : QObject::tr("No root helper running: working in-process with your own rights "
                                  "(your own processes only, no processor or throttling changes).");
}

PelmoraWindow::Options PelmoraWindow::currentOptions() {
  Options o;
  o.has_hardware_threads = hasHardwareThreads(SysRoot::current());
  o.own_pid = static_cast<int32_t>(::getpid());
  o.own_priority = PID(o.own_pid).priority();
  return o;
}

PelmoraWindow::PelmoraWindow(Pelmora& helper, PowerMonitor& power, CPULimiter& limiter, DefaultSettings& store,
                             Options options, QWidget* parent)
    : QWidget(parent, Qt::Window), m_helper(helper), m_power(power), m_limiter(limiter), m_store(store),
      m_options(options), m_timer(new QTimer(this)) {
  PowerAssertion::setName("Pelmora");
  build();
  m_powersource->setCurrentIndex(m_power.powerSource() == PowerSource::battery ? 1 : 0);
  const cpu_numbers_t counts = m_helper.requestCpuInfo(kNoAnswer);
  m_settings = Settings::load(m_store);
  m_settings.fillDefaults(m_options.has_hardware_threads,
                          counts.logical_cpu >= 0 ? std::optional<int>(counts.logical_cpu) : std::nullopt);
  copySettingsToControls();
  if (!m_options.has_hardware_threads) {
    setChecked(m_hyperthreading, false);
    m_hyperthreading->setHidden(true);
    setChecked(m_prefer_phys, true);
    m_prefer_phys->setHidden(true);
  }
  setHeaderTitle();
  m_priority = m_options.own_priority.value_or(0);
  // Every launch starts locked.
  m_helper.setAuthorised(false);
  setEnabledStates();
  applySettings();
  refreshProcessorCounts();
  // At launch the rights are not there yet; a refusal leaves the kernel as it is and only logs.
  if (!m_helper.setThrottle(m_throttle->isChecked()))
    Log("CPU settings: throttling left as the system has it; the helper refused.");
  m_mode->setText(helperModeText(m_helper.viaDaemon()));
  m_notice->clear();  // nothing was asked of the user yet: the mode line says what is possible
  // A second's precision is plenty for a caption and the priority switch: let Qt fold the wake-up
  // into others.
  m_timer->setTimerType(Qt::VeryCoarseTimer);
  connect(m_timer, &QTimer::timeout, this, [this] { limiterWatch(); });
  if (m_options.start_watch) m_timer->start(kWatchPeriod_ms);
  listen();
  m_cpucontrol->setDelegate(this);
  installWindowConventions(this, &m_store, &keys::kPelmoraWindowFrame);
}

PelmoraWindow::~PelmoraWindow() { unlisten(); }

void PelmoraWindow::listen() {
  AddListener(kPowerSourceBroadcast, kListenerKey, [this](const std::string&) { powerSourceChanged(); });
  AddListener(kAuthChanged, kListenerKey, [this](const std::string&) { setEnabledStates(); });
}

void PelmoraWindow::unlisten() {
  RemoveListener(kPowerSourceBroadcast, kListenerKey);
  RemoveListener(kAuthChanged, kListenerKey);
}

std::string PelmoraWindow::shownPowerName() const {
  return m_powersource->currentIndex() == 1 ? kBatteryPowerName : kACPowerName;
}

bool PelmoraWindow::showingActiveSource() {
  return (m_powersource->currentIndex() == 1) == (m_power.powerSource() == PowerSource::battery);
}

void PelmoraWindow::setChecked(QCheckBox* box, bool on) {
  const QSignalBlocker block(box);
  box->setChecked(on);
}

void PelmoraWindow::setHeaderTitle() {
  const bool on_battery = m_power.powerSource() == PowerSource::battery;
  m_header_title->setText(headerTitle(on_battery));
  m_power_note->setVisible(on_battery && !m_power.hasBattery());
  const int size_px = m_header_title->fontMetrics().height();
  m_header_icon->setPixmap(powerSourceIcon(on_battery, palette().color(QPalette::WindowText))
                               .pixmap(QSize(size_px, size_px), devicePixelRatioF()));
}

void PelmoraWindow::copySettingsToControls() {
  const std::string source = shownPowerName();
  setChecked(m_hyperthreading, m_options.has_hardware_threads && m_settings.flag(Settings::kHyperthreads, source));
  setChecked(m_prefer_phys, !m_options.has_hardware_threads || m_settings.flag(Settings::kPreferPhys, source));
  setChecked(m_throttle, m_settings.flag(Settings::kThrottle, source));
  const cpu_numbers_t counts = m_helper.requestCpuInfo(kNoAnswer);
  if (counts.logical_cpu < 0) {
    // Without the processor counts no stored count can be checked or shown; the helper link is
    // broken beyond what the window can repair.
    Log("CPU settings: the helper gave no processor information; stopping.");
    std::abort();
  }
  m_cpucontrol->setValue(m_settings.count(source).value_or(counts.logical_cpu));
  refreshProcessorCounts();
}

void PelmoraWindow::storeSettings() {
  PowerSourceChoices c;
  c.hyperthreads = m_hyperthreading->isChecked();
  c.prefer_phys = m_prefer_phys->isChecked();
  c.throttle = m_throttle->isChecked();
  c.cpu_count = m_cpucontrol->m_slider->value();
  m_settings.store(shownPowerName(), c);
  m_settings.save(m_store);
}

void PelmoraWindow::setEnabledStates() {
  const bool a = m_helper.authorised();
  m_hyperthreading->setEnabled(a);
  m_prefer_phys->setEnabled(a);
  m_cpucontrol->setControlEnabled(a);
  m_throttle->setEnabled(a);
  m_powersource->setEnabled(a);
  // Deliberately locked down whatever the rights: the processor count and hyper-threading are
  // applied from the stored settings but not changed here.
  m_hyperthreading->setEnabled(false);
  m_prefer_phys->setEnabled(true);
  m_cpucontrol->setControlEnabled(false);
  const bool waiting = m_helper.authorizationPending();
  m_auth->setEnabled(!waiting);
  m_auth->setText(waiting ? tr("Waiting for authentication…")
                  : a     ? tr("Click the lock to prevent changes")
                          : tr("Click the lock to make changes"));
  m_auth->setIcon(lockIcon(a, palette().color(QPalette::ButtonText)));
  m_mode->setText(helperModeText(m_helper.viaDaemon()));
}

void PelmoraWindow::refreshProcessorCounts() {
  const cpu_numbers_t counts = m_helper.requestCpuInfo(kNoAnswer);
  if (counts.logical_cpu < 0) return;
  m_counts = counts;
  m_phys_cpu->setText(QString::number(counts.physical_cpu));
  m_log_cpu->setText(QString::number(counts.logical_cpu));
  if (!showingActiveSource()) return;
  m_cpucontrol->setMaximum(counts.logical_cpu_max);
  m_cpucontrol->setValue(counts.logical_cpu);
}

bool PelmoraWindow::sendCpuCount() {
  std::string why;
  if (m_helper.setCpuCount(m_cpucontrol->m_slider->value(), m_hyperthreading->isChecked(),
                           m_prefer_phys->isChecked(), &why))
    return true;
  Log("CPU settings: the processor set was not changed; the window keeps the choice.");
  showRefusal(tr("The processor set was not changed"), why);
  return false;
}

void PelmoraWindow::showRefusal(const QString& what, const std::string& why) {
  m_notice->setText(what + QStringLiteral(": ") + QString::fromStdString(why) + QStringLiteral("."));
}

void PelmoraWindow::applySettings() {
  if (!showingActiveSource()) return;
  sendCpuCount();
  Broadcast(kCpuChanged, true);
  emit processorSetChanged();
}

// The box keeps what the user chose, refused or not: the choice is stored for its power source and
// sent again whenever that source becomes active.
void PelmoraWindow::hyperThreading(QCheckBox*) {
  m_notice->clear();
  applySettings();
  refreshProcessorCounts();
  storeSettings();
  emit controlsChanged();
}

void PelmoraWindow::sliderStepperValueChanged(SliderStepper& sender) {
  if (&sender != m_cpucontrol || m_updating) return;
  m_updating = true;
  applySettings();
  refreshProcessorCounts();
  m_updating = false;
  storeSettings();
}

void PelmoraWindow::sendThrottle(bool enable) {
  std::string why;
  if (m_helper.setThrottle(enable, &why)) return;
  Log(std::string("CPU settings: throttling not switched ") + (enable ? "on" : "off") + "; the window keeps the choice.");
  showRefusal(enable ? tr("Throttling was not switched on") : tr("Throttling was not switched off"), why);
}

void PelmoraWindow::throttleTasks(bool on) {
  m_notice->clear();
  if (on || !keys::kWarnThrottle.load(m_store)) {
    sendThrottle(on);
    storeSettings();
    emit controlsChanged();
    return;
  }
  showThrottleWarning();
}

void PelmoraWindow::showThrottleWarning() {
  auto* box = new QMessageBox(QMessageBox::Warning, tr("Pelmora"), tr("Possible performance degradation"),
                              QMessageBox::NoButton, this);
  box->setInformativeText(tr("Throttling is enabled by default. If you disable throttling, you may experience "
                             "increased overheads and suffer system performance degradation."));
  QPushButton* disable = box->addButton(tr("Disable throttling"), QMessageBox::AcceptRole);
  box->addButton(tr("Cancel"), QMessageBox::RejectRole);
  box->setCheckBox(new QCheckBox(tr("Do not show this message again"), box));
  box->setWindowModality(Qt::WindowModal);
  box->setAttribute(Qt::WA_DeleteOnClose);
  connect(box, &QMessageBox::buttonClicked, this, [this, box, disable](QAbstractButton* button) {
    if (button == disable) {
      if (box->checkBox()->isChecked()) keys::kWarnThrottle.save(m_store, false);
      setChecked(m_throttle, false);
      sendThrottle(false);
    } else {
      setChecked(m_throttle, true);
    }
    storeSettings();
    emit controlsChanged();
  });
  m_throttle_alert = box;
  box->open();
}

// Selecting the source in force sends its settings, as its becoming active does.
void PelmoraWindow::changePowerSource() {
  m_notice->clear();
  copySettingsToControls();
  if (!showingActiveSource()) return;
  applySettings();
  sendThrottle(m_throttle->isChecked());
}

void PelmoraWindow::powerSourceChanged() {
  m_notice->clear();
  m_powersource->setCurrentIndex(m_power.powerSource() == PowerSource::battery ? 1 : 0);
  copySettingsToControls();
  setHeaderTitle();
  refreshProcessorCounts();
  applySettings();
  sendThrottle(m_throttle->isChecked());
}

// "authorize" may wait minutes for a password: it runs on the helper client's worker thread and
// connection, and the window shows that it waits; the answer comes back through the main queue.
void PelmoraWindow::toggleLock() {
  if (m_helper.authorised()) {
    m_helper.deauthorize();
    m_helper.setAuthorised(false);
  } else {
    QPointer<PelmoraWindow> self(this);
    m_helper.requestAuthorization([self](const std::string& answer) {
      if (self) self->authorizationAnswered(answer);
    });
  }
  setEnabledStates();
}

void PelmoraWindow::authorizationAnswered(const std::string& answer) {
  m_notice->clear();
  if (answer != "OK") {
    Log("CPU settings: authorisation refused: " + answer + ".");
    showRefusal(tr("Not authorised"), answer);
    // The user clicked and waited: say why the lock stays shut.
    auto* box = new QMessageBox(QMessageBox::Warning, tr("Pelmora"),
                                tr("Authorization failed: %1").arg(QString::fromStdString(answer)), QMessageBox::Ok, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
  }
  setEnabledStates();
}

void PelmoraWindow::setOwnPriority(int nice) {
  if (!m_helper.setPriority(m_options.own_pid, nice))
    Log("CPU settings: could not set this program's priority to " + std::to_string(nice) + ".");
}

void PelmoraWindow::limiterWatch() {
  const size_t limited = m_limiter.limits().size();
  m_constrained->setText(constrainedCaption(limited));
  if (limited > 0 && !m_limiting) {
    m_limiting = true;
    setOwnPriority(raisedPriority(m_priority));
    PowerAssertion::switchAssertion(false);
  } else if (limited == 0 && m_limiting) {
    m_limiting = false;
    setOwnPriority(m_priority);
    PowerAssertion::switchAssertion(true);
  }
}

bool PelmoraWindow::watching() const { return m_timer->isActive(); }

BootControls PelmoraWindow::bootControls() const {
  BootControls c;
  c.hyper_threading = m_hyperthreading->isChecked();
  c.prefer_physical = m_prefer_phys->isChecked();
  c.throttle = m_throttle->isChecked();
  c.cpu_count = m_cpucontrol->m_slider->value();
  return c;
}

void PelmoraWindow::openSystemMonitor() {
  if (!launchSystemMonitor()) Log("CPU settings: no system monitor is installed.");
}

void PelmoraWindow::closeEvent(QCloseEvent* event) {
  // Without a status item the limited count is not shown anywhere while the window is closed.
  if (!keys::kShowMenubar.load(m_store)) m_timer->stop();
  storeSettings();
  unlisten();
  QWidget::closeEvent(event);
}

void PelmoraWindow::showEvent(QShowEvent* event) {
  if (m_options.start_watch && !m_timer->isActive()) m_timer->start(kWatchPeriod_ms);
  listen();
  // The source may have changed while the window was closed and not listening.
  if (!showingActiveSource()) powerSourceChanged();
  setEnabledStates();
  QWidget::showEvent(event);
}

}  // namespace pelmora
