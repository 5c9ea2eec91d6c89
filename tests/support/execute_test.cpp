// Child processes: chunked output, ending them, and what they inherit from us.
#include "support/execute.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "common/child.h"
#include "common/eventually.h"
#include "common/temp_dir.h"
#include "support/logger.h"

namespace pelmora {
namespace {

using test::eventually;
using test::procState;

struct Collected {
  std::mutex mutex;
  std::string text;
  int chunks = 0;
  Execute::Reader reader() {
    return [this](std::string_view chunk) {
      std::lock_guard lock(mutex);
      EXPECT_FALSE(chunk.empty());
      text += chunk;
      ++chunks;
    };
  }
  std::string get() {
    std::lock_guard lock(mutex);
    return text;
  }
};

TEST(Execute, OutputArrivesInOrderWithArgumentsAndEnvironment) {
  Collected out;
  auto child = Execute::readPipe("/bin/sh", QoS::utility,
                                 {"-c", "echo \"$1 $PELMORA_TEST_VALUE\"; sleep 0.1; echo second", "sh", "first"},
                                 {{"PELMORA_TEST_VALUE", "from-env"}}, out.reader());
  ASSERT_TRUE(child);
  EXPECT_GT(child->pid(), 0);
  ASSERT_TRUE(eventually([&] { return child->finished(); }));
  EXPECT_EQ(out.get(), "first from-env\nsecond\n");
  child->terminate();
  child->terminate();  // twice is harmless
}

TEST(Execute, TerminateEndsAChildThatWouldRunForeverEvenIfItsChildHoldsThePipe) {
  const test::TempDir dir("pelmora-exec");
  const std::string pid_file = dir / "grandchild";
  for (const char* script : {
           "echo ready; exec sleep 1000",
           "trap '' TERM; echo ready; while :; do sleep 1; done",  // ignores SIGTERM: killed after grace
           "sleep 1000 & echo $! > \"$0\"; echo ready; wait",      // a grandchild keeps the pipe open
           // The child ends at SIGTERM, its child ignores it: only the group's last SIGKILL ends that.
           "(trap '' TERM; while :; do sleep 1; done) & echo $! > \"$0\"; echo ready; wait",
       }) {
    SCOPED_TRACE(script);
    Collected out;
    auto child = Execute::readPipe("/bin/sh", QoS::defaultQoS, {"-c", script, pid_file}, {}, out.reader());
    ASSERT_TRUE(child);
    const pid_t pid = child->pid();
    ASSERT_TRUE(eventually([&] { return out.get() == "ready\n"; }));
    child->terminate();
    EXPECT_NE(::kill(pid, 0), 0);  // reaped: the pid no longer names our child
    // The grandchild went with its group.
    std::ifstream in(pid_file);
    if (pid_t grandchild = 0; in >> grandchild) {
      EXPECT_TRUE(eventually([&] { return ::kill(grandchild, 0) != 0 || procState(grandchild) == 'Z'; }));
      const char state = procState(grandchild);
      if (state != '?' && state != 'Z') ::kill(grandchild, SIGKILL);  // a failure leaves nothing running
    }
  }
}

TEST(Execute, AMissingProgramGivesNothing) {
  EXPECT_EQ(Execute::readPipe("/nonexistent/tool", QoS::utility, {}, {}, nullptr), nullptr);
}

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
