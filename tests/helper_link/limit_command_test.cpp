// `pelmora limit` as a user runs it, served in-process (no daemon): it holds a real busy child by
// stopping and continuing it, starts no helper process of its own (nothing shows a process table or
// network rates), and leaves the child running when it is told to end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "common/child.h"
#include "common/temp_dir.h"
#include "support/proc_task_reader.h"
#include "support/sys_root.h"
#include "support/text.h"

namespace pelmora {
namespace {

const std::string kTool = std::string(PELMORA_BINARY_DIR) + "/src/cli/pelmora";

// Every child of every thread of `pid`, from /proc/PID/task/TID/children.
std::vector<std::string> childrenOf(pid_t pid) {
  std::vector<std::string> out;
  const std::string task = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& tid : SysRoot::listDir(task)) {
    const auto text = SysRoot::readFile(task + "/" + tid + "/children").value_or("");
    for (auto w : splitWhitespace(text)) out.emplace_back(w);
  }
  return out;
}

using test::procState;

TEST(LimitCommand, HoldsABusyChildWithoutChildrenOfItsOwnAndReleasesIt) {
  test::TempDir state;
  const pid_t busy = ::fork();
  if (busy == 0) {
    volatile uint64_t n = 0;
    for (;;) n = n + 1;
  }
  int out[2];
  ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
  const pid_t tool = ::fork();
  if (tool == 0) {
    ::dup2(out[1], 1);
    ::setenv("PELMORA_HELPER_SOCKET", (state / "no-daemon.sock").c_str(), 1);
    ::setenv("XDG_STATE_HOME", state.path().c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", state.path().c_str(), 1);
    ::execl(kTool.c_str(), kTool.c_str(), "limit", std::to_string(busy).c_str(), "20", nullptr);
    ::_exit(126);
  }
  ::close(out[1]);
  // Three reports of the share: the limiter has been holding the child for a few seconds.
  std::string text;
  char buffer[1024];
  ssize_t n;
  size_t reports = 0;
  while (reports < 3 && (n = ::read(out[0], buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<size_t>(n));
    reports = 0;
    for (size_t at = 0; (at = text.find("% of one processor (target", at)) != std::string::npos; ++at) ++reports;
  }
  EXPECT_EQ(reports, 3u) << text;
  EXPECT_EQ(childrenOf(tool), std::vector<std::string>{}) << "pelmora limit started a child";
  // Held: the child's processor time over the run is well below a whole processor.
  clockid_t clock;
  timespec used{};
  ASSERT_EQ(clock_getcpuclockid(busy, &clock), 0);
  ASSERT_EQ(clock_gettime(clock, &used), 0);
  EXPECT_LT(used.tv_sec, 2) << text;

  ::kill(tool, SIGTERM);
  int status = 0;
  ASSERT_EQ(::waitpid(tool, &status, 0), tool);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
  EXPECT_NE(procState(busy), 'T') << "left stopped";
  ::close(out[0]);
  ::kill(busy, SIGKILL);
  ::waitpid(busy, nullptr, 0);
}

}  // namespace
}  // namespace pelmora
