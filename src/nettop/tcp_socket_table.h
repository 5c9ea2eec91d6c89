#pragma once
// The kernel's TCP sockets with their byte counts, from sock_diag (NETLINK_SOCK_DIAG, INET_DIAG_INFO):
// tcp_info's bytes_received and bytes_acked (bytes the peer confirmed, so retransmissions are not
// counted twice). Readable without privileges.
#include <cstdint>
#include <map>
#include <optional>

namespace pelmora {

struct TcpSocketBytes {
  uint64_t received = 0;
  uint64_t acked = 0;
};

// Socket inode -> byte counts for every IPv4 and IPv6 TCP socket; none when netlink fails.
std::optional<std::map<uint64_t, TcpSocketBytes>> readTcpSockets();

}  // namespace pelmora
