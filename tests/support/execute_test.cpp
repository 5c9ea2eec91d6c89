// Child processes with chunked output, and the inhibitor rule of PowerAssertion.
#include "support/execute.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>

#include "common/child.h"
#include "common/eventually.h"
#include "support/power_assertion.h"

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
  struct Case {
    const char* script;
  };
  const Case cases[] = {
      {"echo ready; exec sleep 1000"},
      {"trap '' TERM; echo ready; while :; do sleep 1; done"},  // ignores SIGTERM: killed after grace
      {"sleep 1000 & echo $! > \"$0\"; echo ready; wait"},  // a grandchild keeps the pipe open
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    Collected out;
    char pid_file[] = "/tmp/pelmora-exec-XXXXXX";
    ::close(::mkstemp(pid_file));
    auto child = Execute::readPipe("/bin/sh", QoS::defaultQoS, {"-c", c.script, pid_file}, {}, out.reader());
    ASSERT_TRUE(child);
    const pid_t pid = child->pid();
    ASSERT_TRUE(eventually([&] { return out.get() == "ready\n"; }));
    child->terminate();
    EXPECT_NE(::kill(pid, 0), 0);  // reaped: the pid no longer names our child
    // The grandchild went with its group.
    std::ifstream in(pid_file);
    pid_t grandchild = 0;
    if (in >> grandchild) {
      EXPECT_TRUE(eventually([&] { return ::kill(grandchild, 0) != 0 || procState(grandchild) == 'Z'; }));
    }
    ::unlink(pid_file);
  }
}

TEST(Execute, AMissingProgramGivesNothing) {
  EXPECT_EQ(Execute::readPipe("/nonexistent/tool", QoS::utility, {}, {}, nullptr), nullptr);
}

TEST(PowerAssertion, OnlyBlockingSleepOrIdleInhibitorsKeepTheMachineAwake) {
  struct Case {
    const char* what;
    const char* mode;
    bool awake;
  };
  const Case cases[] = {
      {"sleep", "block", true},
      {"shutdown:sleep", "block", true},
      {"idle", "block", true},
      {"handle-lid-switch:idle:sleep", "block", true},
      {"sleep", "delay", false},
      {"shutdown", "block", false},
      {"sleepy", "block", false},
      {"", "block", false},
  };
  for (const auto& c : cases) EXPECT_EQ(PowerAssertion::keepsAwake(c.what, c.mode), c.awake) << c.what << c.mode;
  for (const auto& [pid, awake] : PowerAssertion::assertions()) {
    EXPECT_GT(pid, 0);
    EXPECT_TRUE(awake);
  }
}

}  // namespace
}  // namespace pelmora
