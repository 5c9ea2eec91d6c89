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
#include <tuple>

namespace pelmora {
namespace {

struct Socket {
  uint64_t cookie = 0x1'0000'0007;  // both halves of the kernel's two 32-bit words
  uint32_t inode = 4242;
  uint32_t uid = 1000;
  uint8_t state = kTcpEstablished;
  TcpInfoCounters counters;
  size_t info_bytes = sizeof(tcp_info);  // 0: no INET_DIAG_INFO at all
};

// The first `size` bytes of an object, as the kernel copies it into a datagram.
template <class T>
std::string raw(const T& value, size_t size = sizeof(T)) {
  return std::string(reinterpret_cast<const char*>(&value), size);
}

std::string frame(uint16_t type, const std::string& body) {
  return raw(nlmsghdr{static_cast<uint32_t>(NLMSG_LENGTH(body.size())), type, NLM_F_MULTI, 1, 0}) + body;
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
  std::string body = raw(diag);
  if (s.info_bytes > 0) {
    body += raw(rtattr{static_cast<unsigned short>(RTA_LENGTH(s.info_bytes)), INET_DIAG_INFO}) +
            raw(info, s.info_bytes);
    body.resize(NLMSG_ALIGN(body.size()), '\0');
  }
  return frame(SOCK_DIAG_BY_FAMILY, body);
}

std::string done() { return frame(NLMSG_DONE, std::string(sizeof(int), '\0')); }

// An NLMSG_ERROR whose error field holds `field` (the kernel sends an errno negated).
std::string error(int field) {
  nlmsgerr e{};
  e.error = field;
  return frame(NLMSG_ERROR, raw(e));
}

constexpr size_t kBeforeBytesSent = offsetof(tcp_info, tcpi_bytes_sent);  // a 4.x kernel's tcp_info
constexpr size_t kBeforeBytesReceived = offsetof(tcp_info, tcpi_bytes_received);

auto fields(const TcpSocketRecord& r) {
  return std::tuple(r.cookie, r.inode, r.uid, int{r.state}, r.has_counts, r.received_bytes, r.sent_bytes);
}

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
    ASSERT_EQ(batch.sockets.size(), 1u);
    const Socket& s = c.socket;
    EXPECT_EQ(fields(batch.sockets[0]), fields({s.cookie, s.inode, s.uid, s.state, c.has_counts, c.received, c.sent}));
  }
}

TEST(TcpDiagParser, DatagramsEndInDoneErrorOrMore) {
  const Socket a{.cookie = 2, .inode = 1, .counters = {}};
  const Socket b{.cookie = 3, .inode = 0, .state = kTcpFinWait1, .counters = {}};
  std::string truncated = message(a);
  truncated.resize(truncated.size() - 8);
  std::string short_header = message(a);
  reinterpret_cast<nlmsghdr*>(short_header.data())->nlmsg_len = NLMSG_LENGTH(8);
  struct Case {
    const char* what;
    std::string datagram;
    std::vector<uint64_t> cookies;
    bool done;
    int error;
    size_t skip = 0;  // bytes before the datagram
  };
  const Case cases[] = {
      {"two sockets then done", message(a) + message(b) + done(), {2, 3}, true, 0},
      {"two sockets, more to come", message(a) + message(b), {2, 3}, false, 0},
      // A caller's bytes need not be aligned for nlmsghdr.
      {"one past an aligned start", " " + message(a) + message(b) + done(), {2, 3}, true, 0, 1},
      {"refused", error(-EACCES), {}, false, EACCES},
      {"a socket then an error", message(a) + error(-ENOBUFS), {2}, false, ENOBUFS},
      {"an error field no errno negates to", error(INT_MIN), {}, false, EPROTO},
      {"a positive error field", error(5), {}, false, EPROTO},
      {"cut inside a message", truncated, {}, false, EPROTO},
      {"header shorter than inet_diag_msg", short_header, {}, false, EPROTO},
      {"empty", "", {}, false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto batch = parseTcpDiagDatagram(std::string_view(c.datagram).substr(c.skip));
    std::vector<uint64_t> cookies;
    for (const auto& s : batch.sockets) cookies.push_back(s.cookie);
    EXPECT_EQ(cookies, c.cookies);
    EXPECT_EQ(batch.done, c.done);
    EXPECT_EQ(batch.error, c.error);
  }
}

}  // namespace
}  // namespace pelmora
