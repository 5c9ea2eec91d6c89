#pragma once
// The fixture machines under tests/fixtures/, read in place through the SysRoot seam.
#include <string>

#include "support/sys_root.h"

namespace pelmora::test {

inline SysRoot fixtureRoot(const std::string& machine) {
  const std::string dir = std::string(PELMORA_FIXTURES) + "/" + machine;
  return SysRoot(dir + "/proc", dir + "/sys");
}

}  // namespace pelmora::test
