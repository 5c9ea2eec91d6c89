#include "sampling/hwmon_channels.h"

#include <algorithm>

#include "support/text.h"

namespace pelmora {

std::vector<int> HwmonChannels::numbers(const std::vector<std::string>& file_names, std::string_view type) {
  std::vector<int> numbers;
  constexpr std::string_view kSuffix = "_input";
  for (const std::string& name : file_names) {
    if (!startsWith(name, type) || name.size() <= type.size() + kSuffix.size()) continue;
    if (name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) continue;
    auto n = parseInt64(std::string_view(name).substr(type.size(), name.size() - type.size() - kSuffix.size()));
    if (n && *n >= 0 && *n < 1000) numbers.push_back(static_cast<int>(*n));
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace pelmora
