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

// The window's user; tests run as root or as anyone, so the window is told who it is.
constexpr uint32_t kMe = 1000;

// A simulated process: its owner, parent and share of a processor while running.
struct Proc {
  int32_t pid;
  const char* name;
  uint32_t uid;
  double share;
  int32_t ppid = 1;
};
const std::vector<Proc> kStandard = {{100, "Xorg", 0, 0.30},
                                     {200, "firefox", kMe, 0.80},
                                     {201, "bash", kMe, 0.05},
                                     {300, "postgres", kMe + 1, 0.10}};

std::string cell(const ProcinfoWindow& w, int32_t pid, const std::string& column) {
  const int row = w.model().rowOfPid(pid);
  if (row < 0) return "<absent>";
  return w.model().index(row, ProcessTableModel::columnOf(column)).data().toString().toStdString();
}

// The rows top to bottom, as "200 +211 100": a '+' for each level a name is indented (3 spaces).
std::string shown(const ProcinfoWindow& w) {
  std::string out;
  for (const auto& row : w.model().rows()) {
    const size_t indent = cell(w, row.info.pid, "process").find_first_not_of(' ');
    out += (out.empty() ? "" : " ") + std::string(indent / 3, '+') + std::to_string(row.info.pid);
  }
  return out;
}

// A limiter over simulated processes (authorised; the tests of the controls set what they need)
// and a window of kMe's on it.
class ProcinfoWindowTest : public ::testing::Test, public test::SimLimiter {
 protected:
  ~ProcinfoWindowTest() override { PID::setFrontmostProvider(nullptr); }
  // With a stat file in the fixture /proc too, for the limiter's process trees.
  void add(const Proc& p) {
    SimLimiter::add(p.pid, test::SimProcess{.name = p.name, .uid = p.uid, .ppid = p.ppid});
    dir.addProcess(p.pid, p.name, p.ppid);
    demand[p.pid] = p.share;
  }
  // One second of running at each process's demand, a refresh, and its broadcast delivered.
  void refresh() {
    clock.advance_us(1'000'000);
    for (auto& [pid, p] : wire->procs) p.cpu_ns += static_cast<uint64_t>(demand[pid] * 1e9);
    limiter->refresh();
    RunLoop::main().runUntilIdle();
  }
  // The processes, two refreshes so that every row has a share, and the window opened on them.
  ProcinfoWindow& open(const std::vector<Proc>& procs = kStandard) {
    for (const Proc& p : procs) add(p);
    refresh();
    refresh();
    return reopen();
  }
  ProcinfoWindow& reopen() {
    w.reset();
    w = std::make_unique<ProcinfoWindow>(*limiter, helper, settings);
    w->setUid(kMe);
    return *w;
  }
  void authorise(bool authorised) {
    helper.setAuthorised(authorised);
    RunLoop::main().runUntilIdle();  // "authchanged"
  }
  std::optional<double> kept(const std::string& name, const char* power) {
    return limiter->procSettings().limitFor(name, power);
  }
  // For one process: the limit in force, the shares kept for AC and for the battery, its limit
  // cell, and whether "Clear Limit" is enabled.
  using Held = std::tuple<std::optional<double>, std::optional<double>, std::optional<double>, std::string, bool>;
  Held held(int32_t pid) {
    const std::string name = wire->procs[pid].name;
    return {limiter->limitFor(pid), kept(name, "AC Power"), kept(name, "Battery Power"), cell(*w, pid, "limit"),
            w->clearLimitButton()->isEnabled()};
  }

