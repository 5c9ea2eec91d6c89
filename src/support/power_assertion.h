#pragma once
// Which processes keep the machine awake: holders of a logind inhibitor that blocks "sleep" or "idle".
// Read over the system bus (sd-bus); without libsystemd or without a system bus the answer is empty.
// A "delay" inhibitor only postpones sleep for a moment (Pelmora holds one itself), so only "block"
// inhibitors count.
#include <cstdint>
#include <map>
#include <string_view>

namespace pelmora {

class PowerAssertion {
 public:
  // Process identifier -> keeps the machine awake.
  static std::map<int32_t, bool> assertions();
  // Whether one inhibitor, as ListInhibitors reports it ("what" is a colon-separated list such as
  // "sleep:idle", mode "block" or "delay"), keeps the machine awake.
  static bool keepsAwake(std::string_view what, std::string_view mode);
};

}  // namespace pelmora
