#pragma once
// The transport of the shared helper client: the daemon's socket ($PELMORA_HELPER_SOCKET or
// /run/pelmora/helper.sock) while the daemon answers, the same handler code in-process otherwise.
#include <memory>

#include "support/xpc_transport.h"

namespace pelmora {

std::unique_ptr<XPCTransport> makeHelperTransport();

}  // namespace pelmora
