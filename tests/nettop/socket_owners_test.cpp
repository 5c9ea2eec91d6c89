// Socket owners from a /proc tree of links, as the kernel shows descriptors.
#include "nettop/socket_owners.h"
#include "common/temp_dir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace pelmora {
namespace {

class ProcTree {
 public:
  // A process with descriptors linking to `targets`, an exe link (empty: none) and a comm file.
  void process(int pid, const std::string& exe, const std::string& comm, const std::vector<std::string>& targets) {
    const auto dir = m_root.path() / std::to_string(pid);
    std::filesystem::create_directories(dir / "fd");
    for (size_t i = 0; i < targets.size(); ++i) std::filesystem::create_symlink(targets[i], dir / "fd" / std::to_string(i));
    if (!exe.empty()) std::filesystem::create_symlink(exe, dir / "exe");
    std::ofstream(dir / "comm") << comm << "\n";
  }
  SysRoot root() const { return SysRoot(m_root.path().string(), "/nonexistent"); }

 private:
  test::TempDir m_root{"pelmora-nettop"};
};

TEST(SocketOwners, FindsHoldersLikelyFirstAndStopsAtWhatItWasAskedFor) {
  ProcTree tree;
  tree.process(100, "/usr/bin/curl", "curl", {"/dev/null", "socket:[11]", "socket:[12]"});
  tree.process(200, "/usr/lib/firefox/firefox (deleted)", "firefox", {"socket:[12]", "socket:[13]", "pipe:[5]"});
  tree.process(300, "", "kworker/0:1", {});
  tree.process(400, "", "Web, Content", {"socket:[14]"});
  // Link texts that only look like sockets (read as one past "socket:[", "pipe:[12345]" would be
  // 345); a name that is not fit for a label as it is.
  tree.process(500, "/usr/bin/a,b\nc\r", "x", {"pipe:[12345]", "socket:[16x]", "socket:[10", "socket:[17]"});
  tree.process(600, "", "", {"anon_inode:[18]", "socket:[19]"});
  std::filesystem::create_directories(tree.root().proc("self"));
  const SocketOwnerFinder finder(tree.root());
  struct Case {
    std::set<uint64_t> inodes;
    std::set<int32_t> likely;
    std::map<uint64_t, std::pair<int32_t, std::string>> expected;
  };
  const Case cases[] = {
      {{11, 13}, {}, {{11, {100, "curl"}}, {13, {200, "firefox"}}}},
      // Socket 12 is shared (a fork): the first process searched gets it, newest first by default.
      {{12}, {}, {{12, {200, "firefox"}}}},
      {{12}, {100}, {{12, {100, "curl"}}}},
      {{14, 99}, {}, {{14, {400, "Web_ Content"}}}},  // no exe link: comm, made fit for a label
      // Processes searched first in ascending order; a likely one that is not there is passed over.
      {{12}, {200, 100, 7}, {{12, {100, "curl"}}}},
      {{1, 16, 17, 18, 345, 12345}, {}, {{17, {500, "a_b_c_"}}}},
      {{19}, {}, {{19, {600, "?"}}}},
      {{}, {100}, {}},
  };
  for (const auto& c : cases) {
    std::map<uint64_t, std::pair<int32_t, std::string>> got;
    for (const auto& [inode, owner] : finder.find(c.inodes, c.likely)) got[inode] = {owner.pid, owner.name};
    EXPECT_EQ(got, c.expected);
  }
}

}  // namespace
}  // namespace pelmora
