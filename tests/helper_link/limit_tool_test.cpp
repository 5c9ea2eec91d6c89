// `pelmora limit` as a user runs it, served in-process (no daemon) unless a test starts one: it holds
// a real busy child with no helper process of its own and leaves it running when told to end. Killed
// outright while it holds every member of a tree stopped, the journal names every member and the next
// run of the tool continues them all; with the real daemon on a real socket, the daemon continues
// them as soon as the connection closes. Misuse and a bad TMPDIR: a clear refusal, no process
// touched, nothing written where it does not belong, nothing left behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "common/child.h"
#include "common/eventually.h"
#include "common/temp_dir.h"
#include "helper_link/tool_rig.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;

using test::kTool;
using test::readUntil;

// No daemon; the tool's journal, settings and log in `dir`/.state.
std::vector<std::string> noDaemon(const test::TempDir& dir) {
  const std::string state = (dir / ".state").string();
  return {"PELMORA_HELPER_SOCKET=" + (dir / "no-daemon.sock").string(), "PELMORA_STATE_DIR=" + state,
          "XDG_STATE_HOME=" + state, "XDG_CONFIG_HOME=" + state};
}

// A parent and `children` busy children; all die with the test.
struct BusyTree {
  test::Child parent;
  pid_t root = parent.pid();
  std::vector<pid_t> members{root};  // the root first

  explicit BusyTree(size_t children)
      : parent([children] {
          for (size_t i = 0; i < children; ++i) test::busyChild();
          for (;;) ::pause();
        }) {
    if (!test::eventually([&] { return test::childrenOf(root).size() == children; })) std::abort();
    for (pid_t child : test::childrenOf(root)) members.push_back(child);
  }
  std::string states() const {
    std::string out;
    for (pid_t pid : members) out += test::procState(pid);
    return out;
  }
  bool allStopped() const { return states().find_first_not_of('T') == std::string::npos; }
  bool noneStopped() const { return states().find('T') == std::string::npos; }
};

// Entries of a folder other than the tool's own state.
std::vector<std::string> leftovers(const fs::path& dir) {
  std::vector<std::string> out;
  for (const auto& entry : fs::directory_iterator(dir))
    if (entry.path().filename() != ".state") out.push_back(entry.path().filename().string());
  return out;
}

