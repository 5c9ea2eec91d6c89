#include "sampling/network_collector.h"

#include "support/text.h"

namespace pelmora {

bool NetworkCollector::isReported(std::string_view name) {
  for (std::string_view prefix : {"en", "eth", "wl", "ww"})
    if (startsWith(name, prefix) && name.size() > prefix.size()) return true;
  return false;
}

std::vector<interfaceStats> NetworkCollector::read(const SysRoot& root) {
  std::vector<interfaceStats> out;
  for (const std::string& name : root.listSys("class/net")) {
    if (!isReported(name)) continue;
    const std::string base = "class/net/" + name + "/statistics/";
    auto in = root.readSysInt(base + "rx_bytes");
    auto out_bytes = root.readSysInt(base + "tx_bytes");
    if (!in || !out_bytes || *in < 0 || *out_bytes < 0) continue;
    out.push_back(interfaceStats{name, netStats{*in, *out_bytes}});
  }
  return out;
}

}  // namespace pelmora
