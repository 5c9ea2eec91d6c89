// `pelmora limit` as a user runs it, served in-process (no daemon): it holds a real busy child by
// stopping and continuing it, starts no helper process of its own (nothing shows a process table or
// network rates), and leaves the child running when it is told to end.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "common/child.h"
#include "common/temp_dir.h"
#include "helper_link/tool_rig.h"

namespace pelmora {
namespace {

TEST(LimitCommand, HoldsABusyChildWithoutChildrenOfItsOwnAndReleasesIt) {
  test::TempDir state;
  const test::Child busy = test::Child::busy();
  int out = -1;
  const pid_t tool = test::spawnTool({test::kTool, "limit", std::to_string(busy.pid()), "20"},
                                     {"PELMORA_HELPER_SOCKET=" + (state / "no-daemon.sock").string(),
                                      "XDG_STATE_HOME=" + state.path().string(),
                                      "XDG_CONFIG_HOME=" + state.path().string()},
                                     &out);
  // Three reports of the share: the limiter has been holding the child for a few seconds.
  std::string text;
  char buffer[1024];
  ssize_t n;
  size_t reports = 0;
  while (reports < 3 && (n = ::read(out, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<size_t>(n));
    reports = 0;
    for (size_t at = 0; (at = text.find("% of one processor (target", at)) != std::string::npos; ++at) ++reports;
  }
  EXPECT_EQ(reports, 3u) << text;
  EXPECT_EQ(test::childrenOf(tool), std::vector<pid_t>{}) << "pelmora limit started a child";
  // Held: the child's processor time over the run is well below a whole processor.
  clockid_t clock;
  timespec used{};
  ASSERT_EQ(clock_getcpuclockid(busy.pid(), &clock), 0);
  ASSERT_EQ(clock_gettime(clock, &used), 0);
  EXPECT_LT(used.tv_sec, 2) << text;

  ::kill(tool, SIGTERM);
  int status = 0;
  ASSERT_EQ(::waitpid(tool, &status, 0), tool);
  ::close(out);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
  EXPECT_NE(test::procState(busy.pid()), 'T') << "left stopped";
}

}  // namespace
}  // namespace pelmora
