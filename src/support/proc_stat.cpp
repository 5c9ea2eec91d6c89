#include "support/proc_stat.h"

#include <unistd.h>

#include <array>

#include "support/text.h"

namespace pelmora {
namespace {

// The four columns every kernel since 2.4 prints; later ones were appended over the years.
constexpr size_t kMinColumns = 4;
constexpr size_t kMaxColumns = 10;

std::optional<cpu_ticks> parseTicks(const std::vector<std::string_view>& words) {
  const size_t columns = words.size() - 1;
  if (columns < kMinColumns) return std::nullopt;
  std::array<uint64_t, kMaxColumns> values{};
  for (size_t i = 0; i < kMaxColumns && i < columns; ++i) {
    auto value = parseUInt64(words[i + 1]);
    if (!value) return std::nullopt;
    values[i] = *value;
  }
  return cpu_ticks{values[0], values[1], values[2], values[3], values[4],
                   values[5], values[6], values[7], values[8], values[9]};
}

}  // namespace

cpu_buckets bucketTicks(const cpu_ticks& t) {
  return cpu_buckets{t.user + t.nice, t.system + t.irq + t.softirq, t.idle + t.iowait};
}

uint64_t nanosecondsPerTick() {
  constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;
  const long hz = sysconf(_SC_CLK_TCK);
  return hz > 0 ? kNanosecondsPerSecond / static_cast<uint64_t>(hz) : 0;
}

std::optional<ProcStat> ProcStat::parse(std::string_view text) {
  ProcStat out;
  bool any_cpu_line = false;
  for (std::string_view line : split(text, '\n', false)) {
    const auto words = splitWhitespace(line);
    if (words.empty()) continue;
    const std::string_view key = words[0];
    if (key == "btime" && words.size() == 2) {
      out.btime = parseUInt64(words[1]);
      continue;
    }
    if (!startsWith(key, "cpu")) continue;
    auto ticks = parseTicks(words);
    if (!ticks) return std::nullopt;
    any_cpu_line = true;
    if (key.size() == 3) {
      out.total = *ticks;
      continue;
    }
    auto number = parseInt64(key.substr(3));
    if (!number || *number < 0 || *number > 65535) return std::nullopt;
    out.cpus[static_cast<int>(*number)] = *ticks;
  }
  if (!any_cpu_line) return std::nullopt;
  return out;
}

}  // namespace pelmora
