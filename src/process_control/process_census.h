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
    ProcessOwners owners = limiter.owners();
    ProcessCensus census;
    census.uids.assign(owners.uids.begin(), owners.uids.end());
    census.translated = owners.translated;
    return census;
  };
}

}  // namespace pelmora
