#pragma once
// The sampler's process counts come from the process table: this is the provider that the
// application (and the CLI) install with SystemStats::setProcessCensusProvider. Header-only, so the
// process-control library itself does not depend on sampling; only its users that also link the
// sampler include it. The provider runs under the sampler's lock and takes the limiter's, which is
// the documented lock order.
#include <functional>

#include "process_control/cpu_limiter.h"
#include "sampling/load_collector.h"

namespace pelmora {

inline std::function<ProcessCensus()> processCensusProvider(CPULimiter& limiter) {
  return [&limiter] {
    ProcessCensus census;
    for (const auto& [pid, row] : limiter.processes()) census.uids.push_back(static_cast<uid_t>(row.uid));
    census.translated = limiter.translatedCount();
    return census;
  };
}

}  // namespace pelmora
