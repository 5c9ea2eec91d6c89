#pragma once
// AppDelegate: the application object. It creates and starts the long-lived objects in a fixed order,
// tears them down in a fixed order at quit, stops the limiter and the sampler around system sleep,
// decides whether the windows have a task-bar entry and whether the tray icon shows (always leaving a
// visible way in), owns the main menu and its actions, and remembers which windows were open ("APP_"
// keys). Quitting, however it happens, continues every limited process and switches kernel
// throttling back on through the helper. Main thread only.
#include <QDBusConnection>
#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QTextBrowser>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/pelmora_window.h"
#include "support/sleep_notify.h"

class QAction;
class QWidget;

namespace pelmora {

class CPULimiter;
class DefaultSettings;
class DesktopScheme;
class Dock;
class FrontmostProvider;
class Pelmora;
class PowerMonitor;
class StatusBarController;
class SystemStats;

// The operations on the Qt-free cores that start-up, sleep and quit drive. The program forwards them
// to the real limiter, power monitor and sampler; tests record them.
class AppCore {
 public:
  virtual ~AppCore() = default;
  virtual void startPowerMonitor() = 0;
  virtual void stopPowerMonitor() = 0;
  // Starts the limiter's timer, its settings listener and the network tool.
  virtual void startLimiter() = 0;
  // Stops the timer and the network tool, then continues every process the limiter holds stopped.
  virtual void stopLimiter() = 0;
  // true before the system sleeps, false after it woke (the sampler tells its clients it restarted).
  virtual void samplerSleeping(bool sleeping) = 0;
  virtual void setLimitFrontmost(bool limit) = 0;
};

std::unique_ptr<AppCore> makeAppCore(CPULimiter& limiter, PowerMonitor& power, SystemStats& sampler);

struct AppServices {
  Pelmora& helper;
  CPULimiter& limiter;
  PowerMonitor& power;
  SystemStats& sampler;
  DefaultSettings& store;
  std::unique_ptr<AppCore> core;
  PelmoraWindow::Options window_options;
  std::function<std::unique_ptr<SleepSource>()> sleep_source = makeLogindSleepSource;
  // QSystemTrayIcon::isSystemTrayAvailable(): without a tray the status item counts as off.
  bool tray_available = false;
  // False where the desktop shows no live window icon (Wayland): the tray shows the live graph.
  bool live_window_icon = true;
  // Opens a file or folder with the desktop's default application; false when none opened it.
  // Tests record the path instead.
  std::function<bool(const std::string& path)> reveal = nullptr;
  // Where the desktop's settings portal is asked for its colour scheme; null: not followed (tests
  // that want the platform palette whatever desktop they run under).
  std::function<QDBusConnection()> desktop_bus = [] { return QDBusConnection::sessionBus(); };
  // Called with the name of each start-up step as it runs.
  std::function<void(const std::string& step)> trace = nullptr;
};

class AppDelegate : public QObject {
  Q_OBJECT
 public:
  static constexpr const char* kListenerKey = "AppDelegate Listener";

  explicit AppDelegate(AppServices services, QObject* parent = nullptr);
  ~AppDelegate() override;

  // The start-up and shut-down sequences. terminate() runs once, however often it is called.
  void finishLaunching();
  void terminate();
  void sleepHandler(SleepEvent event);
  void applyPresentation(bool activate_later);
  // The application became active (true) or another one did (false).
  void activeChanged(bool active);

  // Menu actions.
  void quit();
  void openWindows();
  void hidePelmora();
  void showPelmora();
  void showProcesses();
  void showSystemStats();
  void showPreferences();
  void switchPower();
  void dockMenu(QAction* sender);
  void extractCLI();
  void extractCLITo(const std::string& target);
  void openHelp();
  void showLogFile();
  void showLogFolder();
  void showAbout();

  // State, for the program and tests.
  PelmoraWindow* window() const { return m_window; }
  Dock* dock() const { return m_dock.get(); }
  DesktopScheme* desktopScheme() const { return m_scheme.get(); }
  StatusBarController* statusBar() const { return m_menubar.get(); }
  QMenu* dockMenuItems() const { return m_dock_menu; }
  QWidget* preferences() const { return m_preferences; }
  QTextBrowser* helpViewer() const { return m_help; }
  QWidget* aboutBox() const { return m_about; }
  // The message shown when no application opened the log file, while it is open.
  QWidget* logFileMessage() const { return m_log_message; }
  const std::vector<QMenu*>& mainMenus() const { return m_main_menus; }
  bool taskBarPresence() const { return m_task_bar; }
  bool statusItemShown() const;
  bool sleepListening() const { return m_sleepnotifier && m_sleepnotifier->listening(); }

 private:
  void trace(const char* step);
  void createPreferences();
  // Writes every pane's controls back to the store (quit).
  void savePreferences();
  void createDockMenu();
  bool reveal(const std::string& path);
  void buildMainMenus();
  void attachMenuBar(QWidget* window);
  void updateDockMenuChecks();
  void updateProcessColumns();
  std::vector<QWidget*> ourWindows() const;
  void setTaskBarPresence(bool present);
  void saveWindowKeys();

  AppServices m_services;
  PelmoraWindow* m_window = nullptr;
  QPointer<QMenu> m_dock_menu;
  QAction* m_process_columns = nullptr;
  QMenu* m_view_menu = nullptr;
  std::unique_ptr<StatusBarController> m_menubar;
  std::unique_ptr<SleepNotify> m_sleepnotifier;
  std::unique_ptr<Dock> m_dock;
  std::unique_ptr<DesktopScheme> m_scheme;
  std::shared_ptr<FrontmostProvider> m_frontmost;
  std::vector<QMenu*> m_main_menus;
  QPointer<QWidget> m_preferences;
  QPointer<QTextBrowser> m_help;
  QPointer<QWidget> m_about;
  QPointer<QWidget> m_log_message;
  bool m_task_bar = true;
  bool m_first_launch = false;
  bool m_launched = false;
  bool m_terminated = false;
};

// Removes whatever is at target, then copies source there; false with the reason in error.
bool copyTool(const std::string& source, const std::string& target, std::string& error);

}  // namespace pelmora