  std::map<int32_t, double> demand;
  std::unique_ptr<ProcinfoWindow> w;
};

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
  open();
  EXPECT_EQ(w->processFilter(), processesView::all);
  EXPECT_EQ(shown(*w), "200 100 300 201");
  EXPECT_EQ(w->table()->horizontalHeader()->sortIndicatorSection(), ProcessTableModel::columnOf("pctcpu"));
  EXPECT_EQ(w->table()->horizontalHeader()->sortIndicatorOrder(), Qt::DescendingOrder);
  EXPECT_EQ(cell(*w, 200, "pctcpu"), "80.0");
  EXPECT_FALSE(w->coverBox()->isHidden());
  EXPECT_EQ(ProcinfoWindow::shared(), w.get());
  w->show();
  const std::tuple<const char*, bool, const char*> clicks[] = {
      // bash, firefox, postgres, Xorg
      {"process", true, "201 200 300 100"},
      {"pid", false, "300 201 200 100"},
      // the second click turns the order
      {"pid", true, "100 200 201 300"},
      {"pctcpu", false, "200 100 300 201"},
      {"user", true, nullptr},
  };
  for (const auto& [column, ascending, rows] : clicks) {
    SCOPED_TRACE(column);
    clickHeader(*w, column);
    EXPECT_EQ(w->sortKey(), column);
    EXPECT_EQ(w->sortAscending(), ascending);
    if (rows) {
      EXPECT_EQ(shown(*w), rows);
    }
  }
  w->close();
}

TEST_F(ProcinfoWindowTest, SettingsAreReadAtOpenAndWrittenAtClose) {
  settings.saveInt("process_filter", 1);
  settings.saveString("process_sort_column", "process");
  settings.saveBool("process_sort_ascending", true);
  open();
  EXPECT_EQ(w->processFilter(), processesView::mine);
  EXPECT_EQ(shown(*w), "201 200");  // bash, firefox
  w->table()->horizontalHeader()->setSortIndicator(ProcessTableModel::columnOf("pid"), Qt::DescendingOrder);
  w->viewProcesses(processesView::other);
  w->show();
  w->close();
  EXPECT_EQ(ProcinfoWindow::shared(), nullptr);
  EXPECT_EQ(settings.loadInt("process_filter", -1), 3);
  EXPECT_EQ(settings.loadString("process_sort_column", ""), "pid");
  EXPECT_FALSE(settings.loadBool("process_sort_ascending", true));
  EXPECT_EQ(settings.loadString("process_table_font", "x"), "");  // the default font is not stored
  // A stored column or filter that does not exist falls back to the share and all processes.
  settings.saveString("process_sort_column", "nonsense");
  settings.saveInt("process_filter", 5);
  reopen();
  EXPECT_EQ(w->sortKey(), "pctcpu");
  EXPECT_EQ(w->processFilter(), processesView::all);
}

QAction* treeItem(const ProcinfoWindow& w) {
  for (QAction* a : w.findChildren<QAction*>())
    if (a->text() == "Tree of Parents and Children") return a;
  return nullptr;
}

// The filters, the search and the tree (switched from the header's view menu) work together; the
// tree indents children under their parents, each level by share, and is remembered.
TEST_F(ProcinfoWindowTest, FiltersSearchAndTheTreeOfParentsAndChildren) {
  std::vector<Proc> procs = kStandard;  // children of init
  procs.insert(procs.end(), {{210, "Web Content", kMe, 0.20, 200},
                             {211, "Web Content", kMe, 0.40, 200},
                             {220, "yes", kMe, 0.90, 201},
                             {310, "postgres", kMe + 1, 0.01, 300}});
  open(procs).setApplicationPids([](const std::map<int32_t, procinfo>&) { return std::set<int32_t>{200, 999}; });
  ASSERT_NE(treeItem(*w), nullptr);
  using View = processesView;
  const std::tuple<bool, View, const char*, int, const char*, const char*> cases[] = {
      // tree, filter, search, 0: name contains / 1: does not, rows, title
      {false, View::all, "", 0, "220 200 211 100 210 300 201 310", "All Processes (8)"},
      {false, View::mine, "", 0, "220 200 211 210 201", "My Processes (5)"},
      {false, View::system, "", 0, "100", "System Processes (1)"},
      {false, View::other, "", 0, "300 310", "Other User Processes (2)"},
      {false, View::application, "", 0, "200", "Applications (1)"},
      {false, View::all, "FIRE", 0, "200", "All Processes (1)"},
      {false, View::all, "fire", 1, "220 211 100 210 300 201 310", "All Processes (7)"},
      {false, View::all, "", 1, "220 200 211 100 210 300 201 310", "All Processes (8)"},  // no search leaves all
      {false, View::mine, "s", 0, "220 201", "My Processes (2)"},
      {false, View::all, "nothing", 0, "", "All Processes (0)"},
      {true, View::all, "", 0, "200 +211 +210 100 300 +310 201 +220", "All Processes (8)"},
      // a parent filtered out or not found makes its child a root
      {true, View::other, "", 0, "300 +310", "Other User Processes (2)"},
      {true, View::all, "web", 0, "211 210", "All Processes (2)"},
      {true, View::mine, "", 0, "200 +211 +210 201 +220", "My Processes (5)"},
  };
  for (const auto& [tree, view, search, type, rows, title] : cases) {
    SCOPED_TRACE(std::string(title) + " / " + search + (tree ? " / tree" : ""));
    if (treeItem(*w)->isChecked() != tree) treeItem(*w)->trigger();
    w->setSearchType(type);
    w->changeSearch(search);
    w->viewProcesses(view);
    EXPECT_EQ(shown(*w), rows);
    EXPECT_EQ(w->headerTitle()->text().toStdString(), title);
    EXPECT_EQ(w->treeView(), tree);
  }
  // Closed with the tree on, opened again with it on.
  w->close();
  reopen();
  EXPECT_TRUE(w->treeView());
  EXPECT_TRUE(treeItem(*w)->isChecked());
}

