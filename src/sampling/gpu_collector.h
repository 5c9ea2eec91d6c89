#pragma once
// Graphics cards: amdgpu cards from /sys/class/drm (busy percent and VRAM from the device's sysfs
// attributes) followed by NVIDIA cards through NVML. A card that publishes no statistics is skipped.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sampling/sample_records.h"
#include "support/sys_root.h"

namespace pelmora {

struct GpuCollector {
  // A reported card: active, cpuWait 0, free = total - used but never below 0.
  static graphicsCard makeCard(std::string name, int64_t pct_util, int64_t total_bytes, int64_t used_bytes);
  // The DRIVER= and PCI_ID= values of a device's uevent text.
  static std::optional<std::string> ueventValue(std::string_view uevent, std::string_view key);
  // "card0", "card1": the cards themselves, not their connectors (card0-DP-1) or render nodes.
  static bool isCardName(std::string_view name);
  static std::vector<graphicsCard> readAmdgpu(const SysRoot& root);
};

}  // namespace pelmora
