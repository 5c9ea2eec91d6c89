#include "helper/connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "support/pidfd.h"
#include "support/proc_task_reader.h"

namespace pelmora {

namespace {
uint64_t startTicks(pid_t pid) {
  auto stat = ProcTaskReader().readStat(pid);
  return stat ? stat->starttime_ticks : 0;
}
}  // namespace

Connection::Connection(CallerIdentity caller)
    : m_caller(caller), m_mutex(std::make_unique<Mutex>()) {}

Connection::Connection(Connection&& other) noexcept
    : m_caller(other.m_caller),
      m_close_requested(other.m_close_requested),
      m_mutex(std::move(other.m_mutex)),
      m_stopped(std::move(other.m_stopped)),
      m_admitted(std::move(other.m_admitted)),
      m_recent(std::move(other.m_recent)) {
  other.m_stopped.clear();
  other.m_admitted.clear();
}

Connection::~Connection() {
  if (m_mutex) continueStopped();
}

Connection Connection::self() {
  return Connection(CallerIdentity{::getuid(), ::getpid(), startTicks(::getpid())});
}

std::optional<Connection> Connection::fromSocket(int socket_fd) {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (::getsockopt(socket_fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0 || size != sizeof cred) {
    return std::nullopt;
  }
  return Connection(CallerIdentity{cred.uid, cred.pid, startTicks(cred.pid)});
}

void Connection::noteStopped(pid_t pid, UniqueFd pidfd) {
  MutexLock lock(*m_mutex);
  m_admitted.erase(pid);
  m_stopped[pid] = std::move(pidfd);
}

void Connection::noteContinued(pid_t pid) {
  MutexLock lock(*m_mutex);
  m_stopped.erase(pid);
}

std::optional<int> Connection::continueNoted(pid_t pid, bool keep) {
  // The map's node moves between the two maps as it is: a duty cycle allocates nothing.
  PidfdMap::node_type node;
  {
    MutexLock lock(*m_mutex);
    auto found = m_stopped.find(pid);
    if (found == m_stopped.end()) return std::nullopt;
    node = m_stopped.extract(found);
  }
  const int failure = pidfdSignal(node.mapped().get(), SIGCONT);
  if (!failure && keep) {
    MutexLock lock(*m_mutex);
    makeRoomLocked(pid);
    m_admitted.erase(pid);
    m_admitted.insert(std::move(node));
  }
  return failure;
}

void Connection::makeRoomLocked(pid_t pid) {
  if (m_admitted.size() < kMaxAdmitted || m_admitted.count(pid)) return;
  // Room first from processes that have exited, else from the lowest pid.
  std::erase_if(m_admitted, [](const auto& entry) { return pidfdSignal(entry.second.get(), 0) == ESRCH; });
  if (m_admitted.size() >= kMaxAdmitted) m_admitted.erase(m_admitted.begin());
}

void Connection::keepAdmitted(pid_t pid, UniqueFd pidfd) {
  MutexLock lock(*m_mutex);
  makeRoomLocked(pid);
  m_admitted[pid] = std::move(pidfd);
}

std::optional<int> Connection::signalAdmitted(pid_t pid, int signal) {
  MutexLock lock(*m_mutex);
  auto found = m_admitted.find(pid);
  if (found == m_admitted.end()) return std::nullopt;
  const int failure = pidfdSignal(found->second.get(), signal);
  if (failure) {
    m_admitted.erase(found);  // gone (ESRCH), or no longer ours to signal: checked afresh next time
  } else if (signal == SIGSTOP) {
    m_stopped.erase(pid);
    m_stopped.insert(m_admitted.extract(found));
  }
  return failure;
}

void Connection::continueStopped() {
  PidfdMap stopped;
  {
    MutexLock lock(*m_mutex);
    stopped.swap(m_stopped);
  }
  // A process that exited meanwhile answers ESRCH through its pidfd; nothing else is touched.
  for (auto& [pid, fd] : stopped) pidfdSignal(fd.get(), SIGCONT);
}

}  // namespace pelmora
