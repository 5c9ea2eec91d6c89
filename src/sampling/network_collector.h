#pragma once
// Byte counters of the machine's hardware network interfaces from /sys/class/net/*/statistics.
// Only names the kernel and udev give to real adapters are reported (en*, eth*, wl*, ww*), so the
// loopback, tunnels, bridges, veth pairs and ifb devices never show up.
#include <string_view>
#include <vector>

#include "sampling/sample_records.h"
#include "support/sys_root.h"

namespace pelmora {

struct NetworkCollector {
  static bool isReported(std::string_view name);
  // In directory order (sorted by name). An interface whose counters cannot be read is left out.
  static std::vector<interfaceStats> read(const SysRoot& root);
};

}  // namespace pelmora
