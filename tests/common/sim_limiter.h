#pragma once
// The limiter and process table over simulated processes: a fake clock, the simulated helper
// behind a real, authorised client, and settings and journal in a folder of their own.
#include <map>
#include <memory>
#include <string>

#include "common/sim_helper.h"
#include "process_control/cpu_limiter.h"
#include "support/default_settings.h"
#include "support/main_queue.h"
#include "support/timeval.h"

namespace pelmora::test {

struct SimLimiter {
  // Authorised, so that every query goes to the simulated helper; `make` false leaves the limiter
  // to be made once the processes are in place.
  explicit SimLimiter(bool make_now = true) {
    helper.setAuthorised(true);
    RunLoop::main().runUntilIdle();
    if (make_now) make();
  }
  ~SimLimiter() {
    limiter.reset();
    RunLoop::main().runUntilIdle();
  }
  CPULimiter& make() {
    CPULimiter::Options options;
    options.journal_dir = dir.journalDir();
    limiter = std::make_unique<CPULimiter>(helper, dir.root(), settings, options);
    return *limiter;
  }
  void add(int32_t pid, SimProcess p) {
    dir.addProcess(pid);
    wire->procs[pid] = std::move(p);
  }
  void gone(int32_t pid) {
    dir.removeProcess(pid);
    wire->procs.erase(pid);
  }
  void limit(int32_t pid, double share) {
    MutexLock lock(limiter->mutex());
    limiter->setLimit(pid, share);
  }
  bool stopped(int32_t pid) { return wire->procs[pid].stopped; }
  // One 30 ms limiter tick of the simulated processes, each demanding `demand` processors.
  void step(double demand = 1.0) {
    clock.advance_us(30'000);
    wire->run(30'000, demand);
    limiter->tick();
  }

  FakeClock clock;
  SimRoot dir;
  std::shared_ptr<SimWire> wire = std::make_shared<SimWire>();
  Pelmora helper{std::make_unique<SimTransport>(wire)};
  DefaultSettings settings{dir.settingsFile()};
  std::unique_ptr<CPULimiter> limiter;
};

}  // namespace pelmora::test
