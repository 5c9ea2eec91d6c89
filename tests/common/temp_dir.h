#pragma once
// A temporary folder for one test (fixture copies, settings files, sockets, install roots), made
// private by mkdtemp and removed with everything in it at the end.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace pelmora::test {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "pelmora-test") {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (!::mkdtemp(pattern.data())) std::abort();
    m_path = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

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
  // A writable copy of tests/fixtures/<name> inside this folder.
  std::filesystem::path copyFixture(const std::string& name) const {
    const auto target = m_path / name;
    std::filesystem::copy(std::filesystem::path(PELMORA_FIXTURES) / name, target,
                          std::filesystem::copy_options::recursive);
    return target;
  }

 private:
  std::filesystem::path m_path;
};

}  // namespace pelmora::test
