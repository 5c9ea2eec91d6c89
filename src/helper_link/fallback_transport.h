#pragma once
// The helper transport that falls back to in-process service. Each exchange first asks whether the
// daemon answers (a connect on its socket when not connected); if it does, the request goes there,
// otherwise the same handler code serves it in this process with the user's own rights: monitoring
// and the user's own processes keep working, privileged requests get the handler's refusal.
//
// A request that reached the daemon but got no reply (the connection broke mid-exchange) is not
// served again in-process: nothing is retried within one exchange, and a command such as
// "setcpucount" must not run twice. The next exchange connects again or falls back.
//
// The mode in force is logged once, and again whenever it changes.
#include <chrono>
#include <functional>
#include <memory>

#include "support/mutex.h"
#include "support/xpc_transport.h"

namespace pelmora {

// The daemon_answers of a FallbackTransport that does not knock on a daemon that is not there at
// every request (a limited process costs about twenty requests a second): after a "no", `answers`
// is asked again only once `interval` has passed; after a "yes", every time. Copies share state.
class DaemonProbe {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  DaemonProbe(std::function<bool()> answers, std::chrono::milliseconds interval,
              Clock now = [] { return std::chrono::steady_clock::now(); });
  bool operator()();

 private:
  struct State {
    Mutex mutex;
    std::chrono::steady_clock::time_point quiet_until{};  // guarded by mutex
  };
  std::function<bool()> m_answers;
  std::chrono::milliseconds m_interval;
  Clock m_now;
  std::shared_ptr<State> m_state = std::make_shared<State>();
};

class FallbackTransport : public XPCTransport {
 public:
  // daemon_answers: true when the daemon can be reached now (it may connect to find out).
  FallbackTransport(std::unique_ptr<XPCTransport> daemon, std::function<bool()> daemon_answers,
                    std::unique_ptr<XPCTransport> in_process);

  std::optional<XPCDict> exchange(const XPCDict& request) override;
  void sendOneWay(const XPCDict& message) override;
  // The daemon's connection, or the in-process one's, whichever the next request goes to.
  uint64_t connection() override;
  // Only an exchange with the daemon can wait.
  void interrupt() override { m_daemon->interrupt(); }
  // In-process only: a request for the daemon always crosses its socket.
  std::optional<int> signalAdmitted(int32_t pid, int signal) override { return route().signalAdmitted(pid, signal); }

  // False while requests are served in-process. Before the first exchange it asks the daemon.
  bool viaDaemon();

  static constexpr const char* kInProcessLine =
      "Privileged helper not running: serving requests in-process with the user's rights.";
  static constexpr const char* kDaemonLine = "Privileged helper answering: requests go to the daemon.";

 private:
  enum class Mode { kUnknown, kDaemon, kInProcess };
  // Decides where the next request goes and logs a change of mode.
  XPCTransport& route();

  std::unique_ptr<XPCTransport> m_daemon;
  std::function<bool()> m_daemon_answers;
  std::unique_ptr<XPCTransport> m_in_process;
  Mutex m_mutex;  // guards m_mode
  Mode m_mode = Mode::kUnknown;
};

}  // namespace pelmora
