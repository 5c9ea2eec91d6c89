#include "sampling/gpu_collector.h"

#include <algorithm>
#include <cctype>

#include "support/text.h"

namespace pelmora {

graphicsCard GpuCollector::makeCard(std::string name, int64_t pct_util, int64_t total_bytes, int64_t used_bytes) {
  graphicsCard card;
  card.name = std::move(name);
  card.active = true;
  card.stats.pctUtil = pct_util;
  card.stats.totalVRAM = total_bytes;
  card.stats.usedVRAM = used_bytes;
  card.stats.freeVRAM = std::max<int64_t>(total_bytes - used_bytes, 0);
  card.stats.cpuWait = 0;
  return card;
}

std::optional<std::string> GpuCollector::ueventValue(std::string_view uevent, std::string_view key) {
  for (std::string_view line : split(uevent, '\n', false)) {
    const auto eq = line.find('=');
    if (eq != std::string_view::npos && line.substr(0, eq) == key) return std::string(trim(line.substr(eq + 1)));
  }
  return std::nullopt;
}

bool GpuCollector::isCardName(std::string_view name) {
  if (!startsWith(name, "card") || name.size() == 4) return false;
  return std::all_of(name.begin() + 4, name.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

std::vector<graphicsCard> GpuCollector::readAmdgpu(const SysRoot& root) {
  std::vector<graphicsCard> cards;
  for (const std::string& card : root.listSys("class/drm")) {
    if (!isCardName(card)) continue;
    const std::string device = "class/drm/" + card + "/device/";
    const std::string uevent = root.readSys(device + "uevent").value_or("");
    if (ueventValue(uevent, "DRIVER") != "amdgpu") continue;
    auto busy = root.readSysInt(device + "gpu_busy_percent");
    if (!busy) continue;  // no statistics: skipped
    std::string name = root.readSysTrimmed(device + "product_name").value_or("");
    if (name.empty()) name = "AMD GPU " + ueventValue(uevent, "PCI_ID").value_or(card);
    cards.push_back(makeCard(std::move(name), *busy, root.readSysInt(device + "mem_info_vram_total").value_or(0),
                             root.readSysInt(device + "mem_info_vram_used").value_or(0)));
  }
  return cards;
}

}  // namespace pelmora
