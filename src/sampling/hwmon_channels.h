#pragma once
// hwmon names each channel of a chip "<type><N>_<item>" (fan2_input, temp3_crit), N from 1 up.
#include <string>
#include <string_view>
#include <vector>

namespace pelmora {

struct HwmonChannels {
  // The N of every "<type>N_input" among a hwmon directory's file names, ascending numerically.
  static std::vector<int> numbers(const std::vector<std::string>& file_names, std::string_view type);
};

}  // namespace pelmora
