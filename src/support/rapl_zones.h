#pragma once
// The energy counters of the RAPL package zones (/sys/class/powercap/intel-rapl:N; their subzones
// intel-rapl:N:M are parts of the package and are not added again). Since Linux 5.10 energy_uj is
// readable only by root, so the sampler asks the helper's "energy" request for the readings when
// it finds zones it may not read; the daemon answers with this same reader. Runs as root there.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/sys_root.h"

namespace pelmora {

struct RaplReading {
  std::string zone;  // "intel-rapl:0"
  uint64_t energy_uj = 0;
  uint64_t max_energy_range_uj = 0;
  bool operator==(const RaplReading&) const = default;
};

struct RaplZones {
  std::vector<RaplReading> readings;
  // Some package zone's counter exists but this process may not read it.
  bool denied = false;

  // "intel-rapl:0" but not its subzones "intel-rapl:0:1".
  static bool isPackageZone(std::string_view name);
  static RaplZones read(const SysRoot& root);
};

}  // namespace pelmora
