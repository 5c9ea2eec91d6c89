#include "cli/tty_agent.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace pelmora::cli {
namespace {

// pkttyagent closes the notify descriptor once it is registered; an agent that cannot register
// (no system bus, no polkit) exits instead. Either ends the wait, as does this bound.
constexpr int kRegisterTimeout_ms = 10'000;

bool waitForRegistration(int notify_fd) {
  pollfd p{notify_fd, POLLIN, 0};
  if (::poll(&p, 1, kRegisterTimeout_ms) <= 0) return false;
  char byte;
  return ::read(notify_fd, &byte, 1) == 0;
}

}  // namespace

bool TtyAgent::start() {
  if (!::isatty(STDIN_FILENO)) return false;
  int notify[2];
  if (::pipe2(notify, O_CLOEXEC) != 0) return false;
  const std::string pid = std::to_string(::getpid());
  m_pid = ::fork();
  if (m_pid == 0) {
    // The write end must survive exec: a descriptor of its own without close-on-exec.
    const int keep = ::dup(notify[1]);
    const std::string fd = std::to_string(keep);
    // No --fallback: polkit 122 never picks a fallback agent for a process subject, and an agent
    // registered for our own pid cannot replace anyone else's.
    ::execlp("pkttyagent", "pkttyagent", "--process", pid.c_str(), "--notify-fd", fd.c_str(),
             static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(notify[1]);
  const bool registered = m_pid > 0 && waitForRegistration(notify[0]);
  ::close(notify[0]);
  int status = 0;
  if (m_pid > 0 && ::waitpid(m_pid, &status, WNOHANG) == m_pid) m_pid = -1;  // it gave up
  return registered && m_pid > 0;
}

TtyAgent::~TtyAgent() {
  if (m_pid <= 0) return;
  ::kill(m_pid, SIGTERM);
  int status = 0;
  ::waitpid(m_pid, &status, 0);
}

}  // namespace pelmora::cli
