// pelmora limit [--tree] PID PERCENT [--pid-control]: holds a process (with --tree, the process with
// all its descendants, present and future, sharing one budget) to PERCENT of one processor until
// interrupted, printing the share it actually got once a second. On every way out (Ctrl-C, SIGTERM,
// SIGHUP, the process exiting, an error) the process is continued. If this program is killed
// outright, the daemon continues what it held (its crash safety), or, without a daemon, the next run
// of pelmora or of the application does (the journal of held processes).
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "cli/cli_limiter.h"
#include "cli/commands.h"
#include "helper_link/pelmora.h"
#include "support/text.h"
#include "support/timeval.h"

namespace pelmora::cli {
namespace {

struct LimitOptions {
  int32_t pid = 0;
  double share = 0;
  bool pid_control = false;
  bool tree = false;
};

std::optional<LimitOptions> parseOptions(const std::vector<std::string>& args) {
  LimitOptions o;
  std::vector<std::string> positional;
  for (const auto& a : args) {
    if (a == "--pid-control")
      o.pid_control = true;
    else if (a == "--tree")
      o.tree = true;
    else
      positional.push_back(a);
  }
  if (positional.size() != 2) return std::nullopt;
  const auto pid = parseInt64(positional[0]);
  const auto percent = parseDouble(positional[1]);
  const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
  if (!pid || *pid <= 1 || *pid > INT32_MAX) return std::nullopt;
  // A share of one processor; a many-threaded process may be given more than one. Written so that
  // NaN (which fails every comparison) is refused too.
  const double most = 100.0 * static_cast<double>(cpus > 0 ? cpus : 1);
  if (!percent || !(*percent > 0 && *percent <= most)) return std::nullopt;
  o.pid = static_cast<int32_t>(*pid);
  o.share = *percent / 100.0;
  return o;
}

sigset_t endingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&set, s);
  return set;
}

// Waits up to a second for an ending signal; returns it, or 0 when the second passed.
int waitForSignal(const sigset_t& set) {
  const timespec second{1, 0};
  for (;;) {
    const int s = sigtimedwait(&set, nullptr, &second);
    if (s >= 0) return s;
    if (errno != EINTR) return 0;
  }
}

size_t members(CPULimiter& limiter, int32_t root) {
  const auto trees = limiter.trees();
  const auto it = trees.find(root);
  return it == trees.end() ? 1 : std::max<size_t>(it->second.size(), 1);
}

int hold(CPULimiter& limiter, const LimitOptions& o, const sigset_t& signals) {
  limiter.start();
  {
    MutexLock lock(limiter.mutex());
    limiter.setLimit(o.pid, o.share, o.tree);
  }
  int64_t last_cpu = limiter.limits()[o.pid].totalCPU;
  Timeval last;
  for (;;) {
    if (const int s = waitForSignal(signals)) {
      std::printf("signal %d: continuing %d%s\n", s, o.pid, o.tree ? " and its descendants" : "");
      return kExitOk;
    }
    const auto limits = limiter.limits();
    const auto it = limits.find(o.pid);
    if (it == limits.end()) {
      // The limiter drops a process that is gone, or one it could not signal; a tree ends with
      // its last member.
      if (o.tree) {
        std::printf("every process of the tree of %d exited\n", o.pid);
        return kExitOk;
      }
      if (::kill(o.pid, 0) != 0 && errno == ESRCH) {
        std::printf("process %d exited\n", o.pid);
        return kExitOk;
      }
      std::fprintf(stderr, "pelmora limit: process %d could not be stopped or continued (see the log)\n", o.pid);
      return kExitFailure;
    }
    const Timeval now;
    const double share = static_cast<double>(it->second.totalCPU - last_cpu) / static_cast<double>(last.elapsedUntil(now));
    if (o.tree)
      std::printf("%d and %zu more: %5.1f %% of one processor (target %.1f %%)\n", o.pid, members(limiter, o.pid) - 1,
                  share * 100, o.share * 100);
    else
      std::printf("%d: %5.1f %% of one processor (target %.1f %%)\n", o.pid, share * 100, o.share * 100);
    std::fflush(stdout);
    last_cpu = it->second.totalCPU;
    last = now;
  }
}

}  // namespace

int runLimitCommand(const std::vector<std::string>& args) {
  const auto options = parseOptions(args);
  if (!options) {
    std::fprintf(stderr,
                 "pelmora limit: expected [--tree] PID (above 1) and PERCENT (above 0, at most 100 per processor)\n%s",
                 usageText().c_str());
    return kExitUsage;
  }
  // Blocked before any thread starts, so that only the loop below receives them.
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // Anyone may read a process's name: the daemon is asked only when it answers for us anyway.
  Pelmora& helper = Pelmora::shared();
  auto name = helper.pidName(options->pid, helper.authorised());
  if (!name) {
    std::fprintf(stderr, "pelmora limit: no process %d\n", options->pid);
    return kExitFailure;
  }
  std::printf("holding %s (%d)%s to %.1f %% of one processor%s; Ctrl-C ends\n", name->c_str(), options->pid,
              options->tree ? " with all its descendants" : "", options->share * 100,
              options->pid_control ? " with the PID adjuster" : "");
  // Nothing shows a process table here: the limiter only limits.
  CliLimiter limiter(options->pid_control, /*process_table=*/false);
  const int status = hold(*limiter, *options, signals);
  limiter->clearLimit(options->pid);
  limiter->stopTimer();
  return status;
}

}  // namespace pelmora::cli
