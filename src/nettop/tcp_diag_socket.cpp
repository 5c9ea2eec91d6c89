#include "nettop/tcp_diag_socket.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <string_view>

namespace pelmora {
namespace {

constexpr size_t kBufferBytes = 64 * 1024;
// Room for a few thousand notifications between two polls.
constexpr int kDestroyQueueBytes = 4 * 1024 * 1024;

UniqueFd diagSocket() { return UniqueFd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)); }

bool sendDumpRequest(int fd, uint8_t family) {
  struct {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
  } msg{};
  msg.nlh.nlmsg_len = sizeof msg;
  msg.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  msg.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  msg.req.sdiag_family = family;
  msg.req.sdiag_protocol = IPPROTO_TCP;
  msg.req.idiag_states = ~0U;
  msg.req.idiag_ext = 1U << (INET_DIAG_INFO - 1);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  return ::sendto(fd, &msg, sizeof msg, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) == sizeof msg;
}

}  // namespace

TcpDiagSocket::TcpDiagSocket() : m_dump(diagSocket()), m_buffer(kBufferBytes / sizeof(uint64_t)) {}

std::optional<std::vector<TcpSocketRecord>> TcpDiagSocket::dump() {
  std::vector<TcpSocketRecord> out;
  if (!m_dump) m_dump = diagSocket();
  for (uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
    if (!m_dump || !dumpFamily(family, out)) {
      m_dump.reset();  // a dump left half read would answer the next request: start afresh
      return std::nullopt;
    }
  }
  return out;
}

bool TcpDiagSocket::dumpFamily(uint8_t family, std::vector<TcpSocketRecord>& out) {
  if (!sendDumpRequest(m_dump.get(), family)) return false;
  for (;;) {
    const ssize_t n = ::recv(m_dump.get(), m_buffer.data(), kBufferBytes, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    auto batch = parseTcpDiagDatagram(std::string_view(reinterpret_cast<const char*>(m_buffer.data()), n));
    if (batch.error) return false;
    out.insert(out.end(), batch.sockets.begin(), batch.sockets.end());
    if (batch.done) return true;
  }
}

int TcpDiagSocket::subscribeDestroyed() {
  UniqueFd fd = diagSocket();
  if (!fd) return errno;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return errno;
  for (int group : {SKNLGRP_INET_TCP_DESTROY, SKNLGRP_INET6_TCP_DESTROY}) {
    if (::setsockopt(fd.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) return errno;
  }
  // As root the queue may exceed net.core.rmem_max; otherwise the kernel caps it there.
  if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kDestroyQueueBytes, sizeof kDestroyQueueBytes) != 0)
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &kDestroyQueueBytes, sizeof kDestroyQueueBytes);
  m_destroyed = std::move(fd);
  return 0;
}

std::vector<TcpSocketRecord> TcpDiagSocket::takeDestroyed() {
  std::vector<TcpSocketRecord> out;
  if (!m_destroyed) return out;
  for (;;) {
    const ssize_t n = ::recv(m_destroyed.get(), m_buffer.data(), kBufferBytes, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    // ENOBUFS: the kernel dropped notifications; those still queued are read on.
    if (n < 0 && errno == ENOBUFS) continue;
    if (n <= 0) return out;
    auto batch = parseTcpDiagDatagram(std::string_view(reinterpret_cast<const char*>(m_buffer.data()), n));
    out.insert(out.end(), batch.sockets.begin(), batch.sockets.end());
  }
}

}  // namespace pelmora
