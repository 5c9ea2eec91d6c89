// The application object offscreen: a scripted helper behind a real client, the real windows, a core
// that records what start-up, sleep and quit ask of the limiter and power monitor, a real sampler
// with a recording client, and a sleep source the test drives.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QAction>
#include <QApplication>
#include <QLocale>
#include <QSystemTrayIcon>

#include <filesystem>
#include <functional>
#include <utility>

#include "app/app_rig.h"
#include "app/dock.h"
#include "app/process_table_model.h"
#include "app/status_bar_controller.h"
#include "common/child.h"
#include "common/words.h"
#include "graphs/graph_switches.h"
#include "graphs/views/kind_graph_view.h"
#include "process_control/proc_settings.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/settings_keys.h"
#include "support/timeval.h"

namespace pelmora {
namespace {

using namespace app_test;

// Start-up with every window remembered open. The statistics window's counts are read from the
// limiter's table of this machine's /proc, so they are never all 0: this test program itself is one
// of them, counted as the system's when it runs as root.
TEST(AppDelegateTest, StartUpCreatesTheObjectsInOrderAndTheStatisticsCountTheLimitersTableUntilQuit) {
  stats_test::SwitchesGuard switches;
  FakeClock clock;
  AppRig rig;
  keys::kAppPelmora.save(rig.rig.store, true);
  keys::kAppProcesses.save(rig.rig.store, true);
  keys::kAppSystemStats.save(rig.rig.store, true);
  rig.app->finishLaunching();
  const Steps expected{"PreferencesWindow", "PelmoraWindow", "Dock", "StatusBarController", "ProcinfoWindow",
                       "SystemStatsWindow", "core:startPowerMonitor", "PowerMonitor", "core:startLimiter",
                       "CPULimiter", "SleepNotify", "listener"};
  EXPECT_EQ(rig.steps, expected);
  EXPECT_TRUE(rig.app->sleepListening());
  EXPECT_NE(ProcinfoWindow::shared(), nullptr);
  ASSERT_NE(SystemStatsWindow::instance(), nullptr);

  // After start-up, which loads the saved graph settings: every sample a second apart redraws.
  GraphSwitches::current().update_interval = 0;
  GraphSwitches::current().show_current = true;
  rig.rig.limiter.refresh();
  const auto table = rig.rig.limiter.processes();
  ASSERT_TRUE(table.count(static_cast<int32_t>(getpid())));
  clock.advance_us(2'000'000);
  rig.sampler->tick();
  RunLoop::main().runUntilIdle();
  const procstat counts = rig.sampler->snapshot().proc_stats;
  EXPECT_EQ(counts.user + counts.system + counts.other, static_cast<int64_t>(table.size()));
  EXPECT_GE(getuid() == 0 ? counts.system : counts.user, 1);
  GraphViewProc* view = nullptr;
  for (GraphView* graph : SystemStatsWindow::instance()->findChildren<GraphView*>())
    if (auto* proc = dynamic_cast<GraphViewProc*>(graph)) view = proc;
  ASSERT_NE(view, nullptr);
  const std::string shown = view->labelText().toStdString();
  const std::string mine = getuid() == 0 ? "System: " + std::to_string(counts.system)
                                         : "My Procs: " + std::to_string(counts.user);
  EXPECT_NE(shown.find(mine), std::string::npos) << shown;

  // After quit the sampler no longer asks the limiter, which may be gone.
  rig.app->terminate();
  rig.sampler->tick();
  EXPECT_EQ(rig.sampler->snapshot().proc_stats, procstat{});
}

enum class Shown { absent, visible, hidden, minimised };

TEST(AppDelegateTest, QuitWritesTheWindowKeysContinuesProcessesAndSwitchesThrottlingOn) {
  struct Row {
    bool settings_visible;
    Shown processes;
    Shown stats;
    bool app_pelmora, app_processes, app_stats;
  };
  const Row rows[] = {
      {true, Shown::absent, Shown::absent, false, false, false},
      {false, Shown::visible, Shown::visible, true, true, true},
      {true, Shown::hidden, Shown::minimised, false, false, true},
      {false, Shown::absent, Shown::visible, true, false, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(&row - rows));
    AppRig rig;
    keys::kAppPelmora.save(rig.rig.store, false);
    keys::kShowMenubar.save(rig.rig.store, true);
    rig.app->finishLaunching();
    if (row.processes != Shown::absent) rig.app->showProcesses();
    if (row.processes == Shown::hidden) ProcinfoWindow::shared()->hide();
    if (row.stats != Shown::absent) rig.app->showSystemStats();
    if (row.stats == Shown::minimised) SystemStatsWindow::instance()->showMinimized();
    rig.app->window()->setVisible(row.settings_visible);
    rig.rig.clear();
    rig.steps.clear();

    rig.app->terminate();
    rig.app->terminate();  // a second call (aboutToQuit after the session's commit) does nothing
    rig.rig.store.reload();
    EXPECT_EQ(keys::kAppPelmora.load(rig.rig.store), row.app_pelmora);
    EXPECT_EQ(keys::kAppProcesses.load(rig.rig.store), row.app_processes);
    EXPECT_EQ(keys::kAppSystemStats.load(rig.rig.store), row.app_stats);
    EXPECT_EQ(rig.steps, (Steps{"core:stopLimiter", "core:stopPowerMonitor"}));
    const auto throttle = rig.rig.sent("throttle");
    ASSERT_EQ(throttle.size(), 1u);
    EXPECT_EQ(xpcInt(throttle[0], "enable"), 1);
    ASSERT_EQ(rig.rig.wire->one_way.size(), 1u);
    EXPECT_TRUE(xpcHas(rig.rig.wire->one_way[0], "quit"));
    EXPECT_FALSE(rig.app->sleepListening());
  }
}

TEST(AppDelegateTest, SleepAndWakeStopAndRestartOnlyWhatTheyShould) {
  struct Row {
    SleepEvent event;
    const char* steps;
    size_t cpu_requests;
    int restarts;
    const char* line;
  };
  const Row rows[] = {
      {SleepEvent::willSleep, "core:stopLimiter core:samplerSleeps source:release", 0, 0,
       "Sleep - willSleep - limiter stopped"},
      {SleepEvent::screensDidSleep, "", 0, 0, "Sleep - Screens did Sleep - ignore"},
      {SleepEvent::didWake, "source:hold core:startLimiter core:samplerWakes", 1, 1,
       "Sleep - Wakeup - restart limiter"},
      {SleepEvent::screensDidWake, "", 1, 0, "Sleep - Wakeup: Screens woke up - ignore"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(sleepEventName(row.event)));
    AppRig rig;
    rig.app->finishLaunching();
    rig.steps.clear();
    rig.rig.clear();
    LogCapture log;
    rig.send(row.event);
    EXPECT_EQ(rig.steps, test::words(row.steps));
    EXPECT_EQ(rig.rig.sent("setcpucount").size(), row.cpu_requests);
    EXPECT_EQ(rig.client->restarts, row.restarts);
    EXPECT_TRUE(log.contains(row.line));
  }
}

// Only the CPU settings window (and, at the first launch, the About box) opens at start.
TEST(AppDelegateTest, PresentationAlwaysLeavesAWayInAndFollowsThePreferences) {
  struct Row {
    int app_pelmora;  // stored "settings window hidden at the last quit"; -1 the first launch
    bool show_dock, show_menubar, tray;
    bool status_item, settings_visible, task_bar;
  };
  const Row rows[] = {
      {1, false, false, true, false, true, false},  // neither: the settings window stays up
      {1, false, true, true, true, false, false},
      {1, true, true, false, false, true, true},  // no tray: as with the status item off
      {1, true, false, true, false, true, true},
      {-1, true, false, false, false, true, true},
      {0, true, false, false, false, true, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(&row - rows));
    AppRig rig(row.tray);
    if (row.app_pelmora >= 0) keys::kAppPelmora.save(rig.rig.store, row.app_pelmora == 1);
    keys::kShowDock.save(rig.rig.store, row.show_dock);
    keys::kShowMenubar.save(rig.rig.store, row.show_menubar);
    rig.app->finishLaunching();
    EXPECT_EQ(rig.app->statusItemShown(), row.status_item);
    EXPECT_EQ(rig.app->window()->isVisible(), row.settings_visible);
    EXPECT_EQ(rig.app->taskBarPresence(), row.task_bar);
    EXPECT_EQ(rig.app->window()->windowFlags().testFlag(Qt::Tool), !row.task_bar);
    EXPECT_EQ(QApplication::quitOnLastWindowClosed(), !row.status_item);
    EXPECT_EQ(rig.app->aboutBox() != nullptr && rig.app->aboutBox()->isVisible(), row.app_pelmora < 0);
    EXPECT_EQ(ProcinfoWindow::shared(), nullptr);
    EXPECT_EQ(SystemStatsWindow::instance(), nullptr);
    EXPECT_FALSE(rig.app->window()->windowIcon().isNull());

    // The status item's preference turned the other way and announced: the presentation follows, and
    // without the status item the settings window is the way in.
    keys::kShowMenubar.save(rig.rig.store, !row.show_menubar);
    Broadcast(kPrefsChangedBroadcast, false);
    ASSERT_EQ(rig.app->statusItemShown(), !row.show_menubar && row.tray);
    EXPECT_TRUE(rig.app->statusItemShown() || rig.app->window()->isVisible());
    if (!rig.app->statusItemShown()) continue;
    const QImage image = rig.app->statusBar()->tray()->icon().pixmap(22, 22).toImage();
    int painted = 0;
    for (int y = 0; y < image.height(); ++y)
      for (int x = 0; x < image.width(); ++x) painted += qAlpha(image.pixel(x, y)) > 0;
    EXPECT_GT(painted, 22 * 22 / 4);
  }
}

TEST(AppDelegateTest, DockMenuChecksTheChosenItemAndAStrangerPassesMinusOne) {
  AppRig rig;
  rig.app->finishLaunching();
  const auto items = rig.app->dockMenuItems()->actions();
  ASSERT_EQ(items.size(), Dock::kDisplayCount);
  rig.app->dockMenu(items[1]);
  EXPECT_EQ(rig.app->dock()->displayType(), Dock::Display::CPU);
  for (int i = 0; i < items.size(); ++i) EXPECT_EQ(items[i]->isChecked(), i == 1) << i;

  QAction stranger(QStringLiteral("stranger"));
  rig.app->dockMenu(&stranger);
  EXPECT_EQ(rig.app->dock()->displayType(), Dock::Display::Icon);
  for (QAction* item : items) EXPECT_FALSE(item->isChecked());
}

TEST(AppDelegateTest, FrontmostLimitingIsSuspendedWhileWeAreInFront) {
  AppRig rig;
  keys::kLimitFrontmost.save(rig.rig.store, true);
  rig.app->finishLaunching();
  rig.steps.clear();
  rig.app->activeChanged(true);
  rig.app->activeChanged(false);
  EXPECT_EQ(rig.steps, (Steps{"core:frontmost off", "core:frontmost on"}));
}

// Nothing runs for nobody: the limiter's timer reads every process only while the process window
// shows the table; without it, it notes new processes only while something needs their owners and
// names (a remembered limit, the process counts of a graph), and otherwise reads nothing.
TEST(AppDelegateTest, TheLimiterReadsTheProcessesOnlyForSomeoneWhoNeedsThem) {
  FakeClock clock;
  AppRig rig;
  rig.sampler->removeClient(rig.client);  // no graph asks for the process counts
  keys::kAppPelmora.save(rig.rig.store, true);
  rig.app->finishLaunching();
  CPULimiter& limiter = rig.rig.limiter;
  const std::string power = limiter.procSettings().power();
  struct Step {
    const char* what;
    std::function<void()> act;
    uint64_t full, light;  // passes so far
  };
  const Step steps[] = {
      {"first launch, no window", [] {}, 0, 0},
      {"process window shown", [&] { rig.app->showProcesses(); }, 1, 0},
      {"process window minimised", [&] { ProcinfoWindow::shared()->hide(); }, 1, 0},
      {"shown again", [&] { ProcinfoWindow::shared()->show(); }, 2, 0},
      {"closed", [&] { ProcinfoWindow::shared()->close(); }, 2, 0},
      {"a limit remembered by name", [&] { limiter.procSettings().setLimit("pelmora-test-none", power, 0.5); }, 2, 1},
      {"forgotten again", [&] { limiter.procSettings().removeLimit("pelmora-test-none", power); }, 2, 1},
      {"a graph counts the processes", [&] { rig.sampler->tick(); }, 2, 2},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.act();
    RunLoop::main().runUntilIdle();
    clock.advance_us(limiter.processesInterval_ms() * 1000);
    limiter.tick();
    const RefreshCounts counts = limiter.refreshCounts();
    EXPECT_EQ(counts.full, step.full);
    EXPECT_EQ(counts.light, step.light);
  }
  // A hidden window leaves its rows as they were: a process that started meanwhile appears when the
  // window shows again.
  rig.app->showProcesses();
  ProcinfoWindow* window = ProcinfoWindow::shared();
  ASSERT_NE(window, nullptr);
  window->hide();
  const test::Child sleeper = test::sleepingChild();
  const pid_t child = sleeper.pid();
  limiter.refresh();
  RunLoop::main().runUntilIdle();
  EXPECT_TRUE(limiter.rowFor(child).has_value());
  EXPECT_EQ(window->model().rowOfPid(child), -1);
  window->show();
  EXPECT_GE(window->model().rowOfPid(child), 0);
}

TEST(StatusBarControllerTest, ReadoutsScaleByTheLogicalCount) {
  QLocale::setDefault(QLocale::c());
  // The split is of the whole machine: it adds up to 100 % on four processors as on one.
  const auto lines = statusReadouts({0.125, 0.25, 0.625}, {1500.0, 2'000'000.0}, {8, 4, 6, 3});
  EXPECT_EQ(lines[0], "CPU: system 12.5 %, user 25.0 %, idle 62.5 %");
  EXPECT_EQ(lines[1], "Disk: read 1.5 KiB/s, write 1.9 MiB/s");
  EXPECT_EQ(lines[2], "Processors: 6 logical, 3 physical");
}

// The machine's split and disk rates come from the table refresh, which runs only while something
// shows them: the open menu keeps them measured and never shows figures from before it opened.
TEST(StatusBarControllerTest, AnOpenMenuKeepsItsFiguresMeasuredAndARefreshWithoutTheHelperLeavesThem) {
  settings_test::Rig rig;
  rig.limiter.setTableOnDemand(true);
  StatusBarController bar(rig.helper, rig.limiter, [] { return false; });
  ASSERT_FALSE(rig.limiter.tableWanted());
  emit bar.statusMenu()->aboutToShow();
  EXPECT_TRUE(rig.limiter.tableWanted()) << "the open menu is a client of the table";
  EXPECT_EQ(bar.readout(1)->text(), "Disk: measuring…");
  EXPECT_FALSE(bar.toolTip().contains("Disk")) << bar.toolTip().toStdString();
  rig.limiter.refresh();
  rig.limiter.refresh();
  bar.refreshReadouts();
  EXPECT_TRUE(bar.readout(0)->text().startsWith("CPU: system")) << bar.readout(0)->text().toStdString();
  EXPECT_TRUE(bar.readout(1)->text().startsWith("Disk: read")) << bar.readout(1)->text().toStdString();
  EXPECT_TRUE(bar.toolTip().contains("Disk: read"));
  emit bar.statusMenu()->aboutToHide();
  EXPECT_FALSE(rig.limiter.tableWanted()) << "a closed menu still holds the table";
  EXPECT_FALSE(bar.toolTip().contains("Disk"));
  // Without the helper a refresh leaves the items as they were.
  EXPECT_TRUE(bar.readout(2)->text().startsWith("Processors: 6 logical"));
  rig.script.answers = false;
  bar.readout(2)->setText("kept");
  bar.refreshReadouts();
  EXPECT_EQ(bar.readout(2)->text(), "kept");
  EXPECT_FALSE(bar.readout(0)->isEnabled());
}

TEST(CopyToolTest, ReplacesWhatIsThereAndReportsFailures) {
  const test::TempDir dir;
  dir.write("tool", "new");
  dir.write("victim", "keep");
  dir.write("old", "old");
  std::filesystem::create_symlink(dir / "victim", dir / "link");
  using Row = std::pair<const char*, bool>;  // the target, and whether it can be written
  for (const auto& [target, ok] :
       {Row{"old", true}, Row{"link", true}, Row{"fresh", true}, Row{"missing/dir/tool", false}}) {
    SCOPED_TRACE(target);
    std::string error;
    EXPECT_EQ(copyTool((dir / "tool").string(), (dir / target).string(), error), ok);
    EXPECT_EQ(error.empty(), ok);
    if (ok) {
      EXPECT_EQ(dir.read(target) + (std::filesystem::is_symlink(dir / target) ? " via a link" : ""), "new");
    }
  }
  EXPECT_EQ(dir.read("victim"), "keep");
}

}  // namespace
}  // namespace pelmora
