#include "support/text.h"

#include <cctype>
#include <charconv>

namespace pelmora {

std::string_view trim(std::string_view text) {
  const auto is_space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

std::vector<std::string_view> split(std::string_view text, char separator, bool keep_empty) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (true) {
    const size_t end = text.find(separator, start);
    const std::string_view piece = text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (keep_empty || !piece.empty()) parts.push_back(piece);
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  return parts;
}

std::vector<std::string_view> splitWhitespace(std::string_view text) {
  std::vector<std::string_view> parts;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    const size_t start = i;
    while (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i > start) parts.push_back(text.substr(start, i - start));
  }
  return parts;
}

namespace {

// The whole text as one number of type Number (from_chars: no blanks, no base prefix); a leading '+'
// only where `plus_allowed`.
template <typename Number>
std::optional<Number> parseWhole(std::string_view text, bool plus_allowed) {
  if (plus_allowed && !text.empty() && text.front() == '+') text.remove_prefix(1);
  Number value = 0;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<int64_t> parseInt64(std::string_view text) { return parseWhole<int64_t>(text, true); }

std::optional<uint64_t> parseUInt64(std::string_view text) { return parseWhole<uint64_t>(text, false); }

std::optional<double> parseDouble(std::string_view text) { return parseWhole<double>(text, true); }

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::string toLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string toUpper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

std::optional<std::vector<int>> parseCpuList(std::string_view text) {
  std::vector<int> cpus;
  text = trim(text);
  if (text.empty()) return cpus;
  for (std::string_view piece : split(text, ',')) {
    const auto range = split(piece, '-');
    if (range.size() == 1) {
      auto n = parseInt64(range[0]);
      if (!n || *n < 0 || *n > 65535) return std::nullopt;
      cpus.push_back(static_cast<int>(*n));
    } else if (range.size() == 2) {
      auto a = parseInt64(range[0]), b = parseInt64(range[1]);
      if (!a || !b || *a < 0 || *b < *a || *b > 65535) return std::nullopt;
      for (int64_t i = *a; i <= *b; ++i) cpus.push_back(static_cast<int>(i));
    } else {
      return std::nullopt;
    }
  }
  return cpus;
}

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Compares the runs of digits at the front of a and b by value (without converting: a run may be
// longer than any integer), and consumes them.
int compareNumberRuns(std::string_view& a, std::string_view& b) {
  auto take = [](std::string_view& s) {
    size_t n = 0;
    while (n < s.size() && isDigit(s[n])) ++n;
    std::string_view run = s.substr(0, n);
    s.remove_prefix(n);
    while (run.size() > 1 && run.front() == '0') run.remove_prefix(1);
    return run;
  };
  const std::string_view x = take(a), y = take(b);
  if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
  return x.compare(y);
}

}  // namespace

bool naturalLess(std::string_view a, std::string_view b) {
  const std::string_view whole_a = a, whole_b = b;
  while (!a.empty() && !b.empty()) {
    if (isDigit(a.front()) && isDigit(b.front())) {
      if (const int order = compareNumberRuns(a, b)) return order < 0;
      continue;
    }
    if (a.front() != b.front()) return static_cast<unsigned char>(a.front()) < static_cast<unsigned char>(b.front());
    a.remove_prefix(1);
    b.remove_prefix(1);
  }
  if (a.empty() != b.empty()) return a.empty();
  return whole_a < whole_b;
}

}  // namespace pelmora
