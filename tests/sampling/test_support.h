#pragma once
// Shared by the sampling tests: the fixture machines under tests/fixtures.
#include <string>

#include "support/sys_root.h"

namespace pelmora::testing {

inline std::string fixtureDir(const std::string& machine) { return std::string(PELMORA_FIXTURES) + "/" + machine; }

inline SysRoot fixtureRoot(const std::string& machine) {
  return SysRoot(fixtureDir(machine) + "/proc", fixtureDir(machine) + "/sys");
}

inline std::string testName(std::string label) {
  for (char& ch : label)
    if (!((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9'))) ch = '_';
  return label;
}

// Names the cases of a parameterised suite after their `label`.
inline constexpr auto byLabel = [](const auto& info) { return testName(info.param.label); };

}  // namespace pelmora::testing
