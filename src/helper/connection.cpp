#include "helper/connection.h"

#include <sys/socket.h>
#include <unistd.h>

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
      m_recent(std::move(other.m_recent)) {
  other.m_stopped.clear();
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
  m_stopped[pid] = std::move(pidfd);
}

void Connection::noteContinued(pid_t pid) {
  MutexLock lock(*m_mutex);
  m_stopped.erase(pid);
}

std::optional<int> Connection::continueNoted(pid_t pid) {
  UniqueFd pidfd;
  {
    MutexLock lock(*m_mutex);
    auto found = m_stopped.find(pid);
    if (found == m_stopped.end()) return std::nullopt;
    pidfd = std::move(found->second);
    m_stopped.erase(found);
  }
  return pidfdSignal(pidfd.get(), SIGCONT);
}

void Connection::continueStopped() {
  std::map<pid_t, UniqueFd> stopped;
  {
    MutexLock lock(*m_mutex);
    stopped.swap(m_stopped);
  }
  // A process that exited meanwhile answers ESRCH through its pidfd; nothing else is touched.
  for (auto& [pid, fd] : stopped) pidfdSignal(fd.get(), SIGCONT);
}

}  // namespace pelmora
