// sock_diag datagrams as the kernel builds them, turned into socket records.
#include "nettop/tcp_diag_parser.h"

#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string>

namespace pelmora {
namespace {

struct Socket {
  uint64_t cookie = 7;
  uint32_t inode = 4242;
  uint32_t uid = 1000;
  uint8_t state = kTcpEstablished;
  TcpInfoCounters counters;
  size_t info_bytes = sizeof(tcp_info);  // 0: no INET_DIAG_INFO at all
};

void append(std::string& out, const void* data, size_t size) { out.append(static_cast<const char*>(data), size); }

void pad(std::string& out) { out.resize(NLMSG_ALIGN(out.size()), '\0'); }

std::string frame(uint16_t type, uint16_t flags, const std::string& body) {
  nlmsghdr h{static_cast<uint32_t>(NLMSG_LENGTH(body.size())), type, flags, 1, 0};
  std::string out;
  append(out, &h, sizeof h);
  return out + body;
}

// One SOCK_DIAG_BY_FAMILY message: inet_diag_msg, then an INET_DIAG_INFO attribute holding the
// first info_bytes of a tcp_info.
std::string message(const Socket& s) {
  inet_diag_msg diag{};
  diag.idiag_family = AF_INET;
  diag.idiag_state = s.state;
  diag.idiag_inode = s.inode;
  diag.idiag_uid = s.uid;
  diag.id.idiag_cookie[0] = static_cast<uint32_t>(s.cookie);
  diag.id.idiag_cookie[1] = static_cast<uint32_t>(s.cookie >> 32);
  tcp_info info{};
  info.tcpi_bytes_received = s.counters.bytes_received;
  info.tcpi_bytes_acked = s.counters.bytes_acked;
  info.tcpi_bytes_sent = s.counters.bytes_sent;
  info.tcpi_bytes_retrans = s.counters.bytes_retrans;
  std::string body;
  append(body, &diag, sizeof diag);
  if (s.info_bytes > 0) {
    rtattr attr{static_cast<unsigned short>(RTA_LENGTH(s.info_bytes)), INET_DIAG_INFO};
    append(body, &attr, sizeof attr);
    append(body, &info, s.info_bytes);
    pad(body);
  }
  return frame(SOCK_DIAG_BY_FAMILY, NLM_F_MULTI, body);
}

std::string done() { return frame(NLMSG_DONE, NLM_F_MULTI, std::string(sizeof(int), '\0')); }

// An NLMSG_ERROR whose error field holds `field` (the kernel sends an errno negated).
std::string errorField(int field) {
  nlmsgerr e{};
  e.error = field;
  std::string body;
  append(body, &e, sizeof e);
  return frame(NLMSG_ERROR, 0, body);
}

std::string error(int errno_value) { return errorField(-errno_value); }

constexpr size_t kBeforeBytesSent = offsetof(tcp_info, tcpi_bytes_sent);  // a 4.x kernel's tcp_info
constexpr size_t kBeforeBytesReceived = offsetof(tcp_info, tcpi_bytes_received);

TEST(TcpDiagParser, PayloadBytesLeaveOutSynFinAndRetransmissions) {
  struct Case {
    const char* what;
    Socket socket;
    bool has_counts;
    uint64_t received, sent;
  };
  // The raw figures are what a loopback pair showed: the opener's acked count holds its SYN.
  const Case cases[] = {
      {"active opener, nothing sent", {.counters = {0, 1, 0, 0, true}}, true, 0, 0},
      {"active opener sent 100, got 50", {.counters = {50, 101, 100, 0, true}}, true, 50, 100},
      {"passive opener sent 50, got 100", {.counters = {100, 50, 50, 0, true}}, true, 100, 50},
      {"retransmitted 40 of 140", {.counters = {0, 101, 140, 40, true}}, true, 0, 100},
      {"peer's FIN taken (close-wait)", {.state = kTcpCloseWait, .counters = {101, 50, 50, 0, true}}, true, 100, 50},
      {"last-ack", {.state = kTcpLastAck, .counters = {101, 51, 50, 0, true}}, true, 100, 50},
      {"closing", {.state = kTcpClosing, .counters = {11, 11, 10, 0, true}}, true, 10, 10},
      {"fin-wait-2: our FIN only", {.state = kTcpFinWait2, .counters = {50, 102, 100, 0, true}}, true, 50, 100},
      {"kernel before tcpi_bytes_sent: acked", {.counters = {5, 9, 0, 0, false}, .info_bytes = kBeforeBytesSent}, true,
       5, 9},
      {"tcp_info without byte counters", {.counters = {5, 9, 9, 0, true}, .info_bytes = kBeforeBytesReceived}, false,
       0, 0},
      {"no INET_DIAG_INFO (time-wait)", {.state = kTcpTimeWait, .counters = {}, .info_bytes = 0}, false, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto batch = parseTcpDiagDatagram(message(c.socket) + done());
    ASSERT_EQ(batch.error, 0);
    ASSERT_TRUE(batch.done);
    ASSERT_EQ(batch.sockets.size(), 1u);
    const auto& r = batch.sockets[0];
    EXPECT_EQ(r.cookie, c.socket.cookie);
    EXPECT_EQ(r.inode, c.socket.inode);
    EXPECT_EQ(r.uid, c.socket.uid);
    EXPECT_EQ(r.state, c.socket.state);
    EXPECT_EQ(r.has_counts, c.has_counts);
    EXPECT_EQ(r.received_bytes, c.received);
    EXPECT_EQ(r.sent_bytes, c.sent);
  }
}

TEST(TcpDiagParser, DatagramsEndInDoneErrorOrMore) {
  const Socket a{.cookie = 0x1'0000'0002, .inode = 1, .counters = {}};
  const Socket b{.cookie = 3, .inode = 0, .state = kTcpFinWait1, .counters = {}};
  std::string truncated = message(a);
  truncated.resize(truncated.size() - 8);
  std::string short_header = message(a);
  reinterpret_cast<nlmsghdr*>(short_header.data())->nlmsg_len = NLMSG_LENGTH(8);
  struct Case {
    const char* what;
    std::string datagram;
    size_t sockets;
    bool done;
    int error;
  };
  const Case cases[] = {
      {"two sockets then done", message(a) + message(b) + done(), 2, true, 0},
      {"two sockets, more to come", message(a) + message(b), 2, false, 0},
      {"refused", error(EACCES), 0, false, EACCES},
      {"a socket then an error", message(a) + error(ENOBUFS), 1, false, ENOBUFS},
      {"an error field no errno negates to", errorField(INT_MIN), 0, false, EPROTO},
      {"a positive error field", errorField(5), 0, false, EPROTO},
      {"cut inside a message", truncated, 0, false, EPROTO},
      {"header shorter than inet_diag_msg", short_header, 0, false, EPROTO},
      {"empty", "", 0, false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto batch = parseTcpDiagDatagram(c.datagram);
    EXPECT_EQ(batch.sockets.size(), c.sockets);
    EXPECT_EQ(batch.done, c.done);
    EXPECT_EQ(batch.error, c.error);
  }
  const auto both = parseTcpDiagDatagram(message(a) + message(b));
  ASSERT_EQ(both.sockets.size(), 2u);
  EXPECT_EQ(both.sockets[0].cookie, 0x1'0000'0002u);
  EXPECT_EQ(both.sockets[1].inode, 0u);
  // A caller's bytes need not be aligned for nlmsghdr: the same message one past an aligned start.
  const std::string shifted = " " + message(a) + done();
  const auto unaligned = parseTcpDiagDatagram(std::string_view(shifted).substr(1));
  ASSERT_EQ(unaligned.sockets.size(), 1u);
  EXPECT_EQ(unaligned.sockets[0].cookie, a.cookie);
}

}  // namespace
}  // namespace pelmora
