// The process window on a simulated helper: first open, settings, filters and search, selection
// across refreshes, the limit and priority controls per power source, limits on a process tree,
// enabled states, ending a process, and the open-files window.
#include <QCheckBox>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>
#include <QTableView>
#include <QTableWidget>
#include <QTest>

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

// The simulated helper keeps a member named like Qt's "signals" keyword; this file declares no
// signals of its own.
#undef signals

#include "app/open_files_window.h"
#include "app/process_table_model.h"
#include "app/procinfo_window.h"
#include "common/sim_limiter.h"
#include "process_control/cpu_limiter.h"
#include "process_control/proc_settings.h"
#include "support/main_queue.h"
#include "support/pid.h"

namespace pelmora {
namespace {

using test::SimProcess;

// The window's user; tests run as root or as anyone, so the window is told who it is.
constexpr uint32_t kMe = 1000;

// A limiter over simulated processes: pid -> (name, owner, share of a processor while running).
// The tests of the controls set the authorisation they need.
struct Fixture : test::SimLimiter {
  std::map<int32_t, double> demand;

  ~Fixture() { PID::setFrontmostProvider(nullptr); }
  using SimLimiter::add;
  // With a stat file in the fixture /proc too, for the limiter's process trees.
  void add(int32_t pid, const std::string& name, uint32_t uid, double share, int32_t ppid = 1) {
    add(pid, SimProcess{.name = name, .uid = uid, .ppid = ppid});
    dir.addProcess(pid, name, ppid);
    demand[pid] = share;
  }
  // One second of running at each process's demand, a refresh, and its broadcast delivered.
  void refresh() {
    clock.advance_us(1'000'000);
    for (auto& [pid, p] : wire->procs) p.cpu_ns += static_cast<uint64_t>(demand[pid] * 1e9);
    limiter->refresh();
    RunLoop::main().runUntilIdle();
  }
  // The standard set: two refreshes so that every row has a share.
  void standard() {
    add(100, "Xorg", 0, 0.30);
    add(200, "firefox", kMe, 0.80);
    add(201, "bash", kMe, 0.05);
    add(300, "postgres", kMe + 1, 0.10);
    refresh();
    refresh();
  }
};

// The standard set in a window of kMe's, as most tests start.
struct StandardSet : Fixture {
  StandardSet() { standard(); }
};
class ProcinfoWindowTest : public ::testing::Test {
 protected:
  ProcinfoWindowTest() { w.setUid(kMe); }
  StandardSet f;
  ProcinfoWindow w{*f.limiter, f.helper, f.settings};
};

std::vector<int32_t> shownPids(const ProcinfoWindow& w) {
  std::vector<int32_t> pids;
  for (const auto& row : w.model().rows()) pids.push_back(row.info.pid);
  return pids;
}

std::string cell(const ProcinfoWindow& w, int32_t pid, const std::string& column) {
  const int row = w.model().rowOfPid(pid);
  if (row < 0) return "<absent>";
  return w.model().index(row, ProcessTableModel::columnOf(column)).data().toString().toStdString();
}

// A click on a column's header, as the user makes it.
void clickHeader(ProcinfoWindow& w, const std::string& column) {
  QHeaderView* header = w.table()->horizontalHeader();
  const int section = ProcessTableModel::columnOf(column);
  w.table()->scrollTo(w.model().index(0, section));
  const QPoint at(header->sectionViewportPosition(section) + header->sectionSize(section) / 2, header->height() / 2);
  QTest::mouseClick(header->viewport(), Qt::LeftButton, {}, at);
}

// Opened on empty settings: all processes by share, largest first, as the header shows; then a first
// click on a header sorts names A to Z and numbers largest first.
TEST_F(ProcinfoWindowTest, FirstOpenSortsByShareAndAFirstHeaderClickSortsNamesAToZAndNumbersLargestFirst) {
  EXPECT_EQ(w.processFilter(), processesView::all);
  EXPECT_EQ(shownPids(w), (std::vector<int32_t>{200, 100, 300, 201}));
  EXPECT_EQ(w.table()->horizontalHeader()->sortIndicatorSection(), ProcessTableModel::columnOf("pctcpu"));
  EXPECT_EQ(w.table()->horizontalHeader()->sortIndicatorOrder(), Qt::DescendingOrder);
  EXPECT_EQ(cell(w, 200, "pctcpu"), "80.0");
  EXPECT_FALSE(w.coverBox()->isHidden());
  EXPECT_EQ(ProcinfoWindow::shared(), &w);
  w.show();
  struct Click {
    const char* column;
    bool ascending;
    std::vector<int32_t> pids;
  };
  const Click clicks[] = {
      {"process", true, {201, 200, 300, 100}},  // bash, firefox, postgres, Xorg
      {"pid", false, {300, 201, 200, 100}},
      {"pid", true, {100, 200, 201, 300}},  // the second click turns the order
      {"pctcpu", false, {200, 100, 300, 201}},
      {"user", true, {}},
  };
  for (const Click& c : clicks) {
    SCOPED_TRACE(c.column);
    clickHeader(w, c.column);
    EXPECT_EQ(w.sortKey(), c.column);
    EXPECT_EQ(w.sortAscending(), c.ascending);
    if (!c.pids.empty()) {
      EXPECT_EQ(shownPids(w), c.pids);
    }
  }
  w.close();
}

TEST(ProcinfoWindow, SettingsAreReadAtOpenAndWrittenAtClose) {
  Fixture f;
  f.standard();
  f.settings.saveInt("process_filter", 1);
  f.settings.saveString("process_sort_column", "process");
  f.settings.saveBool("process_sort_ascending", true);
  {
    ProcinfoWindow w(*f.limiter, f.helper, f.settings);
  w.setUid(kMe);
    EXPECT_EQ(w.processFilter(), processesView::mine);
    EXPECT_EQ(shownPids(w), (std::vector<int32_t>{201, 200}));  // bash, firefox
    // Clicking a header sorts by that column, in the order the header shows.
    w.table()->horizontalHeader()->setSortIndicator(ProcessTableModel::columnOf("pid"), Qt::DescendingOrder);
    EXPECT_EQ(shownPids(w), (std::vector<int32_t>{201, 200}));
    w.viewProcesses(processesView::other);
    w.show();
    w.close();
    EXPECT_EQ(ProcinfoWindow::shared(), nullptr);
  }
  EXPECT_EQ(f.settings.loadInt("process_filter", -1), 3);
  EXPECT_EQ(f.settings.loadString("process_sort_column", ""), "pid");
  EXPECT_FALSE(f.settings.loadBool("process_sort_ascending", true));
  EXPECT_EQ(f.settings.loadString("process_table_font", "x"), "");  // the default font is not stored
  // A stored column or filter that does not exist falls back to the share and all processes.
  f.settings.saveString("process_sort_column", "nonsense");
  f.settings.saveInt("process_filter", 5);
  ProcinfoWindow again(*f.limiter, f.helper, f.settings);
  EXPECT_EQ(again.sortKey(), "pctcpu");
  EXPECT_EQ(again.processFilter(), processesView::all);
}

TEST_F(ProcinfoWindowTest, FiltersAndSearch) {
  w.setApplicationPids([](const std::map<int32_t, procinfo>&) { return std::set<int32_t>{200, 999}; });
  struct Case { processesView view; const char* search; int type; std::vector<int32_t> pids; const char* title; };
  const Case cases[] = {
      {processesView::all, "", 0, {200, 100, 300, 201}, "All Processes (4)"},
      {processesView::mine, "", 0, {200, 201}, "My Processes (2)"},
      {processesView::system, "", 0, {100}, "System Processes (1)"},
      {processesView::other, "", 0, {300}, "Other User Processes (1)"},
      {processesView::application, "", 0, {200}, "Applications (1)"},
      {processesView::all, "FIRE", 0, {200}, "All Processes (1)"},
      {processesView::all, "fire", 1, {100, 300, 201}, "All Processes (3)"},
      {processesView::all, "", 1, {200, 100, 300, 201}, "All Processes (4)"},  // no search leaves all
      {processesView::mine, "s", 0, {201}, "My Processes (1)"},
      {processesView::all, "nothing", 0, {}, "All Processes (0)"},
  };
  for (const auto& c : cases) {
    w.setSearchType(c.type);
    w.changeSearch(c.search);
    w.viewProcesses(c.view);
    EXPECT_EQ(shownPids(w), c.pids) << c.title << " / " << c.search;
    EXPECT_EQ(w.headerTitle()->text().toStdString(), c.title);
  }
}

// The tree is switched from the header's view menu like the filters, works with them and the
// search, indents children under their parents in the name column, and is remembered.
TEST(ProcinfoWindow, TreeViewShowsChildrenUnderTheirParentsAndIsSwitchedLikeTheFilters) {
  Fixture f;
  f.standard();  // Xorg 100, firefox 200, bash 201 (mine), postgres 300: children of init
  f.add(210, "Web Content", kMe, 0.20);
  f.add(211, "Web Content", kMe, 0.40);
  f.add(220, "yes", kMe, 0.90);
  f.add(310, "postgres", kMe + 1, 0.01);
  f.wire->procs[210].ppid = f.wire->procs[211].ppid = 200;
  f.wire->procs[220].ppid = 201;
  f.wire->procs[310].ppid = 300;
  f.refresh();
  f.refresh();
  auto window = std::make_unique<ProcinfoWindow>(*f.limiter, f.helper, f.settings);
  window->setUid(kMe);
  auto menuItem = [&](const QString& text) {
    for (QAction* a : window->findChildren<QAction*>())
      if (a->text() == text) return a;
    return static_cast<QAction*>(nullptr);
  };
  QAction* tree = menuItem("Tree of Parents and Children");
  ASSERT_NE(tree, nullptr);
  struct Case {
    const char* what;
    bool tree;
    processesView view;
    const char* search;
    std::vector<std::pair<int32_t, int>> rows;  // pid, depth, top to bottom
  };
  const Case cases[] = {
      {"flat, by share", false, processesView::all, "", {{220, 0}, {200, 0}, {211, 0}, {100, 0}, {210, 0}, {300, 0}, {201, 0}, {310, 0}}},
      {"tree: children under their parents, each level by share", true, processesView::all, "",
       {{200, 0}, {211, 1}, {210, 1}, {100, 0}, {300, 0}, {310, 1}, {201, 0}, {220, 1}}},
      {"tree with a filter: a parent filtered out makes its child a root", true, processesView::other, "", {{300, 0}, {310, 1}}},
      {"tree and a search", true, processesView::all, "web", {{211, 0}, {210, 0}}},
      {"mine as a tree", true, processesView::mine, "", {{200, 0}, {211, 1}, {210, 1}, {201, 0}, {220, 1}}},
  };
  for (const auto& c : cases) {
    if (tree->isChecked() != c.tree) tree->trigger();
    window->changeSearch(c.search);
    window->viewProcesses(c.view);
    std::vector<std::pair<int32_t, int>> rows;
    for (const auto& row : window->model().rows()) rows.emplace_back(row.info.pid, row.depth);
    EXPECT_EQ(rows, c.rows) << c.what;
    EXPECT_EQ(window->treeView(), c.tree) << c.what;
    for (const auto& [pid, depth] : c.rows) {
      const std::string name = cell(*window, pid, "process");
      EXPECT_EQ(name.find_first_not_of(' '), size_t(depth) * 3) << c.what << ": " << name;
    }
  }
  // Closed with the tree on, opened again with it on.
  window->close();
  window.reset();
  window = std::make_unique<ProcinfoWindow>(*f.limiter, f.helper, f.settings);
  window->setUid(kMe);
  EXPECT_TRUE(window->treeView());
  EXPECT_TRUE(menuItem("Tree of Parents and Children")->isChecked());
  EXPECT_EQ(window->model().rows().front().info.pid, 200);
  EXPECT_EQ(window->model().rows()[1].depth, 1);
}

TEST_F(ProcinfoWindowTest, SelectionSurvivesRefreshesAndAVanishedProcessLeavesTheDetailArea) {
  w.show();  // a hidden window does not rebuild its rows
  w.selectPid(300);
  EXPECT_EQ(w.selectedPid(), 300);
  EXPECT_TRUE(w.coverBox()->isHidden());
  EXPECT_EQ(w.nameLabel()->text().toStdString(), "postgres");

  // postgres becomes the busiest; a process starts, another ends: rows move, one in, one out.
  f.demand[300] = 0.95;
  f.add(400, "make", kMe, 0.0);
  f.gone(201);
  const QPersistentModelIndex held = w.model().index(w.model().rowOfPid(300), 0);
  f.refresh();
  EXPECT_EQ(shownPids(w), (std::vector<int32_t>{300, 200, 100, 400}));
  const auto merge = w.model().lastMerge();
  EXPECT_EQ(merge.removed, 1);
  EXPECT_EQ(merge.inserted, 1);
  EXPECT_TRUE(merge.reordered);
  EXPECT_EQ(held.row(), 0);  // persistent indexes move with their process
  const QModelIndexList selected = w.table()->selectionModel()->selectedRows();
  ASSERT_EQ(selected.size(), 1);
  EXPECT_EQ(w.model().pidAt(selected.first().row()), 300);
  EXPECT_EQ(w.selectedPid(), 300);
  EXPECT_EQ(w.pctCpuLabel()->text().toStdString(), "CPU: 95.0 %");

  // A refresh with nothing changed moves nothing.
  f.refresh();
  EXPECT_EQ(w.model().lastMerge().removed + w.model().lastMerge().inserted, 0);
  EXPECT_FALSE(w.model().lastMerge().reordered);

  f.gone(300);
  f.refresh();
  EXPECT_EQ(w.selectedPid(), -1);
  EXPECT_TRUE(w.table()->selectionModel()->selectedRows().isEmpty());
  EXPECT_FALSE(w.coverBox()->isHidden());
  EXPECT_FALSE(w.limitControl()->controlEnabled());
}

TEST_F(ProcinfoWindowTest, LimitControlLimitsClearsAndRemembersPerPowerSource) {
  w.selectPid(200);
  ASSERT_TRUE(w.limitControl()->controlEnabled());
  w.limitControl()->setValue(20);
  EXPECT_EQ(f.limiter->limitFor(200), 0.2);
  EXPECT_EQ(f.limiter->procSettings().limitFor("firefox", "AC Power"), 0.2);
  EXPECT_EQ(cell(w, 200, "limit"), "20.0");
  EXPECT_TRUE(w.clearLimitButton()->isEnabled());

  // The battery list is remembered without touching the limit in force.
  w.changePowerSource(1);
  EXPECT_EQ(w.limitControl()->value(), 0);
  EXPECT_FALSE(w.clearLimitButton()->isEnabled());
  w.limitControl()->setValue(40);
  EXPECT_EQ(f.limiter->limitFor(200), 0.2);
  EXPECT_EQ(f.limiter->procSettings().limitFor("firefox", "Battery Power"), 0.4);
  // ... and can be taken back from there, by the button or by "None", still without touching it.
  for (const bool by_button : {true, false}) {
    w.limitControl()->setValue(40);
    ASSERT_TRUE(w.clearLimitButton()->isEnabled());
    if (by_button)
      w.clearLimitButton()->click();
    else
      w.limitControl()->setValue(0);
    EXPECT_FALSE(f.limiter->procSettings().limitFor("firefox", "Battery Power")) << by_button;
    EXPECT_EQ(f.limiter->limitFor(200), 0.2) << by_button;
    EXPECT_FALSE(w.clearLimitButton()->isEnabled()) << by_button;
  }
  w.changePowerSource(0);
  EXPECT_EQ(w.limitControl()->value(), 20);

  w.limitControl()->setValue(0);  // "None"
  EXPECT_FALSE(f.limiter->limitFor(200));
  EXPECT_FALSE(f.limiter->procSettings().limitFor("firefox", "AC Power"));
  EXPECT_EQ(cell(w, 200, "limit"), "");

  w.limitControl()->setValue(35);
  w.selectPid(201);
  w.limitControl()->setValue(10);
  EXPECT_EQ(f.limiter->limits().size(), 2u);
  w.clearLimit();
  EXPECT_EQ(f.limiter->limits().size(), 1u);
  // "Clear All Limits" asks first.
  int asked = 0;
  bool answer = false;
  w.setConfirm([&](const QString&) { return ++asked, answer; });
  w.clearAllLimits();
  EXPECT_EQ(f.limiter->limits().size(), 1u);
  answer = true;
  w.clearAllLimits();
  EXPECT_EQ(asked, 2);
  EXPECT_TRUE(f.limiter->limits().empty());
  // Every limited process was continued on the way out.
  EXPECT_GE(f.wire->count(SIGCONT), 2);
}

TEST_F(ProcinfoWindowTest, FrontmostLimitShownInParenthesesOnlyWhileFrontmostLimitingIsOff) {
  PID::setFrontmostProvider([] { return std::optional<int32_t>(200); });
  w.selectPid(200);
  w.limitControl()->setValue(20);
  EXPECT_EQ(cell(w, 200, "limit"), "(20.0)");
  f.settings.saveBool("LimitFrontmost", true);
  w.rebuild();
  EXPECT_EQ(cell(w, 200, "limit"), "20.0");
  f.settings.saveBool("LimitFrontmost", false);
  PID::setFrontmostProvider([] { return std::optional<int32_t>(100); });
  f.refresh();  // the limiter learns who is in front at its refresh
  EXPECT_EQ(cell(w, 200, "limit"), "20.0");
}

TEST_F(ProcinfoWindowTest, ControlsNeedOwnershipOrAuthorisation) {
  struct Case { int32_t pid; bool authorised; bool enabled; };
  const Case cases[] = {{200, false, true}, {300, false, false}, {100, false, false},
                        {300, true, true},  {100, true, true},   {200, true, true}};
  for (const auto& c : cases) {
    f.helper.setAuthorised(c.authorised);
    RunLoop::main().runUntilIdle();  // "authchanged"
    w.selectPid(c.pid);
    EXPECT_EQ(w.limitControl()->controlEnabled(), c.enabled) << c.pid << " " << c.authorised;
    EXPECT_EQ(w.reniceControl()->isEnabled(), c.enabled) << c.pid << " " << c.authorised;
    // Without rights the owner may only lower the priority.
    EXPECT_EQ(w.reniceControl()->minimum() == -20, c.authorised) << c.pid;
  }
  // A disabled control changes nothing even if driven in code.
  f.helper.setAuthorised(false);
  RunLoop::main().runUntilIdle();
  w.selectPid(300);
  EXPECT_EQ(w.authButton()->text().toStdString(), "Authorize…");
  w.limitControl()->setValue(50);
  w.reniceControl()->setValue(7);
  EXPECT_FALSE(f.limiter->limitFor(300));
  EXPECT_TRUE(f.wire->priorities.empty());
}

TEST_F(ProcinfoWindowTest, PriorityControlRenicesAndRemembersPerPowerSource) {
  f.helper.setAuthorised(true);
  RunLoop::main().runUntilIdle();  // "authchanged"
  w.selectPid(200);
  w.reniceControl()->setValue(5);
  EXPECT_EQ(f.wire->priorities, (std::vector<std::pair<int32_t, int64_t>>{{200, 5}}));
  EXPECT_EQ(f.limiter->procSettings().priorityFor("firefox", "AC Power"), 5);
  w.changePowerSource(1);
  w.reniceControl()->setValue(10);
  EXPECT_EQ(f.wire->priorities.size(), 1u);  // remembered, not applied
  EXPECT_EQ(f.limiter->procSettings().priorityFor("firefox", "Battery Power"), 10);
}

TEST_F(ProcinfoWindowTest, QuitAndForceQuitAskFirst) {
  std::vector<std::string> questions;
  bool answer = false;
  w.setConfirm([&](const QString& q) {
    questions.push_back(q.toStdString());
    return answer;
  });
  w.selectPid(200);
  w.quitSelected();
  EXPECT_EQ(f.wire->count(SIGTERM), 0);
  answer = true;
  w.quitSelected();
  w.forceQuitSelected();
  EXPECT_EQ(f.wire->signals, (std::vector<std::pair<int32_t, int64_t>>{{200, SIGTERM}, {200, SIGKILL}}));
  ASSERT_EQ(questions.size(), 3u);
  EXPECT_NE(questions[2].find("firefox"), std::string::npos);
  // Another user's process without rights: not even asked.
  f.helper.setAuthorised(false);
  RunLoop::main().runUntilIdle();
  w.selectPid(300);
  w.forceQuitSelected();
  EXPECT_EQ(questions.size(), 3u);
}

// "Include child processes" beside the limit: the limit set with it holds the whole tree in the real
// limiter, the first process's row shows the group, its members are marked and cannot be limited
// apart, and the choice is remembered per power source.
TEST(ProcinfoWindow, IncludeChildProcessesHoldsTheTreeAndTheRowsShowIt) {
  Fixture f;  // make (20) -> cc (21), cc (22); shell (30) apart
  for (const auto& [pid, ppid, name] : {std::tuple{20, 1, "make"}, {21, 20, "cc"}, {22, 20, "cc"}, {30, 1, "shell"}})
    f.add(pid, name, kMe, 0.5, ppid);
  f.refresh();
  f.refresh();
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

TEST(OpenFilesWindow, ListsDescriptorsOrSaysTheyCannotBeRead) {
  Fixture f;
  procinfo p;
  p.pid = 4321;
  p.name = "editor";
  OpenFilesWindow w(f.helper, p, QIcon());
  EXPECT_EQ(w.list()->rowCount(), 0);  // the simulated helper does not answer "pidfiles"
  EXPECT_NE(w.status()->text().toStdString().find("cannot be read"), std::string::npos);
  w.showFiles(std::map<int, std::string>{{0, "/dev/null"}, {3, "/home/a/notes.txt"}, {12, "socket:[991]"}});
  ASSERT_EQ(w.list()->rowCount(), 3);
  EXPECT_EQ(w.list()->item(1, 0)->text().toStdString(), "3");
  EXPECT_EQ(w.list()->item(1, 1)->text().toStdString(), "/home/a/notes.txt");
  EXPECT_EQ(w.status()->text().toStdString(), "3 open file(s)");
}

}  // namespace
}  // namespace pelmora
