#pragma once
// Scales a value to a unit prefix: base 1000 gives k, M, G, T; base 1024 gives Ki, Mi, Gi, Ti. A value
// exactly equal to the base already takes the prefix. Pure; the number itself is written by a
// callback so the desktop can use the user's locale.
#include <functional>
#include <string>
#include <string_view>

namespace pelmora {

struct ScaledValue {
  double value = 0.0;
  std::string prefix;  // "", "k", "Ki", ... "T", "Ti"
  bool operator==(const ScaledValue&) const = default;
};

ScaledValue scaleValue(double value, int base);

// Writes a number with a fixed count of decimals.
using NumberWriter = std::function<std::string(double value, int decimals)>;
// "%.*f" in the C locale.
std::string writeNumberC(double value, int decimals);

// "12.3 MiB/s": the scaled number, a blank, the prefix joined to the unit ("B", "B/s", "bit/s").
// Below the first prefix the count is whole units ("512 B"), so no decimals are written.
std::string formatValue(double value, int base, int decimals, std::string_view unit,
                        const NumberWriter& write = writeNumberC);

}  // namespace pelmora
