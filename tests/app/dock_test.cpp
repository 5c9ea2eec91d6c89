// The live icon under the offscreen platform, fed made-up samples by hand.
#include <QApplication>

#include <gtest/gtest.h>

#include <set>

#include "app/dock.h"
#include "app/system_stats_window.h"
#include "graphs/views/graph_view_temperature.h"
#include "stats_test_support.h"
#include "support/timeval.h"

using namespace pelmora;
using namespace pelmora::stats_test;
using Kind = Dock::Display;

namespace {

class DockTest : public ::testing::Test {
 protected:
  void SetUp() override { scratch.setCpus("0-3", "0-3"); }
  // Counters keep growing from call to call, as a real machine's do.
  void feed(Dock& dock, const Devices& devices, int64_t count) {
    for (int64_t k = 0; k < count; ++k) {
      clock.advance_us(1'000'000);
      dock.statsUpdated(makeSample(devices, next_sample++));
    }
  }

  SwitchesGuard guard;
  FakeClock clock;
  Scratch scratch;
  std::shared_ptr<SystemStats> sampler = scratch.sampler();
  int64_t next_sample = 0;
};

// The colours of the tray icon: before any sample, without grids or a caption, only the background.
std::set<QRgb> trayColours(const Dock& dock) {
  const QImage image = dock.trayIcon().pixmap(Dock::kTraySize_px, Dock::kTraySize_px).toImage();
  std::set<QRgb> colours;
  for (int y = 0; y < image.height(); ++y)
    for (int x = 0; x < image.width(); ++x) colours.insert(image.pixel(x, y));
  return colours;
}

// Each kind shows its graph at tile size with its label, and gives the tray a graph of its own size
// without a caption; the Icon kind gives back the application's icon, to the window and the tray.
TEST_F(DockTest, EachKindShowsItsGraphAndLabelAndTheIconKindTheApplicationsIcon) {
  GraphSwitches::current().show_time_grid = false;
  GraphSwitches::current().show_scale_grid = false;
  const struct {
    Kind display;
    GraphClass graph;
    QString label;
  } cases[] = {
      {Kind::CPU, GraphClass::cpu, "System CPU: (%)"},    {Kind::DiskIO, GraphClass::io, "Total Disk I/O:\n"},
      {Kind::GPU, GraphClass::gfx, "GPU: Arc"},           {Kind::LoadAvg, GraphClass::load, "Load Average:"},
      {Kind::Memory, GraphClass::mem, "System Memory:"},  {Kind::Network, GraphClass::net, "Total Network:"},
      {Kind::Power, GraphClass::power, "Power:"},         {Kind::Processes, GraphClass::proc, "Processes:"},
      {Kind::Temperature, GraphClass::temp, "CPU Temp:"}, {Kind::Battery, GraphClass::battery, "Battery:"},
  };
  QPixmap own(16, 16);
  own.fill(Qt::red);
  const QIcon app_icon(own);
  QApplication::setWindowIcon(app_icon);
  for (const auto& c : cases) {
    SCOPED_TRACE(Dock::displayName(c.display).toStdString());
    Dock dock(*sampler, scratch.store());
    std::vector<qint64> announced;
    QObject::connect(&dock, &Dock::iconChanged, [&](const QIcon& icon) { announced.push_back(icon.cacheKey()); });
    dock.setDisplay(c.display);
    EXPECT_EQ(dock.trayIcon().availableSizes(), QList<QSize>{QSize(Dock::kTraySize_px, Dock::kTraySize_px)});
    EXPECT_EQ(trayColours(dock).size(), 1u);
    EXPECT_NE(QApplication::windowIcon().cacheKey(), app_icon.cacheKey());
    feed(dock, {4, {}, {}, {"Arc", "Xe"}, 0}, 3);
    ASSERT_NE(dock.view(), nullptr);
    EXPECT_EQ(dock.view()->graphClass(), c.graph);
    EXPECT_EQ(dock.view()->label(), c.label);
    EXPECT_TRUE(dock.view()->displayDock());
    EXPECT_EQ(dock.view()->size(), QSize(Dock::kTileSize_px, Dock::kTileSize_px));
    dock.setDisplay(Kind::Icon);
    EXPECT_EQ(dock.view(), nullptr);
    EXPECT_EQ(QApplication::windowIcon().cacheKey(), app_icon.cacheKey());
    EXPECT_EQ(dock.trayIcon().cacheKey(), app_icon.cacheKey());
    ASSERT_FALSE(announced.empty());
    EXPECT_EQ(announced.back(), app_icon.cacheKey());
  }
  QApplication::setWindowIcon(QIcon());
}

TEST_F(DockTest, HistoriesKeepTheNewest72) {
  const struct {
    int64_t samples;
    size_t expected;
  } cases[] = {{1, 1}, {72, 72}, {73, 72}, {100, 72}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.samples) + " samples");
    Dock dock(*sampler, scratch.store());
    dock.setDisplay(Kind::CPU);
    feed(dock, {4, {"sda"}, {"eth0", "wlan0"}, {"Arc"}, 1}, c.samples);
    // CPU, disk, load, memory, network, power, processes and the one GPU.
    EXPECT_EQ(dock.historyLengths(), std::vector<size_t>(8, c.expected));
    // The view was handed the capped history: one column per pair of samples.
    EXPECT_EQ(dynamic_cast<GraphViewCPU*>(dock.view())->model().columns.size(), c.expected - 1);
    dock.setDisplay(Kind::Icon);
  }
}

