#pragma once
// The privileged helper daemon. RUNS AS ROOT. It listens on a Unix stream socket (handed over by
// systemd through LISTEN_FDS, or made by itself), serves each connection on a thread of its own with
// the shared RequestHandler, and identifies each caller once with SO_PEERCRED. A connection that
// sends a malformed frame is closed without an answer; the others go on. When a connection ends
// for any reason, the processes it stopped are continued; the same happens to every connection
// when the daemon is told to stop (SIGTERM, SIGINT).
//
// Against a hostile local user: a user has at most kMaxConnectionsPerUser live connections (one
// whose client hung up no longer counts, even before its thread has read the end); a connection that
// says nothing for Timeouts::idle_ms, or stalls in the middle of a frame or of a reply for
// Timeouts::transfer_ms, is closed; and what the daemon writes about bad connections is rate-limited.
#include <condition_variable>
#include <mutex>
#include <sys/types.h>

#include <map>
#include <string>

#include "helper/log_rate_limit.h"
#include "helper/request_handler.h"
#include "support/unique_fd.h"

namespace pelmora {

class HelperDaemon {
 public:
  // With socket_activated the daemon ends when its last connection closes (systemd starts it again
  // at the next connection); otherwise it serves until stopped.
  HelperDaemon(UniqueFd listen_socket, bool socket_activated, HelperOptions options);
  ~HelperDaemon();

  // The listening socket systemd passed (LISTEN_PID is us, LISTEN_FDS >= 1), or invalid.
  static UniqueFd systemdSocket();
  // Binds a new listening socket at path (replacing a stale one), mode 0666; invalid on failure.
  static UniqueFd bindSocket(const std::string& path, std::string* error);

  // Serves until stopped; returns the exit status.
  int run();
  // Ends run(): closes every connection (continuing what each stopped). Safe from a signal handler.
  void stop();

  // One user cannot take every connection thread: beyond these, a new connection is closed at once.
  static constexpr size_t kMaxConnections = 256;
  static constexpr size_t kMaxConnectionsPerUser = 16;

  struct Timeouts {
    int idle_ms = 5 * 60 * 1000;  // between requests; clients reconnect at their next exchange
    int transfer_ms = 10 * 1000;  // for the rest of a frame once begun, and for sending a reply
  };
  void setTimeouts(Timeouts timeouts) { m_timeouts = timeouts; }

 private:
  // Registers a new connection; false when it is over a limit.
  bool admit(int socket_fd);
  void serve(int socket_fd);
  void connectionEnded(int socket_fd);
  // Writes a line to stderr (the journal), at most a few a second whatever the callers do.
  void note(const std::string& line);

  UniqueFd m_listen;
  const bool m_socket_activated;
  RequestHandler m_handler;
  int m_wake[2] = {-1, -1};  // a byte here wakes run()

  std::mutex m_mutex;
  std::condition_variable m_idle;
  std::map<int, uid_t> m_active;  // sockets of live connections and their callers' uids
  bool m_served_any = false;
  Timeouts m_timeouts;
  LogRateLimit m_note_limit{20, std::chrono::seconds(10)};  // guarded by m_mutex
};

}  // namespace pelmora
