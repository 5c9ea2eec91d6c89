#pragma once
// The seam between the helper client and whoever answers it: the daemon over its Unix socket, the
// same handler code in-process when no daemon answers, or a fake in tests.
#include <cstdint>
#include <optional>

#include "support/xpc_value.h"

namespace pelmora {

class XPCTransport {
 public:
  virtual ~XPCTransport() = default;
  // One synchronous exchange. None when the peer could not be reached or its reply was malformed
  // (the connection is then dropped and re-made at the next exchange; nothing is retried).
  virtual std::optional<XPCDict> exchange(const XPCDict& request) = 0;
  // A message that needs no reply.
  virtual void sendOneWay(const XPCDict& message) = 0;
  // Names the connection the next exchange goes over (connecting when there is none): it changes
  // whenever a new connection is made, so a client can tell that what the peer granted the old
  // connection (authorisation) is gone. 0 for transports without connections.
  virtual uint64_t connection() { return 0; }
  // From another thread: ends the exchange in progress, which then fails (its connection is
  // dropped). Does nothing where an exchange cannot wait.
  virtual void interrupt() {}
  // A stop or continue (SIGSTOP, SIGCONT) for a process this connection was already admitted to
  // signal, delivered at once through what the peer kept from that admission, without a "kill"
  // request: 0 or the errno of the signal. None when it takes the full request: a transport that
  // crosses a socket (the daemon checks every request it reads), or a process not admitted yet.
  virtual std::optional<int> signalAdmitted(int32_t /*pid*/, int /*signal*/) { return std::nullopt; }
};

}  // namespace pelmora