TEST_F(DockTest, VanishedGpuLosesItsHistory) {
  Dock dock(*sampler, scratch.store());
  dock.setDisplay(Kind::GPU);
  feed(dock, {4, {}, {}, {"Arc", "Xe"}, 0}, 5);
  EXPECT_EQ(dock.historyLengths().size(), 9u);
  EXPECT_EQ(dock.view()->label(), "GPU: Arc");
  feed(dock, {4, {}, {}, {"Xe"}, 0}, 1);
  EXPECT_EQ(dock.historyLengths().size(), 8u);
  EXPECT_EQ(dock.view()->label(), "GPU: Xe");
  feed(dock, {4, {}, {}, {}, 0}, 1);
  EXPECT_EQ(dynamic_cast<GraphViewGFX*>(dock.view())->model().columns.size(), 0u);
}

TEST_F(DockTest, SavedKindRestoredAtTheNextStart) {
  for (int raw = 0; raw < Dock::kDisplayCount; ++raw) {
    SCOPED_TRACE(raw);
    {
      Dock dock(*sampler, scratch.store());
      dock.setDisplay(static_cast<Kind>(raw));
    }
    EXPECT_EQ(sampler->clientCount(), 0u) << "a destroyed Dock is no client";
    DefaultSettings reread(scratch.store().file());
    Dock restarted(*sampler, reread);
    EXPECT_EQ(restarted.displayType(), static_cast<Kind>(raw));
    EXPECT_EQ(restarted.attached(), raw != 0);
  }
  for (int64_t bad : {int64_t{-1}, int64_t{Dock::kDisplayCount}, int64_t{1000}}) {
    SCOPED_TRACE(bad);
    scratch.store().saveInt("DOCK_display", bad);
    Dock dock(*sampler, scratch.store());
    EXPECT_EQ(dock.displayType(), Kind::Icon);
    EXPECT_FALSE(dock.attached());
  }
}

