#pragma once
// Files read whole, and the numbers of "Key: value" files (/proc/PID/status, /proc/meminfo), read here
// rather than by the parsers under test.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace pelmora::test {

inline std::string readText(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The number after "key:" (in the file's own unit: kB for memory); -1 without such a line.
inline int64_t keyedNumber(const std::filesystem::path& path, const std::string& key) {
  std::istringstream in(readText(path));
  for (std::string line; std::getline(in, line);)
    if (line.rfind(key + ":", 0) == 0) return std::stoll(line.substr(key.size() + 1));
  return -1;
}

}  // namespace pelmora::test
