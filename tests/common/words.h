#pragma once
// Whitespace-separated words, split here rather than by the text helpers under test.
#include <sstream>
#include <string>
#include <vector>

namespace pelmora::test {

inline std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

}  // namespace pelmora::test
