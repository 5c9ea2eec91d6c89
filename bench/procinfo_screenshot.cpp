// Not a benchmark: renders the process window over this machine's real processes for the README.
// A `yes` child is held to 25 % through the window's own limit control, so the picture shows a live
// limit, its waiting time and the detail area.
//   procinfo_screenshot OUT.png
#include <QApplication>
#include <QEventLoop>
#include <QTimer>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "app/procinfo_window.h"
#include "helper_link/in_process_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "support/default_settings.h"
#include "support/main_queue.h"

extern char** environ;

namespace {

using namespace pelmora;

void wait_ms(int ms) {
  QEventLoop loop;
  QTimer::singleShot(ms, &loop, &QEventLoop::quit);
  loop.exec();
}

pid_t spawnYes() {
  const char* argv[] = {"yes", nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, "yes", &actions, nullptr, const_cast<char**>(argv), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUT.png\n", argv[0]);
    return 2;
  }
  QApplication app(argc, argv);
  MainQueue::install([](MainQueue::Job job) { QMetaObject::invokeMethod(qApp, std::move(job), Qt::QueuedConnection); });
  const auto dir = std::filesystem::temp_directory_path() / ("pelmora-shot-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  const pid_t child = spawnYes();
  int status = 1;
  {
    Pelmora helper(std::make_unique<InProcessTransport>());
    DefaultSettings settings(dir / "defaults.json");
    CPULimiter::Options options;
    options.nettop_path = "/bin/true";
    options.journal_dir = dir / "held";
    CPULimiter limiter(helper, SysRoot::current(), settings, options);
    limiter.setProcessesInterval_ms(1000);
    limiter.start();
    {
      ProcinfoWindow window(limiter, helper, settings);
      window.resize(1180, 720);
      window.show();
      wait_ms(2500);
      window.selectPid(child);
      window.limitControl()->setValue(25);
      wait_ms(5000);
      window.selectPid(child);
      status = window.grab().save(QString::fromLocal8Bit(argv[1])) ? 0 : 1;
      window.clearLimit();
    }
    limiter.stopTimer();
    limiter.continueAll();
  }
  if (child > 0) {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  std::filesystem::remove_all(dir);
  MainQueue::install(nullptr);
  return status;
}
