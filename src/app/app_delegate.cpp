#include "app/app_delegate.h"

#include <QApplication>
#include <QCheckBox>
#include <QMenu>
#include <QMessageBox>
#include <QTimer>

#include "app/desktop_icons.h"
#include "app/desktop_scheme.h"
#include "app/dock.h"
#include "app/frontmost_provider.h"
#include "app/procinfo_window.h"
#include "app/status_bar_controller.h"
#include "app/system_stats_window.h"
#include "app/window_frame.h"
#include "graphs/graph_palette.h"
#include "graphs/views/graph_view.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/power_monitor.h"
#include "sampling/system_stats.h"
#include "support/broadcast.h"
#include "support/default_settings.h"
#include "support/logger.h"
#include "support/settings_keys.h"

namespace pelmora {

namespace {

// Switching the task-bar entry off re-creates the windows hidden; this brings them back.
constexpr int kReopenDelay_ms = 50;

class RealAppCore : public AppCore {
 public:
  RealAppCore(CPULimiter& limiter, PowerMonitor& power, SystemStats& sampler)
      : m_limiter(limiter), m_power(power), m_sampler(sampler) {}
  void startPowerMonitor() override { m_power.startMonitoring(); }
  void stopPowerMonitor() override { m_power.stopMonitoring(); }
  void startLimiter() override {
    if (!m_limiter.start()) Log("Limiter timer did not start.");
  }
  void stopLimiter() override {
    m_limiter.stopTimer();
    m_limiter.stop();
    m_limiter.continueAll();
  }
  void samplerSleeping(bool sleeping) override { m_sampler.sleepStateChanged(sleeping); }
  void setLimitFrontmost(bool limit) override { m_limiter.setLimitFrontmost(limit); }

