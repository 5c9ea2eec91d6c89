#include "sampling/fan_collector.h"

#include "sampling/hwmon_channels.h"

namespace pelmora {
namespace {

constexpr int kManualPwmMode = 1;

}  // namespace

std::vector<int> FanCollector::fanNumbers(const std::vector<std::string>& file_names) {
  return HwmonChannels::numbers(file_names, "fan");
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
