#pragma once
// The limiter on real processes, the helper served in-process with this user's rights, and a count
// of the stop and continue signals the helper really delivered, by request or by the short path.
#include <signal.h>

#include <atomic>
#include <memory>
#include <optional>

#include "common/temp_dir.h"
#include "helper_link/in_process_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "support/default_settings.h"
#include "support/sys_root.h"
#include "support/xpc_transport.h"

namespace pelmora::test {

// Around `real`; with `crosses_socket`, it stands for the daemon's socket: no short path.
class CountingTransport : public XPCTransport {
 public:
  explicit CountingTransport(std::unique_ptr<XPCTransport> real = std::make_unique<InProcessTransport>(),
                             bool crosses_socket = false)
      : m_real(std::move(real)), m_crosses_socket(crosses_socket) {}
  std::atomic<int> stops{0}, continues{0}, kill_requests{0};
  std::optional<XPCDict> exchange(const XPCDict& request) override {
    auto reply = m_real->exchange(request);
    if (request.count("kill")) {
      ++kill_requests;
      if (reply) count(xpcInt(request, "signal").value_or(0), xpcInt(*reply, "kill").value_or(-1));
    }
    return reply;
  }
  void sendOneWay(const XPCDict& message) override { m_real->sendOneWay(message); }
  std::optional<int> signalAdmitted(int32_t pid, int signal) override {
    if (m_crosses_socket) return std::nullopt;
    auto failure = m_real->signalAdmitted(pid, signal);
    if (failure) count(signal, *failure);
    return failure;
  }

 private:
  void count(int64_t signal, int64_t failure) {
    if (failure != 0) return;
    stops += signal == SIGSTOP;
    continues += signal == SIGCONT;
  }
  std::unique_ptr<XPCTransport> m_real;
  bool m_crosses_socket;
};

// Its journal and settings in a folder of its own; no pelmora-nettop (network counts play no part).
struct LiveLimiter {
  LiveLimiter() {
    auto transport = std::make_unique<CountingTransport>();
    counts = transport.get();
    helper = std::make_unique<Pelmora>(std::move(transport));
    settings = std::make_unique<DefaultSettings>(dir / "defaults.json");
    limiter = std::make_unique<CPULimiter>(*helper, SysRoot::current(), *settings,
                                           CPULimiter::Options{"/bin/true", journalDir()});
  }
  ~LiveLimiter() { release(); }
  // Stops the duty cycle and continues everything it held, as quitting does.
  void release() {
    if (!limiter) return;
    limiter->stopTimer();
    limiter->continueAll();
    limiter.reset();
  }
  std::filesystem::path journalDir() const { return dir / "held"; }
  void limit(pid_t pid, double share) {
    MutexLock lock(limiter->mutex());
    limiter->setLimit(pid, share);
  }

  TempDir dir{"pelmora-live"};
  CountingTransport* counts = nullptr;
  std::unique_ptr<Pelmora> helper;
  std::unique_ptr<DefaultSettings> settings;
  std::unique_ptr<CPULimiter> limiter;
};

}  // namespace pelmora::test
