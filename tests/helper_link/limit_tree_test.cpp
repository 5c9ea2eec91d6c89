// `pelmora limit --tree` killed outright at a moment it holds every member of a tree stopped. With no
// daemon, the journal names every member and the next run of the tool continues them all; with the
// real daemon on a real socket, the daemon continues every member the connection stopped as soon as
// the connection closes. And its misuse: usage and a non-zero exit, no process touched.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
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

using test::eventually;
using test::kTool;

// A parent and `children` busy children; all die with the test.
struct BusyTree {
  pid_t root = -1;
  std::vector<pid_t> members;  // the root first

  explicit BusyTree(int children) {
    int ready[2];
    if (::pipe(ready) != 0) std::abort();
    root = test::forkChild([&] {
      for (int i = 0; i < children; ++i) {
        const pid_t child = test::busyChild();
        if (::write(ready[1], &child, sizeof child) != sizeof child) ::_exit(1);
      }
      for (;;) ::pause();
    });
    members.push_back(root);
    for (int i = 0; i < children; ++i) {
      pid_t child = -1;
      if (::read(ready[0], &child, sizeof child) != sizeof child) std::abort();
      members.push_back(child);
    }
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~BusyTree() { test::endChild(root); }  // its children die with it
  std::string states() const {
    std::string out;
    for (pid_t pid : members) out += test::procState(pid);
    return out;
  }
  bool allStopped() const { return states().find_first_not_of('T') == std::string::npos; }
  bool noneStopped() const { return states().find('T') == std::string::npos; }
};

using test::readUntil;

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
  const std::vector<std::string> env = {"PELMORA_HELPER_SOCKET=" + (state / "no-daemon.sock").string(),
                                        "PELMORA_STATE_DIR=" + state.path().string(),
                                        "XDG_STATE_HOME=" + state.path().string()};
  const std::string said = killWhileAllStopped(tree, env);
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
  test::runTool({"top"}, env);
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
  EXPECT_TRUE(eventually([&] { return tree.noneStopped(); })) << tree.states();
}

TEST(LimitTree, MisuseGivesUsageAndANonZeroExitAndTouchesNothing) {
  test::TempDir state;
  BusyTree tree(1);
  const std::string root = std::to_string(tree.root);
  const std::vector<std::vector<std::string>> cases = {
      {"--tree"},
      {"--tree", root},
      {"--tree", "abc", "50"},
      {"--tree", "1", "50"},
      {"--tree", root, "0"},
      {"--tree", root, "50", "7"},
      {"--trees", root, "50"},
  };
  for (auto args : cases) {
    args.insert(args.begin(), "limit");
    const auto run = test::runTool(args, {"PELMORA_HELPER_SOCKET=" + (state / "none.sock").string(),
                                          "XDG_STATE_HOME=" + state.path().string()});
    EXPECT_EQ(run.exit_code, 2) << run.output;
    EXPECT_NE(run.output.find("usage"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("--tree"), std::string::npos) << run.output;
    EXPECT_TRUE(tree.noneStopped());
  }
}

}  // namespace
}  // namespace pelmora