TEST_F(ProcinfoWindowTest, SelectionSurvivesRefreshesAndAVanishedProcessLeavesTheDetailArea) {
  open().show();  // a hidden window does not rebuild its rows
  w->selectPid(300);
  EXPECT_TRUE(w->coverBox()->isHidden());
  EXPECT_EQ(w->nameLabel()->text().toStdString(), "postgres");

  // postgres becomes the busiest; a process starts, another ends: rows move, one in, one out.
  demand[300] = 0.95;
  add({400, "make", kMe, 0.0});
  gone(201);
  const QPersistentModelIndex held = w->model().index(w->model().rowOfPid(300), 0);
  refresh();
  EXPECT_EQ(shown(*w), "300 200 100 400");
  auto merge = w->model().lastMerge();
  EXPECT_EQ(std::tuple(merge.removed, merge.inserted, merge.reordered), std::tuple(1, 1, true));
  EXPECT_EQ(held.row(), 0);  // persistent indexes move with their process
  const QModelIndexList selected = w->table()->selectionModel()->selectedRows();
  ASSERT_EQ(selected.size(), 1);
  EXPECT_EQ(w->model().pidAt(selected.first().row()), 300);
  EXPECT_EQ(w->selectedPid(), 300);
  EXPECT_EQ(w->pctCpuLabel()->text().toStdString(), "CPU: 95.0 %");

  refresh();  // nothing changed: nothing moves
  merge = w->model().lastMerge();
  EXPECT_EQ(std::tuple(merge.removed, merge.inserted, merge.reordered), std::tuple(0, 0, false));

  gone(300);
  refresh();
  EXPECT_EQ(w->selectedPid(), -1);
  EXPECT_TRUE(w->table()->selectionModel()->selectedRows().isEmpty());
  EXPECT_FALSE(w->coverBox()->isHidden());
  EXPECT_FALSE(w->limitControl()->controlEnabled());
}

