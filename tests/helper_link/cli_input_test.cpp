// The real pelmora tool given bad numbers and a bad or missing TMPDIR, and killed mid-run: a clear
// refusal, no process touched, nothing written where it does not belong, nothing left behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "common/child.h"
#include "common/temp_dir.h"
#include "support/sys_root.h"
#include "support/text.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;

const std::string kTool = std::string(PELMORA_BINARY_DIR) + "/src/cli/pelmora";

struct ToolRun {
  int status = -1;
  std::string output;  // stdout and stderr
};

// Runs the tool through the shell in `cwd`, with no daemon and a private home for its log.
ToolRun run(const fs::path& cwd, const std::string& env_and_args) {
  const std::string command = "cd '" + cwd.string() + "' && PELMORA_HELPER_SOCKET=/nonexistent/helper.sock " +
                              "XDG_STATE_HOME='" + cwd.string() + "/.state' " + env_and_args + " 2>&1";
  ToolRun r;
  FILE* child = ::popen(command.c_str(), "r");
  if (!child) return r;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, child)) > 0;) r.output.append(buffer, n);
  const int status = ::pclose(child);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

using test::procState;

// Entries of a folder other than the tool's own log folder.
std::vector<std::string> leftovers(const fs::path& dir) {
  std::vector<std::string> out;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename() != ".state") out.push_back(entry.path().filename().string());
  }
  return out;
}

std::vector<pid_t> childrenOf(pid_t pid) {
  std::vector<pid_t> out;
  const std::string task = "/proc/" + std::to_string(pid) + "/task/";
  for (const std::string& tid : SysRoot::listDir(task)) {
    const std::string children = SysRoot::readFile(task + tid + "/children").value_or("");  // outlives the views
    for (std::string_view child : split(children, ' ', false)) {
      if (auto id = parseInt64(child)) out.push_back(static_cast<pid_t>(*id));
    }
  }
  return out;
}

TEST(CliInput, AShareThatIsNotAFiniteNumberInRangeIsRefusedWithUsage) {
  test::TempDir cwd;
  const pid_t target = ::fork();
  if (target == 0) {
    for (;;) ::pause();
  }
  const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
  for (const std::string& share : std::vector<std::string>{"nan", "NaN", "-nan", "inf", "-inf", "1e999", "-5", "0",
                                                         "abc", "", std::to_string(100 * cpus + 1)}) {
    SCOPED_TRACE("share '" + share + "'");
    const ToolRun r = run(cwd.path(), "timeout 20 " + kTool + " limit " + std::to_string(target) + " '" + share + "'");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.output.find("usage"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("holding"), std::string::npos) << r.output;
    EXPECT_EQ(procState(target), 'S');
  }
  ::kill(target, SIGKILL);
  ::waitpid(target, nullptr, 0);
}

TEST(CliInput, SampleRunsWhateverTmpdirIsAndWritesNothingHere) {
  test::TempDir cwd;
  for (const std::string tmpdir : {"/nonexistent", "/proc", "/dev/null", ""}) {
    SCOPED_TRACE("TMPDIR='" + tmpdir + "'");
    const ToolRun r = run(cwd.path(), "TMPDIR='" + tmpdir + "' timeout 60 " + kTool + " sample --count 1");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(leftovers(cwd.path()), std::vector<std::string>{});
  }
}

TEST(CliInput, AKilledLimitLeavesNoTemporaryFolder) {
  test::TempDir tmp;
  const pid_t target = ::fork();
  if (target == 0) {
    for (;;) ::pause();
  }
  int out[2];
  ASSERT_EQ(::pipe(out), 0);
  const pid_t tool = ::fork();
  if (tool == 0) {
    ::dup2(out[1], 1);
    // Nothing of ours for its children to hold: the test's own output stays ctest's alone.
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(null, 2);
    ::setenv("TMPDIR", tmp.path().c_str(), 1);
    ::setenv("PELMORA_HELPER_SOCKET", "/nonexistent/helper.sock", 1);
    ::setenv("XDG_STATE_HOME", (tmp.path() / ".state").c_str(), 1);
    ::execl(kTool.c_str(), "pelmora", "limit", std::to_string(target).c_str(), "50", nullptr);
    ::_exit(127);
  }
  ::close(out[1]);
  // Killed outright once it holds the process: no handler of its own can run.
  std::string said;
  char c;
  while (said.find('\n') == std::string::npos && ::read(out[0], &c, 1) == 1) said += c;
  const std::vector<pid_t> its_children = childrenOf(tool);
  ::kill(tool, SIGKILL);
  ::waitpid(tool, nullptr, 0);
  // Its network reader may outlive it for a while; whether it ends by itself is that tool's test.
  for (pid_t child : its_children) ::kill(child, SIGKILL);
  ::close(out[0]);
  EXPECT_NE(said.find("holding"), std::string::npos) << said;
  EXPECT_EQ(leftovers(tmp.path()), std::vector<std::string>{});
  ::kill(target, SIGKILL);
  ::waitpid(target, nullptr, 0);
}

}  // namespace
}  // namespace pelmora
