// Socket owners from a /proc tree of links, as the kernel shows descriptors.
#include "nettop/socket_owners.h"
#include "common/temp_dir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace pelmora {
namespace {

TEST(SocketOwners, LinkTextsAndLabels) {
  EXPECT_EQ(socketInode("socket:[12345]"), 12345u);
  for (const char* other : {"pipe:[12345]", "socket:[]", "socket:[12x]", "/dev/null", "socket:[1", "anon_inode:[eventfd]"})
    EXPECT_EQ(socketInode(other), std::nullopt) << other;
  EXPECT_EQ(labelName("Web Content"), "Web Content");
  EXPECT_EQ(labelName("a,b\nc\r"), "a_b_c_");
  EXPECT_EQ(labelName(""), "?");
  EXPECT_EQ(searchOrder({1, 5, 9, 300, 42}, {300, 5, 7}), (std::vector<int32_t>{5, 300, 42, 9, 1}));
}

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