// The limit cell of the frontmost process is in parentheses while frontmost limiting is off.
TEST_F(ProcinfoWindowTest, LimitControlLimitsClearsAndRemembersPerPowerSourceAndTheCellMarksTheFrontmost) {
  constexpr std::nullopt_t none = std::nullopt;
  PID::setFrontmostProvider([] { return std::optional<int32_t>(200); });
  open().selectPid(200);
  w->limitControl()->setValue(20);
  EXPECT_EQ(held(200), Held(0.2, 0.2, none, "(20.0)", true));
  settings.saveBool("LimitFrontmost", true);
  w->rebuild();
  EXPECT_EQ(cell(*w, 200, "limit"), "20.0");
  settings.saveBool("LimitFrontmost", false);
  PID::setFrontmostProvider([] { return std::optional<int32_t>(100); });
  refresh();  // the limiter learns who is in front at its refresh
  EXPECT_EQ(held(200), Held(0.2, 0.2, none, "20.0", true));
  // The battery list is remembered without touching the limit in force, and can be taken back from
  // there, by the button or by "None", still without touching it.
  w->changePowerSource(1);
  EXPECT_EQ(w->limitControl()->value(), 0);
  EXPECT_EQ(held(200), Held(0.2, 0.2, none, "20.0", false));
  for (const bool by_button : {true, false}) {
    SCOPED_TRACE(by_button ? "button" : "None");
    w->limitControl()->setValue(40);
    EXPECT_EQ(held(200), Held(0.2, 0.2, 0.4, "20.0", true));
    if (by_button)
      w->clearLimitButton()->click();
    else
      w->limitControl()->setValue(0);
    EXPECT_EQ(held(200), Held(0.2, 0.2, none, "20.0", false));
  }
  w->changePowerSource(0);
  EXPECT_EQ(w->limitControl()->value(), 20);
  w->limitControl()->setValue(0);  // "None"
  EXPECT_EQ(held(200), Held(none, none, none, "", false));

  w->limitControl()->setValue(35);
  w->selectPid(201);
  w->limitControl()->setValue(10);
  EXPECT_EQ(limiter->limits().size(), 2u);
  // "Clear All Limits" asks first.
  int asked = 0;
  bool answer = false;
  w->setConfirm([&](const QString&) { return ++asked, answer; });
  w->clearAllLimits();
  EXPECT_EQ(limiter->limits().size(), 2u);
  answer = true;
  w->clearAllLimits();
  EXPECT_EQ(asked, 2);
  EXPECT_TRUE(limiter->limits().empty());
  EXPECT_GE(wire->count(SIGCONT), 2) << "every limited process was continued on the way out";
}

TEST_F(ProcinfoWindowTest, ControlsNeedOwnershipOrAuthorisationAndThePriorityIsKeptPerPowerSource) {
  open();
  const struct {
    int32_t pid;
    bool authorised, enabled;
  } cases[] = {{200, false, true}, {300, false, false}, {100, false, false},
               {300, true, true},  {100, true, true},   {200, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.pid) + (c.authorised ? " authorised" : ""));
    authorise(c.authorised);
    w->selectPid(c.pid);
    EXPECT_EQ(w->limitControl()->controlEnabled(), c.enabled);
    EXPECT_EQ(w->reniceControl()->isEnabled(), c.enabled);
    // Without rights the owner may only lower the priority.
    EXPECT_EQ(w->reniceControl()->minimum() == -20, c.authorised);
  }
  // Authorised: renicing applies and is kept; the other source's choice is kept, not applied.
  w->reniceControl()->setValue(5);
  EXPECT_EQ(wire->priorities, (std::vector<std::pair<int32_t, int64_t>>{{200, 5}}));
  EXPECT_EQ(limiter->procSettings().priorityFor("firefox", "AC Power"), 5);
  w->changePowerSource(1);
  w->reniceControl()->setValue(10);
  EXPECT_EQ(wire->priorities.size(), 1u);
  EXPECT_EQ(limiter->procSettings().priorityFor("firefox", "Battery Power"), 10);
  // A disabled control changes nothing even if driven in code.
  w->changePowerSource(0);
  authorise(false);
  w->selectPid(300);
  EXPECT_EQ(w->authButton()->text().toStdString(), "Authorize…");
  w->limitControl()->setValue(50);
  w->reniceControl()->setValue(7);
  EXPECT_FALSE(limiter->limitFor(300));
  EXPECT_EQ(wire->priorities.size(), 1u);
}

TEST_F(ProcinfoWindowTest, QuitAndForceQuitAskFirst) {
  std::vector<std::string> questions;
  bool answer = false;
  open().setConfirm([&](const QString& q) {
    questions.push_back(q.toStdString());
    return answer;
  });
  w->selectPid(200);
  w->quitSelected();
  EXPECT_EQ(wire->count(SIGTERM), 0);
  answer = true;
  w->quitSelected();
  w->forceQuitSelected();
  EXPECT_EQ(wire->signals, (std::vector<std::pair<int32_t, int64_t>>{{200, SIGTERM}, {200, SIGKILL}}));
  ASSERT_EQ(questions.size(), 3u);
  EXPECT_NE(questions[2].find("firefox"), std::string::npos);
  // Another user's process without rights: not even asked.
  authorise(false);
  w->selectPid(300);
  w->forceQuitSelected();
  EXPECT_EQ(questions.size(), 3u);
}

