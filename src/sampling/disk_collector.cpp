#include "sampling/disk_collector.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <tuple>

#include "support/logger.h"
#include "support/text.h"

namespace pelmora {
namespace {

constexpr uint64_t kSectorBytes = 512;
constexpr size_t kMinStatFields = 11;

bool isHexId(std::string_view text) {
  if (!startsWith(text, "0x") || text.size() == 2) return false;
  return std::all_of(text.begin() + 2, text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

// Totals over all disks: an overflow here means a counter we parsed is nonsense, which is a bug.
void addChecked(int64_t& total, int64_t value) {
  if (__builtin_add_overflow(total, value, &total)) {
    Log("Disk counter total overflowed.");
    std::abort();
  }
}

struct Candidate {
  std::pair<int, int> dev;
  std::string name;
  std::string label;
  ioStats stats;
};

std::optional<Candidate> readCandidate(const SysRoot& root, const std::string& name) {
  const std::string base = "block/" + name;
  if (!DiskCollector::isPhysicalName(name) || !root.existsSys(base + "/device")) return std::nullopt;
  if (root.readSysInt(base + "/hidden").value_or(0) == 1) return std::nullopt;
  auto dev_text = root.readSys(base + "/dev");
  auto stat_text = root.readSys(base + "/stat");
  if (!dev_text || !stat_text) return std::nullopt;
  auto dev = DiskCollector::parseDev(*dev_text);
  auto stats = DiskCollector::parseStat(*stat_text);
  if (!dev || !stats) return std::nullopt;
  const std::string label = DiskCollector::diskName(root.readSys(base + "/device/vendor").value_or(""),
                                                    root.readSys(base + "/device/model").value_or(""));
  return Candidate{*dev, name, label, *stats};
}

}  // namespace

std::optional<ioStats> DiskCollector::parseStat(std::string_view text) {
  const auto words = splitWhitespace(text);
  if (words.size() < kMinStatFields) return std::nullopt;
  std::vector<uint64_t> fields;
  for (size_t i = 0; i < 7; ++i) {
    auto value = parseUInt64(words[i]);
    if (!value) return std::nullopt;
    fields.push_back(*value);
  }
  constexpr uint64_t kMaxSectors = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) / kSectorBytes;
  constexpr uint64_t kMaxCount = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  if (fields[2] > kMaxSectors || fields[6] > kMaxSectors || fields[0] > kMaxCount || fields[4] > kMaxCount)
    return std::nullopt;
  ioStats stats;
  stats.count_read = static_cast<int64_t>(fields[0]);
  stats.bytes_read = static_cast<int64_t>(fields[2] * kSectorBytes);
  stats.count_write = static_cast<int64_t>(fields[4]);
  stats.bytes_write = static_cast<int64_t>(fields[6] * kSectorBytes);
  return stats;
}

std::optional<std::pair<int, int>> DiskCollector::parseDev(std::string_view text) {
  const auto parts = split(trim(text), ':');
  if (parts.size() != 2) return std::nullopt;
  auto major = parseInt64(parts[0]), minor = parseInt64(parts[1]);
  if (!major || !minor || *major < 0 || *minor < 0 || *major > std::numeric_limits<int>::max() ||
      *minor > std::numeric_limits<int>::max())
    return std::nullopt;
  return std::pair<int, int>{static_cast<int>(*major), static_cast<int>(*minor)};
}

bool DiskCollector::isPhysicalName(std::string_view name) {
  for (std::string_view prefix : {"loop", "ram", "zram", "dm-", "md", "nbd"})
    if (startsWith(name, prefix)) return false;
  return !name.empty();
}

std::string DiskCollector::diskName(std::string_view vendor, std::string_view model) {
  vendor = trim(vendor);
  model = trim(model);
  if (isHexId(vendor)) vendor = {};
  std::string name(vendor);
  if (!name.empty() && !model.empty()) name += ' ';
  name += model;
  return name;
}

DiskCollector::Result DiskCollector::read(const SysRoot& root) {
  std::vector<Candidate> found;
  for (const std::string& name : root.listSys("block"))
    if (auto candidate = readCandidate(root, name)) found.push_back(std::move(*candidate));
  std::stable_sort(found.begin(), found.end(), [](const Candidate& a, const Candidate& b) { return a.dev < b.dev; });
  Result result;
  for (size_t i = 0; i < found.size(); ++i) {
    const ioStats& s = found[i].stats;
    addChecked(result.total.bytes_read, s.bytes_read);
    addChecked(result.total.bytes_write, s.bytes_write);
    addChecked(result.total.count_read, s.count_read);
    addChecked(result.total.count_write, s.count_write);
    result.disks.push_back(diskstat{static_cast<int64_t>(i), found[i].name, found[i].label, s});
  }
  return result;
}

}  // namespace pelmora
