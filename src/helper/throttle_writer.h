#pragma once
// Kernel throttling of background I/O, switched through the writeback throttle of every physical
// disk: queue/wbt_lat_usec = -1 restores the kernel's default latency target, 0 turns it off.
// Runs as root in the daemon.
#include <string>
#include <vector>

#include "support/sys_root.h"

namespace pelmora {

class ThrottleWriter {
 public:
  explicit ThrottleWriter(SysRoot root);
  // The disks whose throttle can be set: whole physical disks (a `device` link, no loop, ram, zram,
  // dm, md or nbd) that have queue/wbt_lat_usec.
  std::vector<std::string> disks() const;
  // "OK", or the error text naming every disk that refused.
  std::string setThrottle(bool enable) const;

 private:
  SysRoot m_root;
};

// Whether a block device name belongs to a virtual device that has no throttle of its own.
bool isVirtualBlockDevice(const std::string& name);

}  // namespace pelmora
