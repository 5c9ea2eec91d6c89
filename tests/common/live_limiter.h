#pragma once
// The limiter on real processes, the helper served in-process with this user's rights, and a count
// of the stop and continue signals the helper really delivered.
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

class CountingTransport : public XPCTransport {
 public:
  std::atomic<int> stops{0}, continues{0};
  std::optional<XPCDict> exchange(const XPCDict& request) override {
    auto reply = m_real.exchange(request);
    if (request.count("kill") && reply && xpcInt(*reply, "kill") == 0) {
      const auto signal = xpcInt(request, "signal");
      stops += signal == SIGSTOP;
      continues += signal == SIGCONT;
    }
    return reply;
  }
  void sendOneWay(const XPCDict& message) override { m_real.sendOneWay(message); }

 private:
  InProcessTransport m_real;
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
