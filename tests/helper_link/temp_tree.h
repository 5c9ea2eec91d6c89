#pragma once
// A temporary directory tree for the tests (fixture sysfs, install roots), removed at the end.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/text.h"

namespace pelmora::test {

class TempTree {
 public:
  TempTree() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pelmora-client-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    m_path = pattern;
  }
  ~TempTree() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::filesystem::path& path() const { return m_path; }
  std::filesystem::path operator/(const std::string& relative) const { return m_path / relative; }

  // Writes a file, making its folders.
  std::filesystem::path write(const std::string& relative, const std::string& text) const {
    const auto file = m_path / relative;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
    return file;
  }
  std::string read(const std::string& relative) const { return readFile(m_path / relative); }
  static std::string readFile(const std::filesystem::path& file) {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

 private:
  std::filesystem::path m_path;
};

inline std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  for (auto w : splitWhitespace(text)) out.emplace_back(w);
  return out;
}

}  // namespace pelmora::test