TEST_F(DockTest, IconDrawnAtMostOncePerSecond) {
  Dock dock(*sampler, scratch.store());
  dock.setDisplay(Kind::Power);
  const int64_t at_switch = dock.iconDraws();
  EXPECT_GE(at_switch, 1);
  const QIcon first = dock.icon();
  // Ten samples within the same second: no new pixmap.
  for (int k = 0; k < 10; ++k) dock.statsUpdated(makeSample({}, k));
  EXPECT_EQ(dock.iconDraws(), at_switch);
  clock.advance_us(999'999);
  dock.statsUpdated(makeSample({}, 10));
  EXPECT_EQ(dock.iconDraws(), at_switch);
  clock.advance_us(1);
  dock.statsUpdated(makeSample({}, 11));
  EXPECT_EQ(dock.iconDraws(), at_switch + 1);
  EXPECT_NE(dock.icon().cacheKey(), first.cacheKey());
  EXPECT_EQ(QApplication::windowIcon().cacheKey(), dock.icon().cacheKey());
}

// The sampler runs while the live icon shows a graph or the window is open, whichever goes last; the
// application icon drops what was kept.
TEST_F(DockTest, TheSamplerRunsWhileTheIconOrTheWindowNeedsIt) {
  Dock dock(*sampler, scratch.store());
  SystemStatsWindow window(*sampler, scratch.store(), scratch.root());
  EXPECT_FALSE(dock.attached());
  auto show = [&](Kind kind) { return [&dock, kind] { dock.setDisplay(kind); }; };
  const struct {
    const char* what;
    std::function<void()> act;
    bool attached;
    size_t clients;
  } steps[] = {
      {"CPU", show(Kind::CPU), true, 1},
      {"memory", show(Kind::Memory), true, 1},
      {"icon", show(Kind::Icon), false, 0},
      {"icon again", show(Kind::Icon), false, 0},
      {"network", show(Kind::Network), true, 1},
      {"network again", show(Kind::Network), true, 1},
      {"window shown", [&] { window.show(); }, true, 2},
      {"window closed: the live icon still samples", [&] { window.close(); }, true, 1},
      {"icon", show(Kind::Icon), false, 0},
      {"load", show(Kind::LoadAvg), true, 1},
      {"window shown", [&] { window.show(); }, true, 2},
      {"icon: the window is the last to go", show(Kind::Icon), false, 1},
      {"window closed", [&] { window.close(); }, false, 0},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    step.act();
    EXPECT_EQ(dock.attached(), step.attached);
    EXPECT_EQ(sampler->clientCount(), step.clients);
    EXPECT_EQ(sampler->running(), step.clients > 0);
  }
  dock.setDisplay(Kind::CPU);
  feed(dock, {}, 10);
  dock.setDisplay(Kind::Icon);
  EXPECT_EQ(dock.historyLengths(), std::vector<size_t>(7, 0u));
}

TEST_F(DockTest, DiskGraphFollowsTheWindowsDataSelector) {
  // Without the window the live icon shows bytes; with it, whatever the window's selector shows.
  Dock dock(*sampler, scratch.store());
  dock.setDisplay(Kind::DiskIO);
  feed(dock, {}, 5);
  auto* io = dynamic_cast<GraphViewIO*>(dock.view());
  const double bytes_peak = io->model().max;
  scratch.store().saveBool("graph_show_data_io", false);
  SystemStatsWindow* window = SystemStatsWindow::openShared(*sampler, scratch.store());
  feed(dock, {}, 5);
  EXPECT_LT(io->model().max, bytes_peak) << "operations are far fewer than bytes";
  EXPECT_EQ(SystemStatsWindow::openShared(*sampler, scratch.store()), window) << "one shared window";
  window->setShowDataIO(true);
  feed(dock, {}, 5);
  EXPECT_EQ(io->model().max, bytes_peak);
  window->close();
  EXPECT_EQ(SystemStatsWindow::instance(), nullptr);
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// The battery's icon caption is the graph's own (GraphWidgetTest.EveryKindsLegendCaptionAndScale).
TEST_F(DockTest, OnlyTheProcessorsTemperatureFromTheLaptop) {
  auto laptop = SystemStats::create(SysRoot(std::string(PELMORA_FIXTURES) + "/sampling-laptop/proc",
                                            std::string(PELMORA_FIXTURES) + "/sampling-laptop/sys"));
  laptop->tick();
  const SampleSet sample = laptop->snapshot();
  Dock dock(*sampler, scratch.store());
  dock.setDisplay(Kind::Temperature);
  dock.statsUpdated(sample);
  // Only the processor, and only its figure: the disk's line and the sensor's name would not fit an icon.
  EXPECT_EQ(dock.view()->labelText().toStdString(), "CPU Temp:\n52.0 \u00b0C");
}

}  // namespace
