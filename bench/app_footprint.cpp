// What the desktop application costs on a quiet machine: its processor time and wake-ups per second
// together with its children (pelmora-nettop), over N seconds (default 30) with M extra sleeping
// processes (default 1000), at first launch (nothing limited, no graph window) and with the
// statistics and process windows open, beside `top -b -d 5` and `top -b -d 1` over the same time.
// Wake-ups are the voluntary and nonvoluntary context switches of every thread of the process and
// of its children. Each program is measured after a settling time, so its start-up is not counted.
// --app measures another build of the application (an older one, to compare in the same session).
//   bench_app_footprint [--seconds N] [--extra M] [--settle S] [--app PATH]
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/sys_root.h"
#include "support/text.h"

extern char** environ;

namespace {

using namespace pelmora;

struct Usage {
  double cpu_s = 0;
  uint64_t switches = 0;
};

// One process's processor time (all threads, exited ones included) and its live threads' switches.
Usage processUsage(pid_t pid) {
  Usage u;
  clockid_t clock;
  timespec ts{};
  if (clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &ts) == 0)
    u.cpu_s = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  const std::string task = "/proc/" + std::to_string(pid) + "/task/";
  for (const auto& tid : SysRoot::listDir(task)) {
    const auto status = SysRoot::readFile(task + tid + "/status").value_or("");
    for (auto line : split(status, '\n')) {
      if (startsWith(line, "voluntary_ctxt_switches:") || startsWith(line, "nonvoluntary_ctxt_switches:"))
        u.switches += parseUInt64(trim(line.substr(line.find(':') + 1))).value_or(0);
    }
  }
  return u;
}

// The process and all its descendants, by pid.
void treeUsage(pid_t pid, std::map<pid_t, Usage>& out) {
  out[pid] = processUsage(pid);
  const std::string task = "/proc/" + std::to_string(pid) + "/task/";
  for (const auto& tid : SysRoot::listDir(task)) {
    const std::string children = SysRoot::readFile(task + tid + "/children").value_or("");  // outlives the views
    for (auto child : splitWhitespace(children))
      if (auto c = parseInt64(child)) treeUsage(static_cast<pid_t>(*c), out);
  }
}

// What this bench starts dies with it: a run cut short must not leave an application with open
// windows, or a thousand sleepers, behind to disturb the next measurement.
void dieWithParent(pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(0);
}

pid_t spawn(std::vector<std::string> args, const std::vector<std::string>& env) {
  std::vector<std::string> env_s;
  for (char** e = environ; e && *e; ++e) env_s.emplace_back(*e);
  env_s.insert(env_s.end(), env.begin(), env.end());
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (auto& e : env_s) envp.push_back(e.data());
  envp.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    dieWithParent(parent);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    ::execvpe(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  return pid;
}

struct Figures {
  double cpu_percent = -1;
  double wakeups_per_s = -1;
};

Figures measure(pid_t pid, double settle_s, double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(settle_s));
  std::map<pid_t, Usage> before, after;
  treeUsage(pid, before);
  const auto t0 = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  treeUsage(pid, after);
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  Usage used;
  for (const auto& [p, u] : after) {
    const Usage start = before.count(p) ? before[p] : Usage{};  // a child started meanwhile: all of it
    used.cpu_s += u.cpu_s - start.cpu_s;
    used.switches += u.switches - std::min(u.switches, start.switches);
  }
  return {used.cpu_s / wall * 100, static_cast<double>(used.switches) / wall};
}

void end(pid_t pid) {
  ::kill(pid, SIGTERM);
  for (int i = 0; i < 50 && ::waitpid(pid, nullptr, WNOHANG) == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

// A fresh home for the application: its settings (written when `windows_open`), state and runtime folders.
std::vector<std::string> appHome(const std::filesystem::path& dir, bool windows_open) {
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir / "config");
  std::filesystem::create_directories(dir / "state");
  std::filesystem::create_directories(dir / "run");
  std::filesystem::permissions(dir / "run", std::filesystem::perms::owner_all);
  if (windows_open)
    std::ofstream(dir / "config" / "defaults.json")
        << R"({"APP_Pelmora": true, "APP_SystemStats": true, "APP_Processes": true})";
  return {"QT_QPA_PLATFORM=offscreen", "PELMORA_CONFIG_DIR=" + (dir / "config").string(),
          "XDG_CONFIG_HOME=" + (dir / "config").string(), "XDG_STATE_HOME=" + (dir / "state").string(),
          "XDG_RUNTIME_DIR=" + (dir / "run").string(),
          // Served in-process, as on a desktop without the daemon.
          "PELMORA_HELPER_SOCKET=" + (dir / "no-daemon.sock").string()};
}

std::vector<pid_t> sleepers(int count) {
  const pid_t parent = ::getpid();
  std::vector<pid_t> pids;
  for (int i = 0; i < count; ++i) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      dieWithParent(parent);
      for (;;) ::pause();
    }
    if (pid > 0) pids.push_back(pid);
  }
  return pids;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 30, settle = 5;
  int extra = 1000;
  std::string app = PELMORA_APP_BINARY;
  for (int i = 1; i + 1 < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--seconds") seconds = parseDouble(argv[++i]).value_or(seconds);
    else if (arg == "--settle") settle = parseDouble(argv[++i]).value_or(settle);
    else if (arg == "--extra") extra = static_cast<int>(parseInt64(argv[++i]).value_or(extra));
    else if (arg == "--app")
      app = argv[++i];
  }
  const auto extra_pids = sleepers(extra);
  const auto home = std::filesystem::temp_directory_path() / ("pelmora-footprint-" + std::to_string(getpid()));
  std::printf("processor %% of one CPU and wake-ups/s with children, %.0f s each after %.0f s settling, "
              "%zu extra sleeping processes\n\n", seconds, settle, extra_pids.size());
  std::printf("%-42s %8s %11s\n", "program", "CPU %", "wake-ups/s");
  struct Subject {
    const char* label;
    std::vector<std::string> args;
    int app_mode;  // -1: not the application; 0: first launch; 1: windows open
  };
  const Subject subjects[] = {
      {"pelmora-app, first launch", {app}, 0},
      {"pelmora-app, statistics + process windows", {app}, 1},
      {"top -b -d 5", {"top", "-b", "-d", "5"}, -1},
      {"top -b -d 1", {"top", "-b", "-d", "1"}, -1},
  };
  for (const auto& s : subjects) {
    const auto env = s.app_mode >= 0 ? appHome(home, s.app_mode == 1) : std::vector<std::string>{};
    const pid_t pid = spawn(s.args, env);
    const Figures f = pid > 0 ? measure(pid, settle, seconds) : Figures{};
    if (pid > 0) end(pid);
    std::printf("%-42s %8.2f %11.1f\n", s.label, f.cpu_percent, f.wakeups_per_s);
    std::fflush(stdout);
  }
  for (pid_t pid : extra_pids) ::kill(pid, SIGKILL);
  for (pid_t pid : extra_pids) ::waitpid(pid, nullptr, 0);
  std::filesystem::remove_all(home);
  return 0;
}
