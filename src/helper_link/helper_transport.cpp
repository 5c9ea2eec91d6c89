#include "helper_link/helper_transport.h"

#include "helper_link/fallback_transport.h"
#include "helper_link/in_process_transport.h"
#include "support/socket_transport.h"

namespace pelmora {

std::unique_ptr<XPCTransport> makeHelperTransport(int64_t reply_timeout_ms) {
  auto socket = std::make_unique<SocketTransport>(SocketTransport::defaultPath(), reply_timeout_ms);
  SocketTransport* daemon = socket.get();  // owned by the fallback transport, which outlives the probe
  // A daemon that starts later is found within a second.
  return std::make_unique<FallbackTransport>(
      std::move(socket), DaemonProbe([daemon] { return daemon->connected(); }, std::chrono::seconds(1)),
      std::make_unique<InProcessTransport>());
}

}  // namespace pelmora
