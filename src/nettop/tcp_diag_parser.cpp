#include "nettop/tcp_diag_parser.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace pelmora {
namespace {

template <typename Field>
bool reaches(size_t payload, size_t offset) {
  return payload >= offset + sizeof(Field);
}

TcpInfoCounters countersOf(const void* data, size_t payload) {
  // Older kernels send a shorter tcp_info; read only what was sent.
  tcp_info info{};
  std::memcpy(&info, data, std::min(payload, sizeof info));
  TcpInfoCounters c;
  c.bytes_received = info.tcpi_bytes_received;
  c.bytes_acked = info.tcpi_bytes_acked;
  c.bytes_sent = info.tcpi_bytes_sent;
  c.bytes_retrans = info.tcpi_bytes_retrans;
  c.has_sent = reaches<uint64_t>(payload, offsetof(tcp_info, tcpi_bytes_retrans));
  return c;
}

TcpSocketRecord recordOf(const inet_diag_msg& diag, const char* attrs, size_t attrs_len) {
  TcpSocketRecord r;
  r.cookie = uint64_t{diag.id.idiag_cookie[0]} | (uint64_t{diag.id.idiag_cookie[1]} << 32);
  r.inode = diag.idiag_inode;
  r.uid = diag.idiag_uid;
  r.state = diag.idiag_state;
  int left = static_cast<int>(attrs_len);
  for (auto* a = reinterpret_cast<const rtattr*>(attrs); RTA_OK(a, left); a = RTA_NEXT(a, left)) {
    if (a->rta_type != INET_DIAG_INFO) continue;
    if (!reaches<uint64_t>(RTA_PAYLOAD(a), offsetof(tcp_info, tcpi_bytes_received))) break;
    setPayloadBytes(r, countersOf(RTA_DATA(a), RTA_PAYLOAD(a)));
    break;
  }
  return r;
}

// NLMSG_OK spelled out: the macro compares the header's unsigned length with the signed bytes left,
// which clang's -Wsign-compare rejects.
bool messageFits(const nlmsghdr* h, int left) {
  return left >= static_cast<int>(sizeof(nlmsghdr)) && h->nlmsg_len >= sizeof(nlmsghdr) &&
         h->nlmsg_len <= static_cast<uint32_t>(left);
}

}  // namespace

bool peerFinCounted(uint8_t state) {
  return state == kTcpCloseWait || state == kTcpLastAck || state == kTcpClosing;
}

void setPayloadBytes(TcpSocketRecord& record, const TcpInfoCounters& c) {
  record.has_counts = true;
  const uint64_t fin = peerFinCounted(record.state) && c.bytes_received > 0 ? 1 : 0;
  record.received_bytes = c.bytes_received - fin;
  record.sent_bytes = c.has_sent ? c.bytes_sent - std::min(c.bytes_retrans, c.bytes_sent) : c.bytes_acked;
}

TcpDiagBatch parseTcpDiagDatagram(std::string_view datagram) {
  TcpDiagBatch batch;
  // nlmsghdr wants 4-byte alignment: receive buffers have it, a caller's string may not.
  std::vector<uint64_t> copy;
  const char* base = datagram.data();
  if (reinterpret_cast<uintptr_t>(base) % alignof(nlmsghdr) != 0) {
    copy.resize(datagram.size() / sizeof(uint64_t) + 1);
    std::memcpy(copy.data(), datagram.data(), datagram.size());
    base = reinterpret_cast<const char*>(copy.data());
  }
  int left = static_cast<int>(std::min<size_t>(datagram.size(), INT32_MAX));
  auto* h = reinterpret_cast<const nlmsghdr*>(base);
  for (; messageFits(h, left); h = NLMSG_NEXT(h, left)) {
    if (h->nlmsg_type == NLMSG_DONE) {
      batch.done = true;
      return batch;
    }
    if (h->nlmsg_type == NLMSG_ERROR) {
      const auto* e = static_cast<const nlmsgerr*>(NLMSG_DATA(h));
      // An errno, negated; anything else (INT_MIN would not even negate) is a broken answer.
      const bool errno_value = h->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr)) && e->error < 0 && e->error >= -4095;
      batch.error = errno_value ? -e->error : EPROTO;
      return batch;
    }
    if (h->nlmsg_type != SOCK_DIAG_BY_FAMILY) continue;
    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
      batch.error = EPROTO;
      return batch;
    }
    const auto* diag = static_cast<const inet_diag_msg*>(NLMSG_DATA(h));
    batch.sockets.push_back(recordOf(*diag, reinterpret_cast<const char*>(diag + 1),
                                     h->nlmsg_len - NLMSG_LENGTH(sizeof(inet_diag_msg))));
  }
  if (left != 0) batch.error = EPROTO;
  return batch;
}

}  // namespace pelmora
