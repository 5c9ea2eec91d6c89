#pragma once
// Whole physical disks from /sys/block: entries with a `device` link that are not `hidden` (the
// per-path nodes of NVMe multipath) and not virtual (loop, ram, zram, dm, md, nbd). Counters come
// from the `stat` file, whose sectors are always 512 bytes whatever the device's block size.
// Disks are numbered by their position in (major, minor) order.
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sampling/sample_records.h"
#include "support/sys_root.h"

namespace pelmora {

struct DiskCollector {
  struct Result {
    std::vector<diskstat> disks;
    ioStats total;
    bool operator==(const Result&) const = default;
  };

  // The `stat` file: 11 fields before 4.18, 15 with discards, 17 with flushes. Reads fields 1, 3,
  // 5, 7 (operations and sectors). None with fewer than 11 fields or a field that is not a number.
  static std::optional<ioStats> parseStat(std::string_view text);
  // "major:minor" from the `dev` file.
  static std::optional<std::pair<int, int>> parseDev(std::string_view text);
  // False for the kernel's virtual block devices.
  static bool isPhysicalName(std::string_view name);
  // Trimmed vendor and model joined by one space; a vendor that is only a numeric id (virtio prints
  // its PCI vendor id there) counts as unknown.
  static std::string diskName(std::string_view vendor, std::string_view model);
  static Result read(const SysRoot& root);
};

}  // namespace pelmora
