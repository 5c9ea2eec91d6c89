#pragma once
// Which /sys/class/power_supply entries power the machine. The power-source switch and the battery
// figures both ask here, so they never disagree on what counts as the machine's battery.
#include <cstdint>
#include <optional>
#include <string_view>

namespace pelmora {

struct PowerSupplyRules {
  // Mains, or a USB charger of any flavour ("USB", "USB_C", "USB_PD", ...).
  static bool isExternal(std::string_view type);
  // A battery of the machine itself: type "Battery", a scope other than "Device" (a mouse's or a
  // keyboard's battery), and not an empty bay (present 0).
  static bool isSystemBattery(std::string_view type, std::string_view scope, std::optional<int64_t> present);
};

}  // namespace pelmora
