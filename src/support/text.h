#pragma once
// Small text helpers shared by the parsers. Pure functions; no locale is consulted.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora {

std::string_view trim(std::string_view text);
// Splits at a separator; keep_empty decides whether empty pieces stay.
std::vector<std::string_view> split(std::string_view text, char separator, bool keep_empty = true);
// Splits at runs of white space, dropping empty pieces.
std::vector<std::string_view> splitWhitespace(std::string_view text);
// The whole text must be a decimal integer (optional sign); none otherwise or on overflow.
std::optional<int64_t> parseInt64(std::string_view text);
std::optional<uint64_t> parseUInt64(std::string_view text);
// The whole text must be a decimal floating-point number in the C locale.
std::optional<double> parseDouble(std::string_view text);
bool startsWith(std::string_view text, std::string_view prefix);
std::string toLower(std::string_view text);
std::string toUpper(std::string_view text);
// Orders names as a person would: runs of digits by their value, so "card2" comes before "card10"
// and "hwmon9" before "hwmon10". Names equal by that rule fall back to byte order.
bool naturalLess(std::string_view a, std::string_view b);
// "0-3,8,10-11" (a kernel CPU list) to the numbers it names; none when malformed.
std::optional<std::vector<int>> parseCpuList(std::string_view text);

}  // namespace pelmora
