#pragma once
// The 1-, 5- and 15-minute load averages (getloadavg) and the per-owner process counts.
#include <cstdint>
#include <sys/types.h>
#include <vector>

#include "sampling/sample_records.h"
#include "support/process_list.h"

namespace pelmora {

struct LoadCollector {
  // All three values when getloadavg returned exactly 3, else zeros (never a partial reading).
  static loadAverage fromValues(int returned, const double values[3]);
  static loadAverage read();
};

struct ProcessCounter {
  // Root first, so when Pelmora itself runs as root every root process counts as system.
  static procstat count(const ProcessCensus& census, uid_t own_uid);
};

}  // namespace pelmora
