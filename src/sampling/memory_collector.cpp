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
  auto kilobytes = [&](const char* key) -> std::optional<uint64_t> {
    auto it = values.find(key);
    if (it == values.end()) return std::nullopt;
    return it->second;
  };
  auto pages = [&](uint64_t kb) { return static_cast<int64_t>(kb * 1024 / static_cast<uint64_t>(page_size_bytes)); };
  auto free = kilobytes("MemFree"), active = kilobytes("Active"), inactive = kilobytes("Inactive");
  if (!free || !active || !inactive) return std::nullopt;
  uint64_t wired_kb = 0;
  for (const char* key : {"Unevictable", "SUnreclaim", "KernelStack", "PageTables"}) wired_kb += kilobytes(key).value_or(0);
  return memoryStats{pages(*free), pages(*active), pages(*inactive), pages(wired_kb)};
}

std::optional<memoryStats> MemoryCollector::read(const SysRoot& root, int64_t page_size_bytes) {
  auto text = root.readProc("meminfo");
  if (!text) return std::nullopt;
  return fromMeminfo(*text, page_size_bytes);
}

}  // namespace pelmora
