#include "support/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace pelmora {
namespace {

TEST(Logger, TheLogIsNotHandedToChildProcesses) {
  char dir[] = "/tmp/pelmora-log-XXXXXX";
  ASSERT_TRUE(::mkdtemp(dir));
  const std::filesystem::path log = std::filesystem::path(dir) / "pelmora.log";
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
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace pelmora
