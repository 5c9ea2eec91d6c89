#pragma once
// Fans from hwmon: every fanN_input of every sensor chip, in chip order then fan number. Speeds are
// rpm; min and max read 0 where the driver does not publish them. A fan counts as forced (under
// manual control) when its pwmN_enable is 1.
#include <string>
#include <vector>

#include "sampling/sample_records.h"
#include "support/sys_root.h"

namespace pelmora {

struct FanCollector {
  // The N of every "fanN_input" among a hwmon directory's file names, ascending numerically.
  static std::vector<int> fanNumbers(const std::vector<std::string>& file_names);
  static std::vector<fanStats> read(const SysRoot& root);
};

}  // namespace pelmora
