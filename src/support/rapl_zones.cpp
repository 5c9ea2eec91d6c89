#include "support/rapl_zones.h"

#include <unistd.h>

#include "support/text.h"

namespace pelmora {

bool RaplZones::isPackageZone(std::string_view name) {
  if (!startsWith(name, "intel-rapl:")) return false;
  return parseInt64(name.substr(11)).has_value();
}

RaplZones RaplZones::read(const SysRoot& root) {
  RaplZones zones;
  for (const std::string& zone : root.listSys("class/powercap")) {
    if (!isPackageZone(zone)) continue;
    const std::string base = "class/powercap/" + zone + "/";
    const auto energy = root.readSysInt(base + "energy_uj");
    const auto range = root.readSysInt(base + "max_energy_range_uj");
    if (!energy && ::access(root.sys(base + "energy_uj").c_str(), F_OK) == 0) zones.denied = true;
    if (!energy || !range || *energy < 0 || *range < 0) continue;
    zones.readings.push_back(RaplReading{zone, static_cast<uint64_t>(*energy), static_cast<uint64_t>(*range)});
  }
  // Reading some zones but not others would sum part of the machine: all or nothing.
  if (zones.denied) zones.readings.clear();
  return zones;
}

}  // namespace pelmora
