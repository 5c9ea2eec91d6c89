#include "helper/helper_daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "support/text.h"
#include "support/xpc_socket.h"

namespace pelmora {

namespace {
constexpr int kSystemdFirstFd = 3;

// Whether the client has hung up (its end closed), whether or not our thread has read that yet.
bool peerGone(int socket_fd) {
  pollfd p{socket_fd, POLLRDHUP, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

void setTransferTimeout(int socket_fd, int timeout_ms) {
  const timeval limit{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  ::setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(socket_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// Waits for the next request to begin; false when none came within timeout_ms.
bool awaitRequest(int socket_fd, int timeout_ms) {
  pollfd p{socket_fd, POLLIN, 0};
  int n;
  do {
    n = ::poll(&p, 1, timeout_ms);
  } while (n < 0 && errno == EINTR);
  return n == 1;
}
}  // namespace

void HelperDaemon::note(const std::string& line) {
  size_t dropped = 0;
  {
    std::lock_guard lock(m_mutex);
    if (!m_note_limit.allow(LogRateLimit::Clock::now(), &dropped)) return;
  }
  if (dropped) std::fprintf(stderr, "pelmora-helper: (%zu similar lines left out)\n", dropped);
  std::fprintf(stderr, "pelmora-helper: %s\n", line.c_str());
}

HelperDaemon::HelperDaemon(UniqueFd listen_socket, bool socket_activated, HelperOptions options)
    : m_listen(std::move(listen_socket)), m_socket_activated(socket_activated), m_handler(std::move(options)) {
  if (::pipe2(m_wake, O_CLOEXEC | O_NONBLOCK) != 0) m_wake[0] = m_wake[1] = -1;
}

HelperDaemon::~HelperDaemon() {
  for (int fd : m_wake) {
    if (fd >= 0) ::close(fd);
  }
}

UniqueFd HelperDaemon::systemdSocket() {
  const char* pid = std::getenv("LISTEN_PID");
  const char* fds = std::getenv("LISTEN_FDS");
  if (!pid || !fds) return {};
  auto listen_pid = parseInt64(pid);
  auto count = parseInt64(fds);
  if (!listen_pid || *listen_pid != ::getpid() || !count || *count < 1) return {};
  ::fcntl(kSystemdFirstFd, F_SETFD, FD_CLOEXEC);
  return UniqueFd(kSystemdFirstFd);
}

UniqueFd HelperDaemon::bindSocket(const std::string& path, std::string* error) {
  sockaddr_un address{};
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    *error = "socket path too long: " + path;
    return {};
  }
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  struct stat st{};
  // Only a stale socket is replaced, never another kind of file.
  if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path.c_str());
  if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0666) != 0 || ::listen(fd.get(), 64) != 0) {
    *error = "cannot listen on " + path + ": " + std::strerror(errno);
    return {};
  }
  return fd;
}

int HelperDaemon::run() {
  if (!m_listen || m_wake[0] < 0) return 1;
  for (;;) {
    pollfd fds[2] = {{m_listen.get(), POLLIN, 0}, {m_wake[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents) break;
    if (!(fds[0].revents & POLLIN)) continue;
    const int client = ::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    if (!admit(client)) {
      ::close(client);
      continue;
    }
    std::thread([this, client] { serve(client); }).detach();
  }
  // Closing the sockets' reading side ends every connection thread, which continues the processes
  // that connection stopped.
  std::unique_lock lock(m_mutex);
  for (const auto& [fd, uid] : m_active) ::shutdown(fd, SHUT_RDWR);
  m_idle.wait(lock, [this] { return m_active.empty(); });
  return 0;
}

bool HelperDaemon::admit(int socket_fd) {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (::getsockopt(socket_fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return false;
  std::lock_guard lock(m_mutex);
  // A connection whose client hung up is on its way out: it does not count, even if its thread has
  // not read the end yet.
  size_t live = 0, same_user = 0;
  for (const auto& [fd, uid] : m_active) {
    if (peerGone(fd)) continue;
    ++live;
    same_user += uid == cred.uid;
  }
  // Root could stop the daemon anyway; only ordinary users are held to their share.
  if (live >= kMaxConnections || (cred.uid != 0 && same_user >= kMaxConnectionsPerUser)) return false;
  m_active.emplace(socket_fd, cred.uid);
  m_served_any = true;
  return true;
}

void HelperDaemon::stop() {
  const char byte = 1;
  if (m_wake[1] >= 0) [[maybe_unused]] auto n = ::write(m_wake[1], &byte, 1);
}

void HelperDaemon::serve(int socket_fd) {
  {
    auto connection = Connection::fromSocket(socket_fd);
    if (connection) {
      setTransferTimeout(socket_fd, m_timeouts.transfer_ms);
      for (;;) {
        if (!awaitRequest(socket_fd, m_timeouts.idle_ms)) {
          note("connection of pid " + std::to_string(connection->caller().pid) + " closed: idle");
          break;
        }
        std::string error;
        auto request = xpcReceiveMessage(socket_fd, &error);
        if (!request) {
          if (error != "closed") note("connection of pid " + std::to_string(connection->caller().pid) + " closed: " + error);
          break;
        }
        XPCDict reply = m_handler.handle(*request, *connection);
        if (connection->closeRequested() || !xpcSendMessage(socket_fd, reply)) break;
      }
      m_handler.connectionEnded(*connection);
    }
  }  // the connection continues what it stopped before the socket goes
  connectionEnded(socket_fd);
}

void HelperDaemon::connectionEnded(int socket_fd) {
  std::lock_guard lock(m_mutex);
  ::close(socket_fd);
  m_active.erase(socket_fd);
  if (m_active.empty()) {
    m_idle.notify_all();
    if (m_socket_activated && m_served_any) stop();
  }
}

}  // namespace pelmora
