#include "app/application_main.h"

#include <QApplication>
#include <QMetaObject>
#include <QSocketNotifier>
#include <QSystemTrayIcon>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "app/app_delegate.h"
#include "app/instance_lock.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/power_monitor.h"
#include "sampling/system_stats.h"
#include "support/default_settings.h"
#include "support/logger.h"
#include "support/main_queue.h"

namespace pelmora {

namespace {

int g_signal_pipe[2] = {-1, -1};

// Async-signal-safe: only a write to the pipe; the event loop does the rest.
void onQuitSignal(int signal) {
  const char byte = static_cast<char>(signal);
  [[maybe_unused]] auto n = ::write(g_signal_pipe[1], &byte, 1);
}

void installQuitSignals(QApplication& app, AppDelegate& delegate) {
  if (::pipe2(g_signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
  auto* notifier = new QSocketNotifier(g_signal_pipe[0], QSocketNotifier::Read, &app);
  QObject::connect(notifier, &QSocketNotifier::activated, &app, [&delegate] {
    char byte = 0;
    while (::read(g_signal_pipe[0], &byte, 1) > 0) {}
    delegate.quit();
  });
  struct sigaction action {};
  action.sa_handler = onQuitSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);
}

}  // namespace

int runApplication(int argc, char** argv) {
  QApplication app(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Pelmora"));
  QApplication::setDesktopFileName(QStringLiteral("net.tandrel.pelmora"));
  const char* runtime_dir = std::getenv("XDG_RUNTIME_DIR");
  const InstanceLock instance = InstanceLock::claim(runtime_dir ? runtime_dir : "");
  if (instance.outcome() == InstanceLock::Outcome::kOtherRunning) return 0;
  const int instance_fd = instance.listenFd();

  MainQueue::install([&app](MainQueue::Job job) {
    QMetaObject::invokeMethod(&app, std::move(job), Qt::QueuedConnection);
  });

  AppServices services{Pelmora::shared(), CPULimiter::shared(), PowerMonitor::shared(), SystemStats::shared(),
                       DefaultSettings::shared(), nullptr, PelmoraWindow::currentOptions()};
  services.tray_available = QSystemTrayIcon::isSystemTrayAvailable();
  services.live_window_icon = QGuiApplication::platformName() != QLatin1String("wayland");
  AppDelegate delegate(std::move(services));
  installQuitSignals(app, delegate);

  if (instance_fd >= 0) {
    auto* notifier = new QSocketNotifier(instance_fd, QSocketNotifier::Read, &delegate);
    QObject::connect(notifier, &QSocketNotifier::activated, &delegate, [instance_fd, &delegate] {
      for (int peer; (peer = ::accept4(instance_fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) ::close(peer);
      delegate.openWindows();
    });
  }
  // The session may end the process soon after asking us to save: quit properly right away.
  QObject::connect(&app, &QGuiApplication::commitDataRequest, &delegate, [&delegate] { delegate.terminate(); });
  QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate, [&delegate] { delegate.terminate(); });
  QObject::connect(&app, &QGuiApplication::applicationStateChanged, &delegate,
                   [&delegate](Qt::ApplicationState state) { delegate.activeChanged(state == Qt::ApplicationActive); });

  delegate.finishLaunching();
  const int status = app.exec();
  delegate.terminate();
  MainQueue::install(nullptr);
  return status;
}

}  // namespace pelmora
