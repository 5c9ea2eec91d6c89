#pragma once
// The transport of the shared helper client: the daemon's socket ($PELMORA_HELPER_SOCKET or
// /run/pelmora/helper.sock).
#include <memory>

#include "support/xpc_transport.h"

namespace pelmora {

std::unique_ptr<XPCTransport> makeHelperTransport();

}  // namespace pelmora
