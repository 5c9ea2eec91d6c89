#include "helper_link/helper_transport.h"

#include "support/socket_transport.h"

namespace pelmora {

std::unique_ptr<XPCTransport> makeHelperTransport() { return std::make_unique<SocketTransport>(); }

}  // namespace pelmora
