#include "support/socket_transport.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/xpc_socket.h"

namespace pelmora {

std::string SocketTransport::defaultPath() {
  const char* env = std::getenv("PELMORA_HELPER_SOCKET");
  return (env && *env) ? env : kDefaultSocketPath;
}

SocketTransport::SocketTransport(std::string path, int64_t reply_timeout_ms)
    : m_path(std::move(path)), m_reply_timeout_ms(reply_timeout_ms) {}

namespace {
// A connection the daemon has closed (it ends idle ones) or that holds bytes nobody asked for is
// no good for the next exchange: a fresh one is made instead, so that no request is lost on it.
bool stale(int socket_fd) {
  pollfd p{socket_fd, POLLIN | POLLRDHUP, 0};
  return ::poll(&p, 1, 0) != 0;
}
}  // namespace

bool SocketTransport::connectLocked() {
  if (m_socket && stale(m_socket.get())) m_socket.reset();
  if (m_socket) return true;
  sockaddr_un address{};
  if (m_path.empty() || m_path.size() >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, m_path.data(), m_path.size());
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return false;
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) return false;
  if (m_reply_timeout_ms > 0) {
    timeval limit{static_cast<time_t>(m_reply_timeout_ms / 1000), static_cast<suseconds_t>(m_reply_timeout_ms % 1000 * 1000)};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  }
  MutexLock lock(m_close_mutex);
  m_socket = std::move(fd);
  ++m_connections;
  return true;
}

std::optional<XPCDict> SocketTransport::exchange(const XPCDict& request) {
  MutexLock lock(m_mutex);
  if (!connectLocked()) return std::nullopt;
  if (!xpcSendMessage(m_socket.get(), request)) {
    dropLocked();
    return std::nullopt;
  }
  auto reply = xpcReceiveMessage(m_socket.get());
  if (!reply) dropLocked();
  return reply;
}

void SocketTransport::sendOneWay(const XPCDict& message) {
  MutexLock lock(m_mutex);
  if (!connectLocked()) return;
  xpcSendMessage(m_socket.get(), message);
  // Nobody waits for an answer, so whatever the peer might still write would be read as the reply
  // of the next exchange: start that one on a fresh connection.
  dropLocked();
}

bool SocketTransport::connected() {
  MutexLock lock(m_mutex);
  return connectLocked();
}

uint64_t SocketTransport::connection() {
  MutexLock lock(m_mutex);
  return connectLocked() ? m_connections : 0;
}

void SocketTransport::disconnect() {
  MutexLock lock(m_mutex);
  dropLocked();
}

void SocketTransport::dropLocked() {
  MutexLock lock(m_close_mutex);
  m_socket.reset();
}

void SocketTransport::interrupt() {
  MutexLock lock(m_close_mutex);
  if (m_socket) ::shutdown(m_socket.get(), SHUT_RDWR);
}

}  // namespace pelmora
