// One full process-table refresh with 1000 extra sleeping processes, unauthorised (this process
// reads /proc itself) and authorised (the records come from the real daemon, a child on a temporary
// socket, in "tasklist" batches), beside one `top -b` iteration and
// `ps -eo pid,uid,pcpu,rss,vsz,nlwp,etimes,comm` over the same processes. Our refresh reads more per
// process (disk counters, idle wake-ups, kind, exact processor time). Prints the medians and their
// ratios to top. The authorised rows need root (the daemon's own check); otherwise they are skipped.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <vector>

#include "helper_link/in_process_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "support/default_settings.h"
#include "support/socket_transport.h"
#include "support/xpc_codec.h"

extern char** environ;

namespace {

using namespace pelmora;
constexpr int kSleepers = 1000;
constexpr int kRepetitions = 9;

std::vector<pid_t> startSleepers() {
  std::vector<pid_t> pids;
  for (int i = 0; i < kSleepers; ++i) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      for (;;) ::pause();
    }
    if (pid < 0) break;
    pids.push_back(pid);
  }
  return pids;
}

double medianMs(int repetitions, const std::function<void()>& run) {
  std::vector<double> ms;
  for (int i = 0; i < repetitions; ++i) {
    const auto start = std::chrono::steady_clock::now();
    run();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(ms.begin(), ms.end());
  return ms[ms.size() / 2];
}

void runTool(const char* const* argv) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char**>(argv), environ) == 0) ::waitpid(pid, nullptr, 0);
  posix_spawn_file_actions_destroy(&actions);
}

pid_t startDaemon(const std::string& path) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execl(PELMORA_HELPER_BINARY, "pelmora-helper", "--foreground", "--socket", path.c_str(), nullptr);
    ::_exit(127);
  }
  for (int i = 0; i < 500 && !std::filesystem::exists(path); ++i) ::usleep(10'000);
  return pid;
}

}  // namespace

int main() {
  auto sleepers = startSleepers();
  std::printf("%zu sleeping processes started\n", sleepers.size());
  const auto dir = std::filesystem::temp_directory_path() / ("pelmora-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  double first_ms = 0, steady_ms = 0, daemon_ms = -1, ps_ms = 0, top_ms = 0;
  size_t rows = 0, daemon_rows = 0;
  {
    Pelmora helper(std::make_unique<InProcessTransport>());
    DefaultSettings settings(dir / "defaults.json");
    CPULimiter::Options options;
    options.journal_dir = dir / "held";
    // A fresh table each time: every process is new (names, users, paths looked up).
    first_ms = medianMs(3, [&] { CPULimiter(helper, SysRoot::current(), settings, options).refresh(); });
    CPULimiter limiter(helper, SysRoot::current(), settings, options);
    limiter.refresh();
    steady_ms = medianMs(kRepetitions, [&] { limiter.refresh(); });
    rows = limiter.processes().size();
    if (::geteuid() == 0) {
      const std::string socket = (dir / "helper.sock").string();
      const pid_t daemon = startDaemon(socket);
      Pelmora remote(std::make_unique<SocketTransport>(socket));
      remote.setAuthorised(true);  // root: the daemon authorises every request
      CPULimiter via_daemon(remote, SysRoot::current(), settings, options);
      via_daemon.refresh();
      daemon_ms = medianMs(kRepetitions, [&] { via_daemon.refresh(); });
      daemon_rows = via_daemon.processes().size();
      ::kill(daemon, SIGTERM);
      ::waitpid(daemon, nullptr, 0);
    }
    const char* ps[] = {"ps", "-eo", "pid,uid,pcpu,rss,vsz,nlwp,etimes,comm", nullptr};
    const char* top[] = {"top", "-b", "-n", "1", nullptr};
    ps_ms = medianMs(kRepetitions, [&] { runTool(ps); });
    top_ms = medianMs(kRepetitions, [&] { runTool(top); });
  }
  for (pid_t pid : sleepers) ::kill(pid, SIGKILL);
  for (pid_t pid : sleepers) ::waitpid(pid, nullptr, 0);
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);

  std::printf("\n%-50s %12s %10s\n", "one pass over all processes", "median (ms)", "vs top");
  const auto line = [&](const char* what, double ms) { std::printf("%-50s %12.2f %10.2f\n", what, ms, ms / top_ms); };
  line("refresh, unauthorised (reads /proc itself)", steady_ms);
  if (daemon_ms >= 0) line("refresh, authorised (through the daemon)", daemon_ms);
  else std::printf("%-50s %12s\n", "refresh, authorised (through the daemon)", "needs root");
  line("refresh of a new table (first sighting)", first_ms);
  line("top -b -n 1", top_ms);
  line("ps -eo pid,uid,pcpu,rss,vsz,nlwp,etimes,comm", ps_ms);
  std::printf("(%zu rows in our table, %zu through the daemon in %zu \"tasklist\" round trips)\n", rows, daemon_rows,
              (daemon_rows + kTaskListMaxPids - 1) / kTaskListMaxPids);
  return 0;
}
