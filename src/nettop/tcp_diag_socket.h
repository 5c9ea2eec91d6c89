#pragma once
// The kernel's TCP sockets through sock_diag (NETLINK_SOCK_DIAG): a dump of every socket with its
// tcp_info, and the destroy notifications of the multicast groups SKNLGRP_INET_TCP_DESTROY and
// SKNLGRP_INET6_TCP_DESTROY, which carry a socket's last counts when the kernel frees it.
//
// What the kernel allows (tried as root and as an ordinary user on 6.18): the dump and the destroy
// groups are open to every user within the caller's network namespace; where a kernel refuses the
// groups, subscribeDestroyed() says why and the tool works from dumps alone. A notification names
// the socket only by its cookie (its inode is gone by then and its uid reads 0), so it completes a
// socket that an earlier dump showed: the bytes a socket moved after the last dump and before it
// closed are counted, but a socket opened and closed entirely between two dumps cannot be tied to
// a process, and its bytes are not counted.
// Notifications queue on the socket until taken; when the queue overflows the kernel drops them
// (recv fails with ENOBUFS) and those sockets' last bytes are lost.
#include <cstdint>
#include <optional>
#include <vector>

#include "nettop/tcp_diag_parser.h"
#include "support/unique_fd.h"

namespace pelmora {

class TcpDiagSocket {
 public:
  TcpDiagSocket();

  // Every IPv4 and IPv6 TCP socket with its counts; none when netlink fails.
  std::optional<std::vector<TcpSocketRecord>> dump();
  // Joins the destroy groups; 0, or the errno value why not (then takeDestroyed() stays empty).
  int subscribeDestroyed();
  // Destroy notifications queued since the last call; never waits.
  std::vector<TcpSocketRecord> takeDestroyed();

 private:
  bool dumpFamily(uint8_t family, std::vector<TcpSocketRecord>& out);

  UniqueFd m_dump;
  UniqueFd m_destroyed;
  std::vector<uint64_t> m_buffer;  // 8-byte aligned, as netlink messages want
};

}  // namespace pelmora
