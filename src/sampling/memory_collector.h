#pragma once
// Page counts from /proc/meminfo, read by key (the kernel adds and moves lines between versions).
// free = MemFree, active = Active, inactive = Inactive, wired = memory the kernel cannot reclaim or
// swap: Unevictable + SUnreclaim + KernelStack + PageTables.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "sampling/sample_records.h"
#include "support/sys_root.h"

namespace pelmora {

struct MemoryCollector {
  // Every "Key: value [kB]" line; values as printed (kB for sizes, plain counts for HugePages_*).
  static std::map<std::string, uint64_t> parseMeminfo(std::string_view text);
  // None when MemFree, Active or Inactive is missing or the page size is not positive.
  static std::optional<memoryStats> fromMeminfo(std::string_view text, int64_t page_size_bytes);
  static std::optional<memoryStats> read(const SysRoot& root, int64_t page_size_bytes);
};

}  // namespace pelmora
