#pragma once
// Small helpers shared by the helper tests: sysfs values as the handlers leave them.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/temp_dir.h"
#include "support/text.h"

namespace pelmora::testing {

using test::TempDir;

inline std::string readTrimmed(const std::filesystem::path& path) { return std::string(trim(TempDir::readFile(path))); }

inline void writeText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

}  // namespace pelmora::testing
