// The process window's "Include child processes" beside the limit, on a simulated helper whose
// fixture /proc carries the parent links: the limit set with it holds the whole tree in the real
// limiter, the first process's row shows the group, its members are marked and cannot be limited
// apart, and the choice is remembered per power source.
#include <QCheckBox>
#include <QPushButton>

#include <gtest/gtest.h>

// The simulated helper keeps a member named like Qt's "signals" keyword.
#undef signals

#include "app/process_table_model.h"
#include "app/procinfo_window.h"
#include "common/sim_limiter.h"
#include "process_control/cpu_limiter.h"
#include "process_control/proc_settings.h"
#include "support/main_queue.h"

namespace pelmora {
namespace {

constexpr uint32_t kMe = 1000;

// make (20) -> cc (21), cc (22); shell (30) apart.
struct TreeFixture : test::SimLimiter {
  TreeFixture() : SimLimiter(false) {
    add(20, 1, "make");
    add(21, 20, "cc");
    add(22, 20, "cc");
    add(30, 1, "shell");
    make();
    refresh();
    refresh();
  }
  void add(int32_t pid, int32_t ppid, const std::string& name) {
    SimLimiter::add(pid, test::SimProcess{.name = name, .uid = kMe, .ppid = ppid});
    dir.addProcess(pid, name, ppid);
  }
  // A second of half a processor for each, then a refresh and its broadcast.
  void refresh() {
    clock.advance_us(1'000'000);
    for (auto& [pid, p] : wire->procs) p.cpu_ns += 500'000'000;
    limiter->refresh();
    RunLoop::main().runUntilIdle();
  }
};

std::string cell(const ProcinfoWindow& w, int32_t pid, const std::string& column) {
  const int row = w.model().rowOfPid(pid);
  if (row < 0) return "<absent>";
  return w.model().index(row, ProcessTableModel::columnOf(column)).data().toString().toStdString();
}

TEST(ProcinfoTree, IncludeChildProcessesHoldsTheTreeAndTheRowsShowIt) {
  TreeFixture f;
  ProcinfoWindow w(*f.limiter, f.helper, f.settings);
  w.setUid(kMe);
  w.selectPid(20);
  QCheckBox* include = w.includeChildrenControl();
  ASSERT_TRUE(include && include->isEnabled());
  EXPECT_FALSE(include->isChecked());
  // Ticked first, then the share: the limit holds the tree.
  include->click();
  f.refresh();  // a refresh between the two does not lose the choice
  EXPECT_TRUE(include->isChecked());
  w.limitControl()->setValue(40);
  EXPECT_EQ(f.limiter->trees()[20], (std::set<int32_t>{20, 21, 22}));
  EXPECT_TRUE(f.limiter->procSettings().limitHoldsTree("make", "AC Power"));
  f.refresh();
  EXPECT_EQ(cell(w, 20, "limit"), "40.0 Σ");
  EXPECT_EQ(cell(w, 21, "limit"), "with 20");
  EXPECT_EQ(cell(w, 30, "limit"), "");
  // A member: the group's limit, shown and not settable apart.
  w.selectPid(21);
  EXPECT_EQ(w.limitControl()->value(), 40);
  EXPECT_TRUE(include->isChecked());
  EXPECT_FALSE(include->isEnabled());
  EXPECT_FALSE(w.limitControl()->controlEnabled());
  EXPECT_FALSE(w.clearLimitButton()->isEnabled());
  // Another process starts unticked.
  w.selectPid(30);
  EXPECT_FALSE(include->isChecked());
  // Unticked on the first process: the limit stays, on it alone.
  w.selectPid(20);
  include->click();
  EXPECT_TRUE(f.limiter->trees().empty());
  EXPECT_EQ(f.limiter->limitFor(20), 0.4);
  EXPECT_FALSE(f.limiter->procSettings().limitHoldsTree("make", "AC Power"));
  EXPECT_EQ(cell(w, 21, "limit"), "");
  // The battery's list remembers the choice without touching the limit in force.
  w.changePowerSource(1);
  w.limitControl()->setValue(25);
  include->click();
  EXPECT_TRUE(f.limiter->procSettings().limitHoldsTree("make", "Battery Power"));
  EXPECT_EQ(f.limiter->procSettings().limitFor("make", "Battery Power"), 0.25);
  EXPECT_TRUE(f.limiter->trees().empty());
  w.changePowerSource(0);
  EXPECT_FALSE(include->isChecked());
  w.changePowerSource(1);
  EXPECT_TRUE(include->isChecked());
}

}  // namespace
}  // namespace pelmora
