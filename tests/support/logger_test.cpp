#include "support/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "common/temp_dir.h"

namespace pelmora {
namespace {

TEST(Logger, TheLogIsNotHandedToChildProcesses) {
  const test::TempDir dir("pelmora-log");
  const std::filesystem::path log = dir / "pelmora.log";
  Logger::shared().setPath(log);
  Log("opened");
  // What a child started by us holds open, as the kernel lists it.
  std::string listing;
  if (FILE* child = ::popen("ls -l /proc/self/fd/", "r")) {
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, child)) > 0;) listing.append(buffer, n);
    ::pclose(child);
  }
  Logger::shared().close();
  EXPECT_NE(listing.find(" -> "), std::string::npos);  // the listing itself ran
  EXPECT_EQ(listing.find(log.string()), std::string::npos) << listing;
}

}  // namespace
}  // namespace pelmora
