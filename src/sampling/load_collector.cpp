#include "sampling/load_collector.h"

#include <cstdlib>

namespace pelmora {

loadAverage LoadCollector::fromValues(int returned, const double values[3]) {
  if (returned != 3) return {};
  return loadAverage{values[0], values[1], values[2]};
}

loadAverage LoadCollector::read() {
  double values[3] = {0, 0, 0};
  const int returned = getloadavg(values, 3);
  return fromValues(returned, values);
}

procstat ProcessCounter::count(const ProcessCensus& census, uid_t own_uid) {
  procstat counts;
  for (uid_t uid : census.uids) {
    if (uid == 0)
      ++counts.system;
    else if (uid == own_uid)
      ++counts.user;
    else
      ++counts.other;
  }
  counts.translated = census.translated;
  return counts;
}

}  // namespace pelmora
