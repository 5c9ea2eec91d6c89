#pragma once
// The transport of the shared helper client: the daemon's socket ($PELMORA_HELPER_SOCKET or
// /run/pelmora/helper.sock) while the daemon answers, the same handler code in-process otherwise.
#include <memory>

#include "support/xpc_transport.h"

namespace pelmora {

// The daemon's answers come within this (a processor switched off takes the longest)...
inline constexpr int64_t kReplyTimeout_ms = 30'000;
// ... except "authorize", which waits for the user's password: polkit gives up after five minutes.
inline constexpr int64_t kAuthorizeTimeout_ms = 330'000;

std::unique_ptr<XPCTransport> makeHelperTransport(int64_t reply_timeout_ms = kReplyTimeout_ms);

}  // namespace pelmora