// "Include child processes" beside the limit: the limit set with it holds the whole tree in the real
// limiter, the first process's row shows the group, its members are marked and cannot be limited
// apart, and the choice is remembered per power source.
TEST_F(ProcinfoWindowTest, IncludeChildProcessesHoldsTheTreeAndTheRowsShowIt) {
  // make (20) -> cc (21), cc (22); shell (30) apart
  open({{20, "make", kMe, 0.5}, {21, "cc", kMe, 0.5, 20}, {22, "cc", kMe, 0.5, 20}, {30, "shell", kMe, 0.5}});
  w->selectPid(20);
  QCheckBox* include = w->includeChildrenControl();
  ASSERT_TRUE(include->isEnabled());
  EXPECT_FALSE(include->isChecked());
  // Ticked first, then the share: the limit holds the tree.
  include->click();
  refresh();  // a refresh between the two does not lose the choice
  EXPECT_TRUE(include->isChecked());
  w->limitControl()->setValue(40);
  EXPECT_EQ(limiter->trees()[20], (std::set<int32_t>{20, 21, 22}));
  EXPECT_TRUE(limiter->procSettings().limitHoldsTree("make", "AC Power"));
  refresh();
  EXPECT_EQ(held(20), Held(0.4, 0.4, std::nullopt, "40.0 Σ", true));
  EXPECT_EQ(cell(*w, 21, "limit"), "with 20");
  // A member: the group's limit, shown and not settable apart.
  w->selectPid(21);
  EXPECT_EQ(w->limitControl()->value(), 40);
  EXPECT_TRUE(include->isChecked());
  EXPECT_FALSE(include->isEnabled() || w->limitControl()->controlEnabled() || w->clearLimitButton()->isEnabled());
  w->selectPid(30);
  EXPECT_FALSE(include->isChecked()) << "another process starts unticked";
  // Unticked on the first process: the limit stays, on it alone.
  w->selectPid(20);
  include->click();
  EXPECT_EQ(held(20), Held(0.4, 0.4, std::nullopt, "40.0", true));
  EXPECT_FALSE(limiter->procSettings().limitHoldsTree("make", "AC Power"));
  EXPECT_EQ(cell(*w, 21, "limit"), "");
  // The battery's list remembers the choice without touching the limit in force.
  w->changePowerSource(1);
  w->limitControl()->setValue(25);
  include->click();
  EXPECT_TRUE(limiter->procSettings().limitHoldsTree("make", "Battery Power"));
  EXPECT_EQ(held(20), Held(0.4, 0.4, 0.25, "40.0", true));
  w->changePowerSource(0);
  EXPECT_FALSE(include->isChecked());
  w->changePowerSource(1);
  EXPECT_TRUE(include->isChecked());
}

TEST_F(ProcinfoWindowTest, OpenFilesListsDescriptorsOrSaysTheyCannotBeRead) {
  procinfo p;
  p.pid = 4321;
  p.name = "editor";
  OpenFilesWindow files(helper, p, QIcon());
  EXPECT_EQ(files.list()->rowCount(), 0);  // the simulated helper does not answer "pidfiles"
  EXPECT_NE(files.status()->text().toStdString().find("cannot be read"), std::string::npos);
  files.showFiles(std::map<int, std::string>{{0, "/dev/null"}, {3, "/home/a/notes.txt"}, {12, "socket:[991]"}});
  ASSERT_EQ(files.list()->rowCount(), 3);
  EXPECT_EQ(files.list()->item(1, 0)->text().toStdString(), "3");
  EXPECT_EQ(files.list()->item(1, 1)->text().toStdString(), "/home/a/notes.txt");
  EXPECT_EQ(files.status()->text().toStdString(), "3 open file(s)");
}

}  // namespace
}  // namespace pelmora
