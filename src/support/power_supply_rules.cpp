#include "support/power_supply_rules.h"

#include "support/text.h"

namespace pelmora {

bool PowerSupplyRules::isExternal(std::string_view type) {
  // Older kernels spell USB chargers "USB_C", "USB_PD", "USB_DCP", ...: all count as USB.
  return type == "Mains" || startsWith(type, "USB");
}

bool PowerSupplyRules::isSystemBattery(std::string_view type, std::string_view scope, std::optional<int64_t> present) {
  if (type != "Battery") return false;
  // "System", "Unknown" or no scope at all (what most laptop drivers report) is the machine's own.
  if (scope == "Device") return false;
  return present.value_or(1) != 0;
}

}  // namespace pelmora
