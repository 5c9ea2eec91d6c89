#pragma once
// The helper transport over the daemon's Unix stream socket. It connects on first use; a connection
// that breaks is dropped and made again at the next exchange (nothing is retried within one).
// Safe to share between threads: exchanges are serialised.
#include <cstdint>
#include <string>

#include "support/mutex.h"
#include "support/unique_fd.h"
#include "support/xpc_transport.h"

namespace pelmora {

class SocketTransport : public XPCTransport {
 public:
  static constexpr const char* kDefaultSocketPath = "/run/pelmora/helper.sock";
  // $PELMORA_HELPER_SOCKET when set and not empty, else kDefaultSocketPath.
  static std::string defaultPath();

  // Every send and every read of a reply gives up after reply_timeout_ms (0: never); the connection
  // is then dropped, as for any broken exchange.
  explicit SocketTransport(std::string path = defaultPath(), int64_t reply_timeout_ms = 30'000);

  std::optional<XPCDict> exchange(const XPCDict& request) override;
  // Sends and then drops the connection, so no late answer can be taken for the next reply.
  void sendOneWay(const XPCDict& message) override;

  // Whether the daemon answers: connects when not connected yet and says whether that worked.
  bool connected();
  // Drops the connection (the daemon continues what this connection stopped).
  void disconnect();
  uint64_t connection() override;
  void interrupt() override;
  const std::string& path() const { return m_path; }

 private:
  bool connectLocked();
  void dropLocked();

  const std::string m_path;
  const int64_t m_reply_timeout_ms;
  Mutex m_mutex;
  UniqueFd m_socket;
  // interrupt() may shut the socket down while an exchange holds m_mutex; this lock keeps the socket
  // from being closed (and its number reused) under it.
  Mutex m_close_mutex;
  uint64_t m_connections = 0;  // connections made so far; the current one's number
};

}  // namespace pelmora