TEST(LimitTool, HoldsABusyChildWithoutChildrenOfItsOwnAndReleasesIt) {
  test::TempDir state;
  const test::Child busy = test::Child::busy();
  int out = -1;
  const pid_t tool = test::spawnTool({kTool, "limit", std::to_string(busy.pid()), "20"}, noDaemon(state), &out);
  // Three reports of the share: the limiter has been holding the child for a few seconds.
  std::string text;
  size_t reports = 0;
  for (std::string more; reports < 3 && !(more = readUntil(out, "\n")).empty();) {
    text += more;
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

// Runs `pelmora limit --tree` on the tree and kills it outright at a moment every member is stopped:
// the tool is frozen first, so that no stop or continue is under way when the members are looked at.
std::string killWhileAllStopped(const BusyTree& tree, const std::vector<std::string>& env) {
  int out = -1;
  const pid_t tool = test::spawnTool({kTool, "limit", "--tree", std::to_string(tree.root), "10"}, env, &out);
  std::string said = readUntil(out, "of one processor (target");
  bool caught = false;
  for (int attempt = 0; attempt < 2000 && !caught; ++attempt) {
    ::kill(tool, SIGSTOP);
    ::waitpid(tool, nullptr, WUNTRACED);
    caught = tree.allStopped();
    if (!caught) {
      ::kill(tool, SIGCONT);
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
  }
  ::kill(tool, SIGKILL);
  ::waitpid(tool, nullptr, 0);
  ::close(out);
  return caught ? said : "never caught with every member stopped: " + said;
}

TEST(LimitTree, WithoutADaemonTheJournalNamesEveryMemberAndTheNextRunContinuesThemAll) {
  test::TempDir state;
  BusyTree tree(3);
  const std::string said = killWhileAllStopped(tree, noDaemon(state));
  ASSERT_TRUE(said.find("with all its descendants") != std::string::npos) << said;
  // Nobody continued them: the tool died with them stopped.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(tree.allStopped()) << tree.states();
  std::string journal;
  for (const auto& entry : fs::recursive_directory_iterator(state.path()))
    if (entry.path().extension() == ".json") journal += test::TempDir::readFile(entry.path());
  for (pid_t pid : tree.members)
    EXPECT_NE(journal.find("\"pid\":" + std::to_string(pid)), std::string::npos) << journal;
  // Any later run of the tool continues what the dead one left stopped.
  test::runTool({"top"}, noDaemon(state));
  EXPECT_TRUE(tree.noneStopped()) << tree.states();
}

TEST(LimitTree, TheDaemonContinuesEveryMemberWhenTheToolDies) {
  if (::geteuid() != 0) GTEST_SKIP() << "the daemon runs as root";
  test::TempDir state;
  const std::string socket = (state / "helper.sock").string();
  const test::DaemonProcess daemon(socket, {"PELMORA_STATE_DIR=" + (state / "daemon").string()});
  ASSERT_TRUE(daemon.ready());
  BusyTree tree(3);
  // The tool's own journal is elsewhere and never read again here: only the daemon can continue them.
  const std::string said = killWhileAllStopped(tree, {"PELMORA_HELPER_SOCKET=" + socket,
                                                      "PELMORA_STATE_DIR=" + (state / "tool").string(),
                                                      "XDG_STATE_HOME=" + (state / "tool").string()});
  ASSERT_TRUE(said.find("with all its descendants") != std::string::npos) << said;
  EXPECT_TRUE(test::eventually([&] { return tree.noneStopped(); })) << tree.states();
}

// A share that is not a finite number in range, a missing or extra argument, a pid that is not one
// (or is init): usage and exit 2 before anything is held.
TEST(LimitTool, MisuseGivesUsageAndANonZeroExitAndTouchesNothing) {
  test::TempDir state;
  BusyTree tree(1);
  const std::string root = std::to_string(tree.root);
  std::vector<std::vector<std::string>> cases = {
      {"--tree"},
      {"--tree", root},
      {"--tree", "abc", "50"},
      {"--tree", "1", "50"},
      {"--tree", root, "0"},
      {"--tree", root, "50", "7"},
      {"--trees", root, "50"},
  };
  for (const std::string share : {"nan", "NaN", "-nan", "inf", "-inf", "1e999", "-5", "0", "abc", ""})
    cases.push_back({root, share});
  cases.push_back({root, std::to_string(100 * ::sysconf(_SC_NPROCESSORS_ONLN) + 1)});
  for (auto args : cases) {
    args.insert(args.begin(), "limit");
    const auto run = test::runTool(args, noDaemon(state));
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_NE(run.output.find("usage"), std::string::npos);
    EXPECT_NE(run.output.find("--tree"), std::string::npos);
    EXPECT_EQ(run.output.find("holding"), std::string::npos);
    EXPECT_TRUE(tree.noneStopped());
  }
}

TEST(LimitTool, SampleRunsWhateverTmpdirIsAndWritesNothingHere) {
  test::TempDir cwd;
  const fs::path before = fs::current_path();
  fs::current_path(cwd.path());  // the tool's working folder
  for (const std::string tmpdir : {"/nonexistent", "/proc", "/dev/null", ""}) {
    SCOPED_TRACE("TMPDIR='" + tmpdir + "'");
    auto env = noDaemon(cwd);
    env.push_back("TMPDIR=" + tmpdir);
    const auto run = test::runTool({"sample", "--count", "1"}, env);
    EXPECT_EQ(run.exit_code, 0) << run.output;
  }
  fs::current_path(before);
  EXPECT_EQ(leftovers(cwd.path()), std::vector<std::string>{});
}

TEST(LimitTool, AKilledLimitLeavesNoTemporaryFolder) {
  test::TempDir tmp;
  const auto target = test::sleepingChild();
  auto env = noDaemon(tmp);
  env.push_back("TMPDIR=" + tmp.path().string());
  int out = -1;
  const pid_t tool = test::spawnTool({kTool, "limit", std::to_string(target.pid()), "50"}, env, &out);
  // Killed outright once it holds the process: no handler of its own can run.
  const std::string said = readUntil(out, "\n");
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
