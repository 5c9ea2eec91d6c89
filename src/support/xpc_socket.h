#pragma once
// Blocking send and receive of one helper frame, with its descriptors, over a connected Unix stream
// socket. Both sides of the link use these: the client transport and the daemon's connections.
#include <optional>
#include <string>

#include "support/xpc_value.h"

namespace pelmora {

// Sends one message and the descriptors it holds (SCM_RIGHTS, with the first bytes). False, with the
// reason in *error, when the message cannot be encoded or the socket fails.
bool xpcSendMessage(int socket_fd, const XPCDict& message, std::string* error = nullptr);

// Receives one message. None on end of stream (reason "closed"), a socket error, or a frame the codec
// rejects; the caller then closes the connection, because the stream position is lost. Descriptors
// the frame carried but did not name are closed.
std::optional<XPCDict> xpcReceiveMessage(int socket_fd, std::string* error = nullptr);

}  // namespace pelmora
