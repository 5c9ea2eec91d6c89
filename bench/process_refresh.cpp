// One full process-table refresh with 1000 extra sleeping processes, beside
// `ps -eo pid,uid,pcpu,rss,vsz,nlwp,etimes,comm` over the same processes. Our refresh reads more
// per process (disk counters, idle wake-ups, kind, exact processor time) and goes through the helper
// client; it runs in-process here, as without a daemon. Prints the medians and their ratio.
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

void runPs() {
  const char* argv[] = {"ps", "-eo", "pid,uid,pcpu,rss,vsz,nlwp,etimes,comm", nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, "ps", &actions, nullptr, const_cast<char**>(argv), environ) == 0) ::waitpid(pid, nullptr, 0);
  posix_spawn_file_actions_destroy(&actions);
}

}  // namespace

int main() {
  auto sleepers = startSleepers();
  std::printf("%zu sleeping processes started\n", sleepers.size());
  const auto dir = std::filesystem::temp_directory_path() / ("pelmora-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  double first_ms = 0, steady_ms = 0, ps_ms = 0;
  size_t rows = 0;
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
    ps_ms = medianMs(kRepetitions, runPs);
  }
  for (pid_t pid : sleepers) ::kill(pid, SIGKILL);
  for (pid_t pid : sleepers) ::waitpid(pid, nullptr, 0);
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);

  std::printf("\n%-46s %12s %10s\n", "one pass over all processes", "median (ms)", "vs ps");
  std::printf("%-46s %12.2f %10.2f\n", "refresh, every process already in the table", steady_ms, steady_ms / ps_ms);
  std::printf("%-46s %12.2f %10.2f\n", "refresh of a new table (first sighting)", first_ms, first_ms / ps_ms);
  std::printf("%-46s %12.2f %10.2f\n", "ps -eo pid,uid,pcpu,rss,vsz,nlwp,etimes,comm", ps_ms, 1.0);
  std::printf("(%zu rows in our table)\n", rows);
  return 0;
}
