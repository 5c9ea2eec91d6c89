#include "sampling/fan_collector.h"

#include <algorithm>

#include "support/text.h"

namespace pelmora {
namespace {

constexpr int kManualPwmMode = 1;

}  // namespace

std::vector<int> FanCollector::fanNumbers(const std::vector<std::string>& file_names) {
  std::vector<int> numbers;
  constexpr std::string_view kPrefix = "fan", kSuffix = "_input";
  for (const std::string& name : file_names) {
    if (!startsWith(name, kPrefix) || name.size() <= kPrefix.size() + kSuffix.size()) continue;
    if (name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) continue;
    auto n = parseInt64(std::string_view(name).substr(kPrefix.size(), name.size() - kPrefix.size() - kSuffix.size()));
    if (n && *n >= 0 && *n < 1000) numbers.push_back(static_cast<int>(*n));
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::vector<fanStats> FanCollector::read(const SysRoot& root) {
  std::vector<fanStats> fans;
  for (const std::string& hwmon : root.listSys("class/hwmon")) {
    const std::string base = "class/hwmon/" + hwmon + "/";
    for (int n : fanNumbers(root.listSys(base))) {
      const std::string fan = base + "fan" + std::to_string(n);
      auto speed = root.readSysInt(fan + "_input");
      if (!speed) continue;
      fanStats stats;
      stats.speed = *speed;
      stats.min = root.readSysInt(fan + "_min").value_or(0);
      stats.max = root.readSysInt(fan + "_max").value_or(0);
      stats.forced = root.readSysInt(base + "pwm" + std::to_string(n) + "_enable") == kManualPwmMode;
      fans.push_back(stats);
    }
  }
  return fans;
}

}  // namespace pelmora
