#pragma once
// One caller of the helper: who it is (taken once, when it connects) and which processes it has
// stopped. Whether it is authorised is kept per process, in the handler's grant table. When the
// connection ends, every process it stopped and did not continue is continued, so a crashed
// application never leaves one frozen.
// In the daemon this code runs as root.
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include "support/mutex.h"
#include "support/proc_task_reader.h"
#include "support/unique_fd.h"

namespace pelmora {

struct CallerIdentity {
  uid_t uid = static_cast<uid_t>(-1);
  pid_t pid = 0;
  uint64_t start_ticks = 0;  // field 22 of /proc/PID/stat: tells a recycled pid apart
};

// The stat and status a "taskallinfo" just read, kept for the "rusage" on the same process that
// the table refresh sends right after it. The pidfd proves the pid still names that process.
struct RecentProcess {
  pid_t pid = 0;
  UniqueFd pidfd;
  std::chrono::steady_clock::time_point read_at;
  ProcPidStat stat;
  ProcStatus status;
};

class Connection {
 public:
  explicit Connection(CallerIdentity caller);
  // The calling process itself (requests served in-process, with its own rights).
  static Connection self();
  // The peer of a connected Unix socket (SO_PEERCRED), with its start time read at once.
  static std::optional<Connection> fromSocket(int socket_fd);
  ~Connection();
  Connection(Connection&&) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  Connection& operator=(Connection&&) = delete;

  const CallerIdentity& caller() const { return m_caller; }
  // Bookkeeping for crash safety. pidfd must refer to the stopped process.
  void noteStopped(pid_t pid, UniqueFd pidfd);
  void noteContinued(pid_t pid);
  // Continues a process this connection stopped, through the pidfd taken when it was checked and
  // stopped, and forgets it as stopped: 0 or the errno of the signal. None when it was not noted as
  // stopped here. With `keep`, the pidfd is kept for signalAdmitted.
  std::optional<int> continueNoted(pid_t pid, bool keep = false);
  // A process that passed every check for a signal on this connection: its pidfd, kept while the
  // process lives (at most kMaxAdmitted of them), names it and no later process with its pid.
  void keepAdmitted(pid_t pid, UniqueFd pidfd);
  // A stop or continue through a kept pidfd (a stop is noted as by noteStopped): 0 or the errno of
  // the signal; a process that is gone is forgotten. None when no pidfd was kept for `pid`.
  std::optional<int> signalAdmitted(pid_t pid, int signal);
  static constexpr size_t kMaxAdmitted = 64;
  // Continues every process still noted as stopped, and forgets them.
  void continueStopped();

  // Set by "quit": the daemon ends the connection after this request.
  void requestClose() { m_close_requested = true; }
  // Only the thread serving this connection touches it.
  RecentProcess& recentProcess() { return m_recent; }
  bool closeRequested() const { return m_close_requested; }

 private:
  using PidfdMap = std::map<pid_t, UniqueFd>;
  // Under m_mutex: at most kMaxAdmitted kept pidfds, `pid`'s place among them included.
  void makeRoomLocked(pid_t pid);

  CallerIdentity m_caller;
  bool m_close_requested = false;
  mutable std::unique_ptr<Mutex> m_mutex;  // guards m_stopped and m_admitted
  PidfdMap m_stopped;
  PidfdMap m_admitted;  // guarded by m_mutex; none of them is in m_stopped
  RecentProcess m_recent;
};

}  // namespace pelmora
