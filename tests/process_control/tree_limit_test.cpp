// Limits that hold a process with all its descendants: the membership and the group's arithmetic as
// pure functions, then the whole tree inside CPULimiter against a simulated helper and a fixture
// /proc whose stat files carry the parent links.
#include <gtest/gtest.h>

#include <unistd.h>
#include <csignal>

#include <algorithm>

#include "common/sim_limiter.h"
#include "process_control/cpu_limiter.h"
#include "process_control/limiter_math.h"
#include "process_control/proc_settings.h"
#include "process_control/process_tree.h"
#include "support/main_queue.h"

namespace pelmora {
namespace {

using nlohmann::json;

TEST(TreeMembers, FollowsParentLinksFromTheMembersThatAreStillThere) {
  // 1 -> 10 -> 11 -> 12, 10 -> 13, 1 -> 20 -> 21; 30 is orphaned (parent 1) but was a member.
  const ProcessLinks links = {{1, {0, 1}},   {10, {1, 5}}, {11, {10, 6}}, {12, {11, 7}},
                              {13, {10, 8}}, {20, {1, 9}}, {21, {20, 9}}, {30, {1, 9}}};
  struct Case {
    const char* what;
    std::set<int32_t> members, expected;
  };
  const Case cases[] = {
      {"a whole subtree", {10}, {10, 11, 12, 13}},
      {"a leaf", {12}, {12}},
      {"an orphan stays, with whatever it forks", {10, 30}, {10, 11, 12, 13, 30}},
      {"a member that is gone leaves", {10, 99}, {10, 11, 12, 13}},
      {"two roots", {11, 20}, {11, 12, 20, 21}},
      {"nothing left", {99}, {}},
  };
  for (const auto& c : cases) EXPECT_EQ(treeMembers(c.members, links), c.expected) << c.what;
}

TEST(TallyGroup, ChargesWhatEachMemberUsedAndNewbornsFromBirth) {
  using Now = std::map<int32_t, std::optional<int64_t>>;
  struct Case {
    const char* what;
    std::map<int32_t, int64_t> before;
    Now now;
    std::set<int32_t> born;
    int64_t used_us;
    std::vector<int32_t> left;
  };
  const Case cases[] = {
      {"members that ran", {{1, 100}, {2, 50}}, {{1, 130}, {2, 70}}, {}, 50, {}},
      {"a child forked during the hold: all its time", {{1, 100}}, {{1, 110}, {2, 25}}, {2}, 35, {}},
      {"an adopted older process: none of its past", {{1, 100}}, {{1, 110}, {2, 9000}}, {}, 10, {}},
      {"exited: unreadable or unlisted", {{1, 100}, {2, 5}, {3, 7}}, {{1, 100}, {2, std::nullopt}}, {}, 0, {2, 3}},
      {"a counter that went backwards starts afresh", {{1, 100}}, {{1, 40}}, {}, 40, {}},
      {"a newborn that is already gone is no member", {{1, 100}}, {{1, 100}, {2, std::nullopt}}, {2}, 0, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const GroupTally t = tallyGroup(c.before, c.now, c.born);
    EXPECT_EQ(t.used_us, c.used_us);
    EXPECT_EQ(t.left, c.left);
    for (const auto& [pid, cpu] : c.now) EXPECT_EQ(t.member_cpu_us.count(pid), cpu.has_value() ? 1u : 0u) << pid;
  }
}

// A tree in the fixture /proc: 100 -> {101, 102}, 101 -> 103; 200 is unrelated.
struct TreeRig : test::SimLimiter {
  TreeRig() : SimLimiter(false) {
    add(100, 1, "make");
    add(101, 100, "cc");
    add(102, 100, "cc");
    add(103, 101, "as");
    add(200, 1, "other");
    make();
  }
  // Our own processes: saved limits apply to those only.
  void add(int32_t pid, int32_t ppid, const std::string& name, uint64_t start_ticks = 100) {
    SimLimiter::add(pid, test::SimProcess{.name = name, .uid = ::getuid(), .ppid = ppid});
    dir.addProcess(pid, name, ppid, start_ticks);
  }
  void limitTree(int32_t pid, double share, bool tree = true) {
    MutexLock lock(limiter->mutex());
    limiter->setLimit(pid, share, tree);
  }
  void steps(int n) {
    for (int i = 0; i < n; ++i) step();
  }
  bool anyStopped(std::initializer_list<int32_t> pids) {
    return std::any_of(pids.begin(), pids.end(), [&](int32_t pid) { return stopped(pid); });
  }
  // The pids signals of one kind went to, from the `from`th signal on.
  std::set<int32_t> signalled(int64_t signal, size_t from = 0) {
    std::set<int32_t> out;
    for (size_t i = from; i < wire->signals.size(); ++i)
      if (wire->signals[i].second == signal) out.insert(wire->signals[i].first);
    return out;
  }
};

TEST(TreeLimit, TheGroupsSummedTimeFollowsTheShareAndEveryMemberMovesTogether) {
  TreeRig r;
  r.limitTree(100, 0.5);
  EXPECT_EQ(r.limiter->trees().at(100), (std::set<int32_t>{100, 101, 102, 103}));
  r.steps(80);
  // Four busy processes held to half of one processor in total, not half each.
  uint64_t used_ns = 0;
  for (int32_t pid : {100, 101, 102, 103}) used_ns += r.wire->procs[pid].cpu_ns;
  EXPECT_NEAR(static_cast<double>(used_ns) / 1000.0 / (80 * 30'000.0), 0.5, 0.05);
  EXPECT_EQ(r.signalled(SIGSTOP), (std::set<int32_t>{100, 101, 102, 103}));  // never 200
  // At every stop, the members are stopped and continued together.
  for (int32_t pid : {101, 102, 103}) EXPECT_EQ(r.stopped(pid), r.stopped(100));
}

TEST(TreeLimit, ChildrenJoinWithinAFewTicksMembersLeaveAndTheGroupEndsWithTheLast) {
  TreeRig r;
  r.limitTree(100, 0.25);
  r.step();
  ASSERT_TRUE(r.stopped(100));
  // Forked while the group is held: joins, is stopped with it, and brings the group's priority.
  // A stopped group is looked at every 150 ms (five ticks), not only when its debt is paid.
  r.limiter->refresh();
  r.limiter->renice(100, 7);
  r.add(104, 102, "ld", 500);
  r.steps(5);
  EXPECT_TRUE(r.limiter->trees().at(100).count(104));
  EXPECT_TRUE(r.stopped(104));
  EXPECT_NE(std::find(r.wire->priorities.begin(), r.wire->priorities.end(), std::make_pair(104, int64_t{7})),
            r.wire->priorities.end());
  // The first process exits: the group goes on under its pid without it.
  r.gone(100);
  r.gone(101);
  r.steps(10);
  EXPECT_EQ(r.limiter->trees().at(100), (std::set<int32_t>{102, 103, 104}));
  const size_t mark = r.wire->signals.size();
  r.steps(40);
  EXPECT_EQ(r.signalled(SIGSTOP, mark), (std::set<int32_t>{102, 103, 104}));
  for (int32_t pid : {102, 103, 104}) r.gone(pid);
  r.steps(5);
  EXPECT_TRUE(r.limiter->trees().empty());
  EXPECT_TRUE(r.limiter->limits().empty());
  EXPECT_EQ(r.limiter->tickInterval_ms(), 5000);
}

TEST(TreeLimit, ATreeTakesOverTheLimitsInsideItAndItsMembersCannotBeLimitedApart) {
  TreeRig r;
  r.limit(101, 0.1);
  r.step();
  ASSERT_TRUE(r.stopped(101));
  r.limitTree(100, 0.9);
  EXPECT_EQ(r.limiter->limits().count(101), 0u);
  EXPECT_FALSE(r.stopped(101));  // its own stop ends: the group runs now
  r.limit(103, 0.1);
  EXPECT_EQ(r.limiter->limits().count(103), 0u);
  EXPECT_EQ(r.limiter->treeOf(103), 100);
  // Without its children again: the members are let go, the first process keeps its share.
  r.step();
  r.limitTree(100, 0.9, false);
  EXPECT_TRUE(r.limiter->trees().empty());
  EXPECT_EQ(r.limiter->limitFor(100), 0.9);
  EXPECT_FALSE(r.anyStopped({101, 102, 103}));
}

TEST(TreeLimit, AMemberThatRefusesSignalsIsLeftOutAndNotAskedAgainWhileItsChildStays) {
  TreeRig r;
  r.wire->procs[101].kill_fails = true;
  r.limitTree(100, 0.25);
  r.step();  // the first stop: 101 refuses it
  EXPECT_EQ(r.limiter->trees().at(100), (std::set<int32_t>{100, 102, 103}));
  const size_t mark = r.wire->signals.size();
  r.steps(40);
  EXPECT_EQ(r.signalled(SIGSTOP, mark), (std::set<int32_t>{100, 102, 103}));
  EXPECT_EQ(r.limiter->trees().at(100), (std::set<int32_t>{100, 102, 103}));
}

// A tree (with a child forked while held) and a single process, both held: every way out continues
// them all; clearing forgets the records and the names they were saved under (with the tree flag).
TEST(TreeLimit, EveryWayOutContinuesEveryMember) {
  struct Case {
    const char* what;
    void (*out)(TreeRig&);
    bool forgets;
  };
  const Case cases[] = {
      {"clear limit",
       [](TreeRig& r) {
         r.limiter->clearLimit(100);
         r.limiter->clearLimit(200);
       },
       true},
      {"clear all limits", [](TreeRig& r) { r.limiter->clearAllLimits(); }, true},
      {"continue all (sleep)", [](TreeRig& r) { r.limiter->continueAll(); }, false},
      {"quit", [](TreeRig& r) { r.limiter.reset(); }, false},
  };
  const json limited = {{"AC Power", {{"make", 0.25}, {"other", 0.25}}}};
  const json as_tree = {{"AC Power", {{"make", true}}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TreeRig r;
    r.limiter->refresh();  // names known: the limits are saved under them
    r.limitTree(100, 0.25);
    r.limit(200, 0.25);
    EXPECT_EQ(r.settings.loadValue("limited"), limited);
    EXPECT_EQ(r.settings.loadValue("limited_tree"), as_tree);
    r.add(104, 103, "ld", 500);
    r.steps(3);
    for (int32_t pid : {100, 101, 102, 103, 104, 200}) ASSERT_TRUE(r.stopped(pid)) << pid;
    c.out(r);
    EXPECT_FALSE(r.anyStopped({100, 101, 102, 103, 104, 200}));
    EXPECT_EQ(r.settings.loadValue("limited"), c.forgets ? json::object() : limited);
    EXPECT_EQ(r.settings.loadValue("limited_tree"), c.forgets ? json::object() : as_tree);
    if (!r.limiter) continue;
    EXPECT_EQ(r.limiter->limits().empty(), c.forgets);
    EXPECT_EQ(r.limiter->trees().empty(), c.forgets);
    EXPECT_EQ(r.limiter->tickInterval_ms(), c.forgets ? 5000 : 30);
  }
}

// Saved lists apply at a process's first sighting only, to this user's processes and for the current
// source: the limit, with its children when saved so (older files have no tree flag), and the
// priority, which a held tree gives every member.
TEST(TreeLimit, RememberedByNameWithItsChildrenAndOldSettingsStillLoad) {
  struct Case {
    const char* what;
    json limited_tree;
    bool expect_tree;
  };
  const Case cases[] = {
      {"saved with its children", {{"AC Power", {{"make", true}}}}, true},
      {"a file from before tree limits", nullptr, false},
      {"a tree flag for the other source only", {{"Battery Power", {{"make", true}}}}, false},
      {"a malformed tree flag", {{"AC Power", {{"make", "yes"}}}}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TreeRig r;
    r.limiter.reset();
    r.settings.saveDict("limited", {{"AC Power", {{"make", 0.3}}}, {"Battery Power", {{"other", 0.5}}}});
    r.settings.saveDict("reniced", {{"AC Power", {{"make", 7}}}});
    if (!c.limited_tree.is_null()) r.settings.saveDict("limited_tree", c.limited_tree);
    r.SimLimiter::add(300, test::SimProcess{.name = "make", .uid = ::getuid() + 1});  // another user's
    r.make();
    r.limiter->refresh();
    r.clock.advance_us(1'000'000);
    r.limiter->refresh();
    EXPECT_EQ(r.limiter->limitFor(100), 0.3);
    EXPECT_DOUBLE_EQ(r.limiter->limits().at(100).creditQuantum, 9000.0);
    EXPECT_EQ(r.limiter->trees().count(100), c.expect_tree ? 1u : 0u);
    // Not the members, named otherwise, nor "other", saved for battery only, nor 300.
    EXPECT_EQ(r.limiter->limits().size(), 1u);
    std::vector<std::pair<int32_t, int64_t>> reniced = {{100, 7}};
    if (c.expect_tree) reniced.insert(reniced.end(), {{101, 7}, {102, 7}, {103, 7}});
    EXPECT_EQ(r.wire->priorities, reniced);
  }
}

}  // namespace
}  // namespace pelmora
