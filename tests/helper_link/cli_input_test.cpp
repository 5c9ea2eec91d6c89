// The real pelmora tool given bad numbers and a bad or missing TMPDIR, and killed mid-run: a clear
// refusal, no process touched, nothing written where it does not belong, nothing left behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "common/child.h"
#include "common/temp_dir.h"
#include "helper_link/tool_rig.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;

using test::kTool;

using test::ToolRun;

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
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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

TEST(CliInput, AShareThatIsNotAFiniteNumberInRangeIsRefusedWithUsage) {
  test::TempDir cwd;
  const auto target = test::sleepingChild();
  const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
  for (const std::string& share : std::vector<std::string>{"nan", "NaN", "-nan", "inf", "-inf", "1e999", "-5", "0",
                                                         "abc", "", std::to_string(100 * cpus + 1)}) {
    SCOPED_TRACE("share '" + share + "'");
    const ToolRun r = run(cwd.path(),
                          "timeout 20 " + kTool + " limit " + std::to_string(target.pid()) + " '" + share + "'");
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_NE(r.output.find("usage"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("holding"), std::string::npos) << r.output;
    EXPECT_EQ(procState(target.pid()), 'S');
  }
}

TEST(CliInput, SampleRunsWhateverTmpdirIsAndWritesNothingHere) {
  test::TempDir cwd;
  for (const std::string tmpdir : {"/nonexistent", "/proc", "/dev/null", ""}) {
    SCOPED_TRACE("TMPDIR='" + tmpdir + "'");
    const ToolRun r = run(cwd.path(), "TMPDIR='" + tmpdir + "' timeout 60 " + kTool + " sample --count 1");
    EXPECT_EQ(r.exit_code, 0) << r.output;
    EXPECT_EQ(leftovers(cwd.path()), std::vector<std::string>{});
  }
}

TEST(CliInput, AKilledLimitLeavesNoTemporaryFolder) {
  test::TempDir tmp;
  const auto target = test::sleepingChild();
  int out = -1;
  const pid_t tool = test::spawnTool({kTool, "limit", std::to_string(target.pid()), "50"},
                                     {"TMPDIR=" + tmp.path().string(), "PELMORA_HELPER_SOCKET=/nonexistent/helper.sock",
                                      "XDG_STATE_HOME=" + (tmp / ".state").string()},
                                     &out);
  // Killed outright once it holds the process: no handler of its own can run.
  const std::string said = test::readUntil(out, "\n");
  const std::vector<pid_t> its_children = test::childrenOf(tool);
  ::kill(tool, SIGKILL);
  ::waitpid(tool, nullptr, 0);
  // Its network reader may outlive it for a while; whether it ends by itself is that tool's test.
  for (pid_t child : its_children) ::kill(child, SIGKILL);
  ::close(out);
  EXPECT_NE(said.find("holding"), std::string::npos) << said;
  EXPECT_EQ(leftovers(tmp.path()), std::vector<std::string>{});
}

}  // namespace
}  // namespace pelmora
