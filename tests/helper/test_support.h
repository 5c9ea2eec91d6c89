#pragma once
// Small helpers shared by the helper tests: temporary trees and fixture copies.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/text.h"

namespace pelmora::testing {

class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/pelmora-helper-test-XXXXXX";
    m_path = ::mkdtemp(name) ? name : "";
  }
  ~TempDir() {
    std::error_code ec;
    if (!m_path.empty()) std::filesystem::remove_all(m_path, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

// A writable copy of tests/fixtures/<name> inside dir.
inline std::filesystem::path copyFixture(const std::string& name, const TempDir& dir) {
  const std::filesystem::path target = dir.path() / name;
  std::filesystem::copy(std::filesystem::path(PELMORA_FIXTURES) / name, target,
                        std::filesystem::copy_options::recursive);
  return target;
}

inline std::string readTrimmed(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return std::string(trim(text.str()));
}

inline void writeText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

}  // namespace pelmora::testing
