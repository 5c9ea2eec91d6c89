#pragma once
// Which processes keep the machine awake: holders of a logind inhibitor that blocks "sleep" or "idle".
// Read over the system bus (sd-bus); without libsystemd or without a system bus the answer is empty.
// A "delay" inhibitor only postpones sleep for a moment (Pelmora holds one itself), so only "block"
// inhibitors count.
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace pelmora {

class PowerAssertion {
 public:
  // Process identifier -> keeps the machine awake.
  static std::map<int32_t, bool> assertions();
  // Whether one inhibitor, as ListInhibitors reports it ("what" is a colon-separated list such as
  // "sleep:idle", mode "block" or "delay"), keeps the machine awake.
  static bool keepsAwake(std::string_view what, std::string_view mode);

  // Our own assertion: a logind "sleep" delay inhibitor under the given name, taken with
  // switchAssertion(true) and released with false. Without a system bus it does nothing.
  static void setName(const std::string& name);
  static void switchAssertion(bool on);
  static bool held();
};

}  // namespace pelmora
