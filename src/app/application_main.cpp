#include "app/application_main.h"

#include <QApplication>
#include <QMetaObject>
#include <QSocketNotifier>
#include <QSystemTrayIcon>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "app/app_delegate.h"
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

// An abstract-namespace socket per user: it disappears with the process, so a crashed run leaves
// nothing behind that could block the next start.
sockaddr_un instanceAddress(socklen_t& length) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = "net.tandrel.pelmora-" + std::to_string(::getuid());
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  return address;
}

// Whether the process listening on the other end runs as this user. Abstract names belong to no
// one: any local user can bind ours first, and must not keep us from starting by doing so.
bool peerIsThisUser(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::getuid();
}

// The listening socket of the first instance; -1 when another instance of this user has it (it was
// asked to bring its windows forward) or when no socket could be made or someone else holds the
// name (then we run without the check).
int claimInstance(bool& other_running) {
  other_running = false;
  socklen_t length = 0;
  const sockaddr_un address = instanceAddress(length);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 && ::listen(fd, 4) == 0) return fd;
  ::close(fd);
  const int peer = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (peer >= 0 && ::connect(peer, reinterpret_cast<const sockaddr*>(&address), length) == 0) {
    if (peerIsThisUser(peer)) {
      other_running = true;
      // The first instance may read and close before this lands: no SIGPIPE for a second start.
      [[maybe_unused]] auto n = ::send(peer, "show\n", 5, MSG_NOSIGNAL);
    } else {
      Log("Another user holds this user's single-instance name; starting without the check.");
    }
  }
  if (peer >= 0) ::close(peer);
  return -1;
}

}  // namespace

int runApplication(int argc, char** argv) {
  QApplication app(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Pelmora"));
  QApplication::setDesktopFileName(QStringLiteral("net.tandrel.pelmora"));
  bool other_running = false;
  const int instance_fd = claimInstance(other_running);
  if (other_running) return 0;

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
  if (instance_fd >= 0) ::close(instance_fd);
  return status;
}

}  // namespace pelmora
