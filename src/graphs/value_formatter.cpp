#include "graphs/value_formatter.h"

#include <charconv>
#include <system_error>

namespace pelmora {

ScaledValue scaleValue(double value, int base) {
  static const char* const kDecimal[] = {"k", "M", "G", "T"};
  static const char* const kBinary[] = {"Ki", "Mi", "Gi", "Ti"};
  const double b = static_cast<double>(base);
  if (value < b) return {value, ""};
  double divisor = b;
  int step = 0;
  while (step < 3 && value >= divisor * b) {
    divisor *= b;
    ++step;
  }
  return {value / divisor, base == 1024 ? kBinary[step] : kDecimal[step]};
}

std::string writeNumberC(double value, int decimals) {
  // to_chars never consults the locale (the desktop sets one for the whole process).
  char buffer[400];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
  if (result.ec != std::errc()) return "?";
  return std::string(buffer, result.ptr);
}

std::string formatValue(double value, int base, int decimals, std::string_view unit, const NumberWriter& write) {
  const ScaledValue scaled = scaleValue(value, base);
  std::string out = write(scaled.value, scaled.prefix.empty() ? 0 : decimals);
  out += ' ';
  out += scaled.prefix;
  out += unit;
  return out;
}

}  // namespace pelmora
