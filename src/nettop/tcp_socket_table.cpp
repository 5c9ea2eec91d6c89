#include "nettop/tcp_socket_table.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "support/unique_fd.h"

namespace pelmora {
namespace {

bool sendDump(int fd, uint8_t family) {
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

void readInfo(const inet_diag_msg* diag, size_t len, std::map<uint64_t, TcpSocketBytes>& out) {
  if (len < NLMSG_LENGTH(sizeof(inet_diag_msg))) return;
  int attr_len = static_cast<int>(len - NLMSG_LENGTH(sizeof(inet_diag_msg)));
  auto* attr = reinterpret_cast<const rtattr*>(diag + 1);
  for (; RTA_OK(attr, attr_len); attr = RTA_NEXT(attr, attr_len)) {
    if (attr->rta_type != INET_DIAG_INFO) continue;
    const size_t payload = RTA_PAYLOAD(attr);
    // Older kernels send a shorter tcp_info; the byte counters must be inside what was sent.
    if (payload < offsetof(tcp_info, tcpi_bytes_received) + sizeof(uint64_t)) return;
    tcp_info info{};
    std::memcpy(&info, RTA_DATA(attr), std::min(payload, sizeof info));
    TcpSocketBytes& bytes = out[diag->idiag_inode];
    bytes.received = info.tcpi_bytes_received;
    bytes.acked = info.tcpi_bytes_acked;
    return;
  }
}

// Reads the dump's replies until NLMSG_DONE; false on an error.
bool readReplies(int fd, std::map<uint64_t, TcpSocketBytes>& out) {
  std::vector<char> buffer(1 << 16);
  for (;;) {
    const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    int left = static_cast<int>(n);
    for (auto* h = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
      if (h->nlmsg_type == NLMSG_DONE) return true;
      if (h->nlmsg_type == NLMSG_ERROR) return false;
      if (h->nlmsg_type == SOCK_DIAG_BY_FAMILY)
        readInfo(static_cast<const inet_diag_msg*>(NLMSG_DATA(h)), h->nlmsg_len, out);
    }
  }
}

}  // namespace

std::optional<std::map<uint64_t, TcpSocketBytes>> readTcpSockets() {
  std::map<uint64_t, TcpSocketBytes> out;
  for (uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
    UniqueFd fd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!fd || !sendDump(fd.get(), family) || !readReplies(fd.get(), out)) return std::nullopt;
  }
  return out;
}

}  // namespace pelmora
