#pragma once
// Serves helper requests in this process with the daemon's own handler code, as the calling user:
// what the user may do anyway (reading processes, signalling and renicing the user's own) works,
// the rest is refused by the handler exactly as the daemon would refuse it. Run as root (the boot
// service without a daemon), it may do everything, as the daemon would allow root.
#include <memory>

#include "helper/connection.h"
#include "helper/request_handler.h"
#include "support/mutex.h"
#include "support/xpc_transport.h"

namespace pelmora {

class InProcessTransport : public XPCTransport {
 public:
  // The real /proc and /sys, this process as the caller: root is authorised as it is, anyone else
  // gets "the privileged helper is not running" for what needs administrator rights.
  InProcessTransport();
  // Chosen folders (tests), and optionally another caller.
  explicit InProcessTransport(HelperOptions options);
  InProcessTransport(HelperOptions options, Connection caller);

  std::optional<XPCDict> exchange(const XPCDict& request) override;
  void sendOneWay(const XPCDict& message) override;
  // Straight to the handler's kept pidfd, with the bookkeeping "kill" keeps (what m_self stopped).
  std::optional<int> signalAdmitted(int32_t pid, int signal) override;

 private:
  Mutex m_mutex;  // one request at a time, as on a daemon connection
  RequestHandler m_handler;
  // This process as the caller; it continues what it stopped when it goes away.
  Connection m_self;
};

}  // namespace pelmora
