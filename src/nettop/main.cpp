// pelmora-nettop: once a second, one line per living process that has had TCP traffic:
//   "HH:MM:SS.uuuuuu,name.pid,,,bytes_in,bytes_out"
// with cumulative payload byte counts since this tool started watching. Bytes of sockets that
// closed stay counted while their process lives; a process that exits is no longer listed. A
// socket is attributed to the first process found holding it.
//   pelmora-nettop [--count N] [--interval-ms MS]
//
// It ends with its reader: on SIGTERM, SIGINT or SIGHUP, when the process that started it dies
// (PR_SET_PDEATHSIG), and as soon as the read end of its output pipe closes, even between two
// lines. Between rounds it sleeps in one ppoll until the next deadline, a signal or that close.
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "nettop/exit_watch.h"
#include "nettop/socket_owners.h"
#include "nettop/tcp_diag_socket.h"
#include "nettop/tcp_traffic.h"
#include "support/text.h"

using namespace pelmora;

namespace {

volatile sig_atomic_t g_stop = 0;
// The deadline of a round may come this late: the kernel may fold our wake-up into another's.
constexpr unsigned long kTimerSlack_ns = 50'000'000;

std::string timeOfDay() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  std::tm tm{};
  localtime_r(&tv.tv_sec, &tm);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%06ld", tm.tm_hour, tm.tm_min, tm.tm_sec,
                static_cast<long>(tv.tv_usec));
  return buffer;
}

class Nettop {
 public:
  Nettop()
      : m_owners(SysRoot::fromEnvironment()),
        m_traffic(::geteuid() == 0 ? std::nullopt : std::optional<uint32_t>(::geteuid())) {
    if (const int error = m_diag.subscribeDestroyed())
      std::fprintf(stderr, "pelmora-nettop: no socket destroy notifications (%s): bytes a socket moves "
                   "after the last poll before it closes are not counted\n", std::strerror(error));
  }

  void round() {
    auto sockets = m_diag.dump();
    if (!sockets) return;
    // The lines carry the moment the counts were read: the reader divides by the step between
    // them, and finding the owners of new sockets (all of them in the first round) takes a while.
    m_read_at = timeOfDay();
    m_traffic.applyDump(*sockets, [this](const std::set<uint64_t>& inodes, const std::set<int32_t>& likely) {
      return m_owners.find(inodes, likely);
    });
    for (const auto& closed : m_diag.takeDestroyed()) m_traffic.applyClosed(closed);
    m_traffic.endRound();
    std::set<pid_t> pids;
    for (const auto& [pid, traffic] : m_traffic.processes()) pids.insert(pid);
    m_exits.watch(pids);
    m_traffic.forgetProcesses(m_exits.exited());
  }

  void print() const {
    for (const auto& [pid, p] : m_traffic.processes())
      std::printf("%s,%s.%d,,,%llu,%llu\n", m_read_at.c_str(), p.name.c_str(), pid,
                  static_cast<unsigned long long>(p.received_bytes), static_cast<unsigned long long>(p.sent_bytes));
    std::fflush(stdout);
  }

 private:
  TcpDiagSocket m_diag;
  SocketOwnerFinder m_owners;
  TcpTraffic m_traffic;
  ExitWatch m_exits;
  std::string m_read_at;  // time of day of the last dump
};

// Sleeps until `deadline`, a signal, or the reader closing our output; false when it is time to end.
bool sleepUntil(std::chrono::steady_clock::time_point deadline, const sigset_t& waking) {
  for (;;) {
    if (g_stop) return false;
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return true;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    const timespec timeout{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    // A pipe's write end reports POLLERR once the read end is closed; no events need asking for.
    pollfd out{STDOUT_FILENO, 0, 0};
    const int n = ::ppoll(&out, 1, &timeout, &waking);
    if (n > 0 && (out.revents & (POLLERR | POLLHUP | POLLNVAL))) return false;
    if (n < 0 && errno != EINTR) return false;
  }
}

sigset_t installStopSignals() {
  struct sigaction sa{};
  sa.sa_handler = [](int) { g_stop = 1; };
  sigset_t stopping;
  sigemptyset(&stopping);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) {
    sigaction(s, &sa, nullptr);
    sigaddset(&stopping, s);
  }
  // Blocked except inside ppoll, so a signal can never slip in between the check and the sleep.
  sigset_t waking;
  sigprocmask(SIG_BLOCK, &stopping, &waking);
  sigdelset(&waking, SIGTERM);
  sigdelset(&waking, SIGINT);
  sigdelset(&waking, SIGHUP);
  return waking;
}

}  // namespace

int main(int argc, char** argv) {
  int64_t count = -1, interval_ms = 1000;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const int64_t value = i + 1 < argc ? parseInt64(argv[i + 1]).value_or(0) : 0;
    if ((arg == "--count" || arg == "--interval-ms") && value > 0) {
      (arg == "--count" ? count : interval_ms) = value;
      ++i;
      continue;
    }
    std::fprintf(stderr, "usage: pelmora-nettop [--count N] [--interval-ms MS]\n");
    return 2;
  }
  const sigset_t waking = installStopSignals();
  // A parent that dies before the request is caught by the second look at our parent; one that
  // died before we started leaves a closed pipe, which ends us at the first sleep.
  const pid_t parent = ::getppid();
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (::getppid() != parent) return 0;
  ::prctl(PR_SET_TIMERSLACK, kTimerSlack_ns);
  signal(SIGPIPE, SIG_DFL);
  Nettop nettop;
  auto next = std::chrono::steady_clock::now();
  while (!g_stop && count != 0) {
    nettop.round();
    nettop.print();
    if (count > 0 && --count == 0) break;
    const auto now = std::chrono::steady_clock::now();
    next += std::chrono::milliseconds(interval_ms);
    if (next < now) next = now + std::chrono::milliseconds(interval_ms);  // fell behind: no burst
    if (!sleepUntil(next, waking)) break;
  }
  return 0;
}