 private:
  CPULimiter& m_limiter;
  PowerMonitor& m_power;
  SystemStats& m_sampler;
};

}  // namespace

std::unique_ptr<AppCore> makeAppCore(CPULimiter& limiter, PowerMonitor& power, SystemStats& sampler) {
  return std::make_unique<RealAppCore>(limiter, power, sampler);
}

AppDelegate::AppDelegate(AppServices services, QObject* parent) : QObject(parent), m_services(std::move(services)) {
  if (!m_services.core) m_services.core = makeAppCore(m_services.limiter, m_services.power, m_services.sampler);
}

AppDelegate::~AppDelegate() {
  terminate();
  if (m_launched && &GraphView::settingsStore() == &m_services.store) GraphView::setSettingsStore(nullptr);
  delete m_window;
  for (QMenu* menu : m_main_menus) delete menu;
}

void AppDelegate::trace(const char* step) {
  if (m_services.trace) m_services.trace(step);
}

void AppDelegate::finishLaunching() {
  if (m_launched) return;
  m_launched = true;
  DefaultSettings& store = m_services.store;
  // The first key is written at every quit, so its absence means this is the first launch.
  m_first_launch = !store.contains(keys::kAppPelmora.key);
  // Without a program icon the windows show the window manager's default and the tray an empty
  // square; the live icon keeps this one as the icon it comes back to.
  if (QApplication::windowIcon().isNull()) QApplication::setWindowIcon(programIcon());
  // Before any window exists, so that none is ever drawn in colours the desktop did not ask for.
  if (m_services.desktop_bus) {
    m_scheme = std::make_unique<DesktopScheme>(m_services.desktop_bus());
    trace("DesktopScheme");
  }

  createPreferences();
  trace("PreferencesWindow");
  m_window = new PelmoraWindow(m_services.helper, m_services.power, m_services.limiter, store,
                               m_services.window_options);
  trace("PelmoraWindow");
  // The full process table is gathered only while the process window shows it.
  m_services.limiter.setTableOnDemand(true);
  // The process counts of the statistics window and the live icon come from the limiter's table.
  // The provider runs under the sampler's lock and takes the limiter's: the documented lock order.
  m_services.sampler.setProcessCensusProvider([&limiter = m_services.limiter] { return limiter.owners(); });
  // Every graph colour the user chose, before anything draws: the live icon's view is never shown on
  // screen, so it would not load them itself.
  GraphView::setSettingsStore(&store);
  for (GraphClass graph : kAllGraphClasses) GraphPalette::load(graph, store);
  m_dock = std::make_unique<Dock>(m_services.sampler, store);
  createDockMenu();
  trace("Dock");
  m_menubar = std::make_unique<StatusBarController>(m_services.helper, m_services.limiter,
                                                    [this] {
    return m_services.window_options.has_hardware_threads && m_window->m_hyperthreading->isChecked();
  });
  trace("StatusBarController");
  buildMainMenus();

  if (!keys::kAppPelmora.load(store)) showPelmora();
  if (keys::kAppProcesses.load(store)) {
    showProcesses();
    trace("ProcinfoWindow");
  }
  if (keys::kAppSystemStats.load(store)) {
    showSystemStats();
    trace("SystemStatsWindow");
  }

  m_services.core->startPowerMonitor();
  trace("PowerMonitor");
  // The limiter asks which process is in front from its own thread: give it the X11 answer first.
  if (QGuiApplication::platformName() == QLatin1String("xcb")) {
    m_frontmost = FrontmostProvider::create(true);
    FrontmostProvider::install(m_frontmost);
  }
  m_services.core->startLimiter();
  trace("CPULimiter");
  m_sleepnotifier = std::make_unique<SleepNotify>([this](SleepEvent event) { sleepHandler(event); },
                                                  m_services.sleep_source());
  trace("SleepNotify");
  if (!m_services.live_window_icon) {
    connect(m_dock.get(), &Dock::trayIconChanged, m_menubar.get(), &StatusBarController::setBaseIcon);
    m_menubar->setBaseIcon(m_dock->trayIcon());
  } else {
    // The window icon may already be the live graph: the tray keeps the program's own.
    m_menubar->setBaseIcon(programIcon());
    connect(m_dock.get(), &Dock::iconChanged, m_menubar.get(), &StatusBarController::refreshToolTip);
  }
  connect(m_window, &PelmoraWindow::controlsChanged, m_menubar.get(), &StatusBarController::refreshTitle);
  connect(m_window, &PelmoraWindow::processorSetChanged, this, [] {
    if (auto* stats = SystemStatsWindow::instance()) stats->processorSetChanged();
  });
  connect(m_menubar.get(), &StatusBarController::activated, this, &AppDelegate::openWindows);

  applyPresentation(!keys::kAppPelmora.load(store));
  AddListener(kPrefsChangedBroadcast, kListenerKey, [this](const std::string&) { applyPresentation(true); });
  trace("listener");
  if (m_first_launch) showAbout();
}

void AppDelegate::terminate() {
  if (!m_launched || m_terminated) return;
  m_terminated = true;
  RemoveListener(kPrefsChangedBroadcast, kListenerKey);
  m_services.helper.applyBoot(keys::kApplyBoot.load(m_services.store), m_window->bootControls());
  {
    // Every pane and window saves its keys: one write of the file for all of them.
    DefaultSettings::Batch batch(m_services.store);
    savePreferences();
    saveWindowKeys();
  }
  m_services.core->stopLimiter();
  m_services.core->stopPowerMonitor();
  // Kernel throttling is left on when we end, whatever the user chose while we ran.
  m_services.helper.setThrottle(true);
  m_services.helper.quit();
  if (m_sleepnotifier) m_sleepnotifier->stop();
  // Destroying the Dock leaves the sampler's client list (stopping it when it was the last) and
  // gives the windows their own icon back.
  m_dock.reset();
  // The sampler outlives the limiter it would otherwise still ask.
  m_services.sampler.setProcessCensusProvider(nullptr);
  if (m_frontmost) FrontmostProvider::install(nullptr);
  Logger::shared().close();
}

void AppDelegate::saveWindowKeys() {
  DefaultSettings& store = m_services.store;
  for (QWidget* window : ourWindows())
    if (window->isVisible()) saveWindowFrame(window);
  keys::kAppPelmora.save(store, !m_window->isVisible());
  ProcinfoWindow* processes = ProcinfoWindow::shared();
  keys::kAppProcesses.save(store, processes && processes->isVisible());
  keys::kAppSystemStats.save(store, SystemStatsWindow::instance() != nullptr);
}

void AppDelegate::sleepHandler(SleepEvent event) {
  switch (event) {
    case SleepEvent::willSleep:
      m_window->storeSettings();
      Log("Sleep - willSleep - limiter stopped");
      m_services.core->stopLimiter();
      m_services.core->samplerSleeping(true);
      return;
    case SleepEvent::screensDidSleep:
      Log("Sleep - Screens did Sleep - ignore");
      return;
    case SleepEvent::didWake:
      m_window->applySettings();
      m_window->refreshProcessorCounts();
      Log("Sleep - Wakeup - restart limiter");
      m_services.core->startLimiter();
      m_services.core->samplerSleeping(false);
      return;
    case SleepEvent::screensDidWake:
      m_window->applySettings();
      m_window->refreshProcessorCounts();
      Log("Sleep - Wakeup: Screens woke up - ignore");
      return;
  }
}

void AppDelegate::applyPresentation(bool activate_later) {
  DefaultSettings& store = m_services.store;
  const bool show_dock = keys::kShowDock.load(store);
  setTaskBarPresence(show_dock);
  if (!show_dock && activate_later) QTimer::singleShot(kReopenDelay_ms, this, &AppDelegate::openWindows);
  // Without a tray there is no status item to show, whatever the preference says.
  const bool status_item = keys::kShowMenubar.load(store) && m_services.tray_available;
  if (status_item) {
    if (m_menubar) m_menubar->install();
  } else {
    if (m_menubar) m_menubar->remove();
    showPelmora();
  }
  QApplication::setQuitOnLastWindowClosed(!status_item);
}

bool AppDelegate::statusItemShown() const { return m_menubar && m_menubar->installed(); }

std::vector<QWidget*> AppDelegate::ourWindows() const {
  std::vector<QWidget*> windows;
  if (m_window) windows.push_back(m_window);
  if (auto* processes = ProcinfoWindow::shared()) windows.push_back(processes);
  if (auto* stats = SystemStatsWindow::instance()) windows.push_back(stats);
  return windows;
}

// A tool window has no task-bar entry on X11 desktops. Changing the flag re-creates the native
// window hidden, hence the delayed openWindows of the presentation policy.
void AppDelegate::setTaskBarPresence(bool present) {
  m_task_bar = present;
  for (QWidget* window : ourWindows()) {
    if (window->windowFlags().testFlag(Qt::Tool) == !present) continue;
    const bool was_visible = window->isVisible();
    window->setWindowFlag(Qt::Tool, !present);
    if (was_visible && present) window->show();
  }
}

void AppDelegate::activeChanged(bool active) {
  // While we are in front ourselves, frontmost limiting is always suspended.
  m_services.core->setLimitFrontmost(active ? false : keys::kLimitFrontmost.load(m_services.store));
}

}  // namespace pelmora
