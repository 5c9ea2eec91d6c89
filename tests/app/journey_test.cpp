// User journeys across the windows of the real application object: its menus, windows, dialogs and
// signals as a user meets them, each journey crossing a seam that the windows' own tests do not.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFontDialog>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>

#include "app/app_rig.h"
#include "app/dock.h"
#include "app/process_table_model.h"
#include "app/slow_authorize_daemon.h"
#include "common/child.h"
#include "common/live_limiter.h"
#include "graphs/views/graph_legend.h"
#include "graphs/views/graph_popover.h"
#include "graphs/views/kind_graph_view.h"
#include "support/proc_task_reader.h"
#include "support/settings_keys.h"
#include "support/socket_transport.h"
#include "support/timeval.h"

namespace pelmora {
namespace {

using app_test::AppRig;

// The item called `text` (mnemonic aside) in one of the application's menus; the test fails without it.
QAction* menuItem(AppDelegate& app, const QString& text) {
  for (QMenu* menu : app.mainMenus())
    for (QAction* item : menu->actions())
      if (QString(item->text()).remove(QLatin1Char('&')) == text) return item;
  ADD_FAILURE() << "no menu item " << text.toStdString();
  static QAction none;
  return &none;
}

// Opens a dialog of type D with `open`, sets it with `set` once it is up (it may run a loop of its
// own, or not) and presses OK.
template <typename D>
void answerDialog(const std::function<void()>& open, std::function<void(D*)> set) {
  auto answered = std::make_shared<bool>(false);
  QTimer::singleShot(0, [answered, set = std::move(set)] {
    QWidget* modal = nullptr;
    for (int i = 0; i < 200 && !(modal = QApplication::activeModalWidget()); ++i) QTest::qWait(5);
    auto* dialog = qobject_cast<D*>(modal);
    ASSERT_NE(dialog, nullptr);
    set(dialog);
    dialog->template findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
    *answered = true;
  });
  open();
  for (int i = 0; i < 400 && !*answered; ++i) QTest::qWait(5);
  ASSERT_TRUE(*answered);
}

// Samples of the scratch tree's four processors, each busy for a quarter of the time, so that every
// CPU graph shows a band well above its floor; each one past any update interval of the graphs and
// the icon.
void tick(AppRig& rig, FakeClock& clock, int64_t& k, int times) {
  for (int i = 0; i < times; ++i, ++k) {
    std::string stat = "cpu  0 0 0 0 0 0 0 0 0 0\n";
    for (int cpu = 0; cpu < 4; ++cpu)
      stat += "cpu" + std::to_string(cpu) + " " + std::to_string(20 * k) + " 0 " + std::to_string(10 * k) + " " +
              std::to_string(90 * k) + " 0 0 0 0 0 0\n";
    rig.scratch.write("proc/stat", stat);
    clock.advance_us(6'000'000);
    rig.sampler->tick();
    RunLoop::main().runUntilIdle();
  }
}

// Pixels of the chosen magenta, plain or as the fill's lighter tint; the default series colours
// (green, red) have no such pixel.
int magentaPixels(const QImage& image) {
  int count = 0;
  for (int y = 0; y < image.height(); ++y)
    for (int x = 0; x < image.width(); ++x) {
      const QColor c = image.pixelColor(x, y);
      count += c.red() > 200 && c.blue() > 200 && c.green() < 160;
    }
  return count;
}

// The statistics window's legend colour well and label font menu, each through its dialog: the
// window draws the colour, every graph takes the font, and the colour outlives a restart in the live
// icon.
TEST(Journey, LegendColourAndLabelFontThroughTheirDialogs) {
  stats_test::SwitchesGuard guard;
  GraphSwitches::current().radio_default = false;
  GraphSwitches::current().radio_light = true;  // white backgrounds whatever the platform theme
  AppRig rig;
  keys::kDockDisplay.save(rig.rig.store, static_cast<int>(Dock::Display::CPU));
  keys::kAppPelmora.save(rig.rig.store, false);  // not the first launch: no About box
  rig.app->finishLaunching();
  FakeClock clock;
  int64_t k = 1;
  menuItem(*rig.app, "Statistics")->trigger();
  SystemStatsWindow* stats = SystemStatsWindow::instance();
  ASSERT_NE(stats, nullptr);
  tick(rig, clock, k, 3);
  GraphViewCPU* total = stats->totalCpuView();
  EXPECT_EQ(magentaPixels(total->grab().toImage()), 0);

  QTest::mouseClick(total, Qt::LeftButton, {}, QPoint(20, 20));
  ASSERT_NE(total->popover(), nullptr);
  ASSERT_TRUE(total->popover()->isVisible());
  answerDialog<QColorDialog>([&] { QTest::mouseClick(total->legend()->colorButton(0), Qt::LeftButton); },
                             [](QColorDialog* dialog) { dialog->setCurrentColor(QColor(255, 0, 255)); });
  app_test::deleteLater();  // the popup's deferred delete runs, as it would in the event loop
  tick(rig, clock, k, 1);
  EXPECT_GT(magentaPixels(total->grab().toImage()), 0) << "the window draws the new colour";

  QFont chosen = stats->labelFont();
  chosen.setPointSizeF(chosen.pointSizeF() + 5.0);
  chosen.setItalic(!chosen.italic());
  answerDialog<QFontDialog>([&] { stats->fontMenu()->actions().at(0)->trigger(); },
                            [&](QFontDialog* dialog) { dialog->setCurrentFont(chosen); });
  EXPECT_EQ(stats->labelFont().italic(), chosen.italic());
  EXPECT_EQ(stats->labelFont().pointSizeF(), chosen.pointSizeF());
  for (GraphView* view : stats->findChildren<GraphView*>()) EXPECT_EQ(view->labelFont(), stats->labelFont());
  EXPECT_EQ(rig.rig.store.loadString("graph_label_font", ""), stats->labelFont().toString().toStdString());
  stats->fontMenu()->actions().at(1)->trigger();  // "Default Font"
  EXPECT_EQ(stats->labelFont(), SystemStatsWindow::defaultLabelFont());

  rig.restart();
  ASSERT_EQ(rig.app->dock()->displayType(), Dock::Display::CPU);
  EXPECT_EQ(GraphPalette::colors(GraphClass::cpu)[0], (GraphColor{255, 0, 255, 255}));
  tick(rig, clock, k, 3);
  EXPECT_GT(magentaPixels(rig.app->dock()->icon().pixmap(Dock::kTileSize_px).toImage()), 0)
      << "the live icon draws the saved colour after a restart";
}

TEST(Journey, SwitchingPowerSourceFromTheMenuAppliesFewerProcessorsAndTheStatisticsGridFollows) {
  stats_test::SwitchesGuard guard;
  AppRig rig;
  rig.rig.store.saveBool("graph_show_offline_cpus", false);  // the graph pane reads it at start
  rig.rig.script.counts = {4, 4, 4, 4};
  // The helper as the daemon and the kernel: "setcpucount" switches processors on or off in the
  // scratch tree, which the statistics window reads.
  rig.rig.wire->answer = [&rig](const XPCDict& r) {
    if (auto count = xpcInt(r, "count"); count && xpcHas(r, "setcpucount")) {
      rig.scratch.setCpus("0-3", *count == 1 ? "0" : "0-" + std::to_string(*count - 1));
      rig.rig.script.counts.logical_cpu = static_cast<int32_t>(*count);
    }
    return settings_test::answer(rig.rig.script, r);
  };
  rig.rig.store.saveDict("CPU_Settings", {{"CPUCount", {{"AC Power", 4}, {"Battery Power", 2}}}});
  keys::kAppSystemStats.save(rig.rig.store, true);
  keys::kAppPelmora.save(rig.rig.store, false);
  rig.app->finishLaunching();
  SystemStatsWindow* stats = SystemStatsWindow::instance();
  ASSERT_NE(stats, nullptr);
  ASSERT_EQ(stats->cpuViews().size(), 4u);

  menuItem(*rig.app, "Switch Power Source")->trigger();
  RunLoop::main().runUntilIdle();
  ASSERT_EQ(rig.app->window()->m_powersource->currentIndex(), 1);
  EXPECT_EQ(stats->cpuViews().size(), 2u) << "the statistics window rebuilt its processor graphs";
  // Offline processors keep their graphs when the preferences say so.
  GraphSwitches::current().show_offline_cpus = true;
  stats->graphSettingsChanged();
  EXPECT_EQ(stats->cpuViews().size(), 4u);
  GraphSwitches::current().show_offline_cpus = false;
  stats->graphSettingsChanged();

  menuItem(*rig.app, "Switch Power Source")->trigger();
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(stats->cpuViews().size(), 4u);
}

// The child's processor time so far, from the kernel's own counters, in clock ticks.
uint64_t cpuTicks(pid_t pid) {
  auto stat = ProcTaskReader().readStat(pid);
  return stat ? stat->utime_ticks + stat->stime_ticks : 0;
}

// Pumps both event queues of the GUI thread (Qt's and the main queue) for the given time, or until
// `done` holds (a bound, never a measurement); whether it held.
bool pump(std::chrono::milliseconds time, const std::function<bool()>& done = nullptr) {
  const auto until = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < until && !(done && done())) {
    QCoreApplication::processEvents();
    RunLoop::main().runFor(std::chrono::milliseconds(5));
  }
  return done && done();
}

struct Watched {
  double share = 0.0;  // of one processor, from the kernel's counters
  int cycles = 0;      // stops and continues the daemon delivered
};

// Pumps the GUI thread's queues for `time` while the limiter works on the child.
Watched watch(pid_t child, const test::CountingTransport& counts, std::chrono::milliseconds time) {
  const int cycles0 = counts.stops + counts.continues;
  const uint64_t ticks0 = cpuTicks(child);
  const auto start = std::chrono::steady_clock::now();
  pump(time);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return {static_cast<double>(cpuTicks(child) - ticks0) / static_cast<double>(::sysconf(_SC_CLK_TCK)) / seconds,
          counts.stops + counts.continues - cycles0};
}

// The lock button's "authorize" waits for a password while the GUI thread goes on and the limiter, on
// its own connection to the real daemon, goes on stopping and continuing the limited child.
TEST(Journey, LockButtonWaitsForThePasswordWhileTheGuiAnswersAndTheLimitedChildKeepsItsDutyCycle) {
  stats_test::Scratch scratch;
  settings_test::Rig settings;  // its store, power monitor on a fixture supply tree, scratch folder
  const auto sys = settings.dir / "sys";
  std::filesystem::copy(std::string(PELMORA_FIXTURES) + "/cpu-nosmt-4c", sys, std::filesystem::copy_options::recursive);
  app_test::SlowAuthorizeDaemon daemon(settings.dir / "helper.sock", SysRoot("/proc", sys.string()));
  ASSERT_TRUE(daemon.listening());
  auto transport = std::make_unique<test::CountingTransport>(std::make_unique<SocketTransport>(daemon.path()), true);
  const test::CountingTransport& counts = *transport;
  Pelmora helper(std::move(transport), daemon.authorizeTransport());
  CPULimiter limiter(helper, SysRoot::current(), settings.store,
                     CPULimiter::Options{"/bin/true", settings.dir / "held-live"});
  limiter.setProcessesInterval_ms(1000);
  auto sampler = scratch.sampler();
  const test::Child child = test::Child::busy();
  {
    AppServices services{helper, limiter, settings.power, *sampler, settings.store, nullptr, {}};
    services.window_options.start_watch = false;
    services.sleep_source = [] { return std::unique_ptr<SleepSource>(); };
    services.desktop_bus = nullptr;
    AppDelegate app(std::move(services));
    keys::kAppPelmora.save(settings.store, false);
    app.finishLaunching();
    menuItem(app, "Processes")->trigger();
    ProcinfoWindow* processes = ProcinfoWindow::shared();
    ASSERT_NE(processes, nullptr);
    pump(std::chrono::seconds(10), [&] { return processes->model().rowOfPid(child.pid()) >= 0; });
    processes->selectPid(child.pid());
    ASSERT_TRUE(processes->limitControl()->controlEnabled());
    // Low enough that the child needs holding back however busy the machine is with other work.
    processes->limitControl()->setValue(5);
    ASSERT_EQ(limiter.limitFor(child.pid()), 0.05);
    const Watched before = watch(child.pid(), counts, std::chrono::milliseconds(3000));
    EXPECT_GT(before.cycles, 0) << "the limiter holds the child back";
    // The table reports the time the child was held stopped.
    EXPECT_TRUE(pump(std::chrono::seconds(60),
                     [&] { return limiter.rowFor(child.pid()).value_or(procinfo{}).pctWaiting > 0.0; }));

    PelmoraWindow* settings_window = app.window();
    QTest::mouseClick(settings_window->m_auth, Qt::LeftButton);
    // The click returned before the password was given: the GUI thread is free while the request
    // waits for it.
    pump(std::chrono::seconds(5), [&] { return daemon.waiting() > 0; });
    ASSERT_EQ(daemon.waiting(), 1);
    EXPECT_EQ(settings_window->m_auth->text(), QStringLiteral("Waiting for authentication…"));
    EXPECT_FALSE(settings_window->m_auth->isEnabled());
    const Watched during = watch(child.pid(), counts, std::chrono::milliseconds(3000));
    EXPECT_EQ(daemon.waiting(), 1);
    EXPECT_GT(during.cycles, 0) << "the limiter went on stopping and continuing";
    std::printf(
        "limited child at 5 %%: %.1f %% before, %.1f %% while authorize was pending; "
        "stops and continues %d before, %d during\n",
        before.share * 100.0, during.share * 100.0, before.cycles, during.cycles);

    daemon.givePassword();
    EXPECT_TRUE(pump(std::chrono::seconds(10), [&] { return helper.authorised(); }));
    pump(std::chrono::milliseconds(20));
    EXPECT_TRUE(settings_window->m_throttle->isEnabled());
    EXPECT_EQ(settings_window->m_auth->text(), QStringLiteral("Click the lock to prevent changes"));
    processes->clearLimit();
    EXPECT_FALSE(limiter.limitFor(child.pid()));
    processes->close();
    app_test::deleteLater();
    app.terminate();
  }
  EXPECT_NE(test::procState(child.pid()), 'T') << "nothing is left stopped";
  RunLoop::main().runUntilIdle();
}

}  // namespace
}  // namespace pelmora
