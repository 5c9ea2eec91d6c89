#pragma once
// Replies and notifications of the kernel's sock_diag netlink family for TCP (struct inet_diag_msg
// followed by attributes), as records. Pure: the bytes of one datagram in, records out. The socket
// that carries them is TcpDiagSocket.
//
// Byte counts are payload only. tcp_info counts sequence numbers, not payload: an active opener's
// tcpi_bytes_acked includes its SYN, both sides' include their acked FIN, and tcpi_bytes_received
// includes the peer's FIN when it arrives in order. So "sent" is tcpi_bytes_sent less
// tcpi_bytes_retrans (payload handed to the network, each byte once; kernels since 4.19), and
// "received" is tcpi_bytes_received less one once the state shows that the peer's FIN was taken.
#include <cstdint>
#include <string_view>
#include <vector>

namespace pelmora {

// TCP states as the kernel numbers them (include/net/tcp_states.h, not exported to user space).
enum : uint8_t {
  kTcpEstablished = 1,
  kTcpSynSent = 2,
  kTcpSynRecv = 3,
  kTcpFinWait1 = 4,
  kTcpFinWait2 = 5,
  kTcpTimeWait = 6,
  kTcpClose = 7,
  kTcpCloseWait = 8,
  kTcpLastAck = 9,
  kTcpListen = 10,
  kTcpClosing = 11,
};

struct TcpSocketRecord {
  uint64_t cookie = 0;  // the kernel's identity of the socket for its whole life
  uint64_t inode = 0;   // 0 once no descriptor holds it (closed, orphaned, time-wait, destroyed)
  uint32_t uid = 0;     // the creator's file-system uid (0 in destroy notifications)
  uint8_t state = 0;    // kTcp...
  bool has_counts = false;  // false: no tcp_info (time-wait and request sockets carry none)
  uint64_t received_bytes = 0;
  uint64_t sent_bytes = 0;
};

// Raw tcp_info counters as the kernel reports them.
struct TcpInfoCounters {
  uint64_t bytes_received = 0;
  uint64_t bytes_acked = 0;
  uint64_t bytes_sent = 0;     // 0 on kernels before 4.19
  uint64_t bytes_retrans = 0;
  bool has_sent = false;       // the kernel's tcp_info reaches tcpi_bytes_retrans
};

// The state in which the peer's FIN has been counted in tcpi_bytes_received.
bool peerFinCounted(uint8_t state);
// Payload received and sent, from the counters of a socket in `state`. Where the kernel predates
// tcpi_bytes_sent, sent falls back to tcpi_bytes_acked (which then may hold one SYN and one FIN).
void setPayloadBytes(TcpSocketRecord& record, const TcpInfoCounters& counters);

struct TcpDiagBatch {
  std::vector<TcpSocketRecord> sockets;
  bool done = false;  // NLMSG_DONE seen: a dump is complete
  int error = 0;      // errno value of an NLMSG_ERROR, or EPROTO for a malformed datagram
};

// Every SOCK_DIAG_BY_FAMILY message of one datagram; a truncated message ends the batch with EPROTO.
TcpDiagBatch parseTcpDiagDatagram(std::string_view datagram);

}  // namespace pelmora
