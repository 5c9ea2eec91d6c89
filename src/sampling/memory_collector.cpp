#include "sampling/memory_collector.h"

#include "support/text.h"

namespace pelmora {

std::map<std::string, uint64_t> MemoryCollector::parseMeminfo(std::string_view text) {
  std::map<std::string, uint64_t> values;
  for (std::string_view line : split(text, '\n', false)) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const auto words = splitWhitespace(line.substr(colon + 1));
    if (words.empty()) continue;
    if (auto value = parseUInt64(words[0])) values[std::string(trim(line.substr(0, colon)))] = *value;
  }
  return values;
}

std::optional<memoryStats> MemoryCollector::fromMeminfo(std::string_view text, int64_t page_size_bytes) {
  if (page_size_bytes <= 0) return std::nullopt;
  const auto values = parseMeminfo(text);
  auto pages = [&](const char* key) -> std::optional<int64_t> {
    auto it = values.find(key);
    if (it == values.end()) return std::nullopt;
    return static_cast<int64_t>(it->second * 1024 / static_cast<uint64_t>(page_size_bytes));
  };
  auto free = pages("MemFree"), active = pages("Active"), inactive = pages("Inactive");
  if (!free || !active || !inactive) return std::nullopt;
  int64_t wired = 0;
  for (const char* key : {"Unevictable", "SUnreclaim", "KernelStack", "PageTables"}) wired += pages(key).value_or(0);
  return memoryStats{*free, *active, *inactive, wired};
}

std::optional<memoryStats> MemoryCollector::read(const SysRoot& root, int64_t page_size_bytes) {
  auto text = root.readProc("meminfo");
  if (!text) return std::nullopt;
  return fromMeminfo(*text, page_size_bytes);
}

}  // namespace pelmora
