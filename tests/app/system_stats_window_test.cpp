// The statistics window under the offscreen platform, fed made-up samples by hand.
#include <QApplication>
#include <QComboBox>
#include <QFontMetrics>
#include <QSplitter>

#include <gtest/gtest.h>

#include "app/system_stats_window.h"
#include "graphs/views/graph_view_temperature.h"
#include "stats_test_support.h"
#include "support/timeval.h"

using namespace pelmora;
using namespace pelmora::stats_test;

namespace {

TEST(TotalCpuSample, SumsTimesAndAveragesKnownFrequencies) {
  const cpu_sample_t total = totalCpuSample({{1, 2, 3, 1000.0}, {10, 20, 30, 0.0}, {100, 200, 300, 3000.0}});
  EXPECT_EQ(total, (cpu_sample_t{111, 222, 333, 2000.0}));
  EXPECT_EQ(totalCpuSample({}), cpu_sample_t{});
}

std::vector<std::string> keys(const auto& map) {
  std::vector<std::string> out;
  for (const auto& [key, value] : map) out.push_back(key);
  return out;
}

// What a graph's caption says, or "" where the graph is hidden.
std::string caption(const GraphView* view) { return view->isVisible() ? view->labelText().toStdString() : ""; }

class StatsWindowTest : public ::testing::Test {
 protected:
  // A window on the scratch tree with the given processor lists, redrawing at `update_interval`
  // (the menu's index; 0: every sample); shown unless told otherwise.
  SystemStatsWindow& open(const std::string& present = "0-3", const std::string& online = "0-3",
                          int64_t update_interval = 0, bool show = true) {
    scratch.setCpus(present, online);
    GraphSwitches::current().update_interval = update_interval;
    window.reset();
    window = std::make_unique<SystemStatsWindow>(*sampler, scratch.store(), scratch.root());
    if (show) window->show();
    return *window;
  }
  // Feeds samples start..end-1, one second apart on the fake clock.
  void feed(const Devices& devices, int64_t start, int64_t end) {
    for (int64_t k = start; k < end; ++k) {
      clock.advance_us(1'000'000);
      window->statsUpdated(makeSample(devices, k));
    }
  }

  SwitchesGuard guard;
  FakeClock clock;
  Scratch scratch;
  std::shared_ptr<SystemStats> sampler = scratch.sampler();
  std::unique_ptr<SystemStatsWindow> window;
};

TEST_F(StatsWindowTest, ProcessorGrid) {
  using Labels = std::vector<QString>;  // processor number of each graph, in cell order
  const std::tuple<std::string, std::string, bool, int64_t, Labels, int, int, int> cases[] = {
      // present, online, show offline, rows at most, labels, columns, rows, fillers
      {"0-3", "0-3", false, 8, {"0", "1", "2", "3"}, 1, 4, 0},
      {"0-7", "0-7", false, 3, {"0", "1", "2", "3", "4", "5", "6", "7"}, 3, 3, 1},
      {"0-7", "0,2-3,6-7", false, 2, {"0", "2", "3", "6", "7"}, 3, 2, 1},
      {"0-7", "0,2-3,6-7", true, 4, {"0", "1", "2", "3", "4", "5", "6", "7"}, 2, 4, 0},
      {"0-23", "0-23", false, 8, {}, 3, 8, 0},
      {"0-1", "0", false, 8, {"0"}, 1, 1, 0},
      {"0-4", "0-4", false, 0, {"0", "1", "2", "3", "4"}, 5, 1, 0},  // a stored 0 still stacks one per row
      {"0,2,5", "0,5", false, 8, {"0", "5"}, 1, 2, 0},               // numbers, not positions
      {"0-3", "garbage", false, 8, {"0", "1", "2", "3"}, 1, 4, 0},   // unreadable: all online
      {"0-3", "4", false, 8, {}, 0, 0, 0},                           // none of them online
  };
  for (const auto& [present, online, show_offline, max_rows, labels, columns, rows, fillers] : cases) {
    SCOPED_TRACE(present + " online " + online + " rows " + std::to_string(max_rows));
    GraphSwitches::current().show_offline_cpus = show_offline;
    GraphSwitches::current().max_cpu_rows = max_rows;
    QSplitter* controller = open(present, online, 0, false).cpuController();
    ASSERT_EQ(controller->count(), columns);
    int graphs = 0, filler_cells = 0;
    for (int column = 0; column < controller->count(); ++column) {
      auto* cells = qobject_cast<QSplitter*>(controller->widget(column));
      ASSERT_TRUE(cells && cells->orientation() == Qt::Vertical);
      ASSERT_EQ(cells->count(), rows);
      for (int row = 0; row < cells->count(); ++row) {
        const bool graph = dynamic_cast<GraphViewCPU*>(cells->widget(row));
        graphs += graph;
        filler_cells += !graph;
        EXPECT_TRUE(graph || column == controller->count() - 1) << "fillers only close the last column";
      }
    }
    EXPECT_EQ(filler_cells, fillers);
    EXPECT_EQ(graphs, static_cast<int>(window->cpuViews().size()));
    for (size_t i = 0; i < labels.size(); ++i)
      EXPECT_TRUE(window->cpuViews()[i]->label().endsWith(" " + labels[i])) << i;
  }
}

// Processors switched by another program (the command line, the boot service) change only the
// kernel's online list: the grid follows at the next sample, and a sample with no change keeps it.
TEST_F(StatsWindowTest, ProcessorGraphsFollowTheOnlineListAtTheNextSample) {
  GraphSwitches::current().show_offline_cpus = false;
  GraphSwitches::current().max_cpu_rows = 8;
  open("0-7", "0-7", 0, false);
  const std::pair<std::string, size_t> steps[] = {{"0-7", 8},     {"0-3", 4}, {"0-3", 4},
                                                  {"0,2,4,6", 4}, {"0", 1},   {"0-7", 8}};
  int64_t k = 0;
  for (const auto& [online, graphs] : steps) {
    SCOPED_TRACE("online " + online);
    scratch.write("sys/devices/system/cpu/online", online + "\n");
    feed({8, {}, {}, {}, 0}, k, k + 1);
    ++k;
    ASSERT_EQ(window->cpuViews().size(), graphs);
  }
  EXPECT_TRUE(window->cpuViews()[2]->label().endsWith(" 2"));
  EXPECT_EQ(window->cpuViews()[2]->accessibleName(), window->cpuViews()[2]->label());
}

TEST_F(StatsWindowTest, DeviceGraphsFollowTheDevicesAtTheNextRedraw) {
  open();
  using Names = std::vector<std::string>;
  // A card missing from a sample or two keeps its graph (see GpuHistoryOutlivesMissedSamples).
  const std::tuple<Devices, Names, Names, Names, size_t> steps[] = {
      {{4, {"nvme0", "sda"}, {"eth0"}, {"Radeon"}, 2}, {"nvme0", "sda"}, {"eth0"}, {"Radeon"}, 2},
      {{4, {"nvme0"}, {"eth0", "wlan0"}, {}, 1}, {"nvme0"}, {"eth0", "wlan0"}, {"Radeon"}, 1},
      {{4, {"nvme0", "sdb"}, {"wlan0"}, {"Radeon", "GeForce"}, 3},
       {"nvme0", "sdb"},
       {"wlan0"},
       {"GeForce", "Radeon"},
       3},
      {{4, {}, {}, {"GeForce"}, 0}, {}, {}, {"GeForce", "Radeon"}, 0},
  };
  int64_t k = 0;
  for (const auto& [devices, disks, interfaces, gpus, fans] : steps) {
    SCOPED_TRACE("step with " + std::to_string(disks.size()) + " disks");
    // Within one second of the last redraw nothing changes yet.
    const auto disks_before = keys(window->diskViews());
    window->statsUpdated(makeSample(devices, k++));
    EXPECT_EQ(keys(window->diskViews()), disks_before);
    feed(devices, k, k + 1);
    ++k;
    EXPECT_EQ(keys(window->diskViews()), disks);
    EXPECT_EQ(keys(window->interfaceViews()), interfaces);
    EXPECT_EQ(keys(window->gpuViews()), gpus);
    EXPECT_EQ(window->fanViews().size(), fans);
    // The graphs stand in the splitter in key order.
    int index = 0;
    for (const auto& [name, view] : window->diskViews()) {
      auto* splitter = qobject_cast<QSplitter*>(view->parentWidget());
      ASSERT_NE(splitter, nullptr);
      EXPECT_EQ(splitter->indexOf(view), index++) << name;
    }
  }
}

// A card's statistics that fail to read for a few samples do not cost it its history: it goes on
// where it stopped, and only a card gone for longer is dropped.
TEST_F(StatsWindowTest, GpuHistoryOutlivesMissedSamples) {
  open();
  const Devices both{4, {}, {}, {"GeForce", "Radeon"}, 0}, radeon{4, {}, {}, {"Radeon"}, 0};
  const int64_t kept = SystemStatsWindow::kGpuMissedSamplesKept;
  feed(both, 0, 20);
  feed(radeon, 20, 20 + kept);
  feed(both, 20 + kept, 30 + kept);
  ASSERT_EQ(keys(window->gpuViews()), (std::vector<std::string>{"GeForce", "Radeon"}));
  // GeForce's 20 samples before the gap and 10 after it: nothing was cleared.
  EXPECT_EQ(window->gpuViews().at("GeForce")->model().columns.size(), 30u);
  EXPECT_EQ(window->gpuViews().at("Radeon")->model().columns.size(), static_cast<size_t>(30 + kept));
  feed(radeon, 30 + kept, 31 + 2 * kept);
  EXPECT_EQ(keys(window->gpuViews()), (std::vector<std::string>{"Radeon"}));
}

TEST_F(StatsWindowTest, RedrawsAtTheChosenInterval) {
  // The menu's index, and the sample numbers (1-based) after which a redraw happened.
  const std::pair<int64_t, std::vector<int64_t>> cases[] = {
      {2, {5, 10, 15}},
      {1, {2, 4, 6, 8, 10, 12, 14}},
      {0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
  };
  for (const auto& [menu_index, redraw_after] : cases) {
    SCOPED_TRACE("menu index " + std::to_string(menu_index));
    open("0-3", "0-3", menu_index);
    std::vector<int64_t> redrawn;
    for (int64_t k = 1; k <= 15; ++k) {
      const int64_t before = window->redrawCount();
      feed({}, k, k + 1);
      if (window->redrawCount() != before) redrawn.push_back(k);
    }
    EXPECT_EQ(redrawn, redraw_after);
  }
}

TEST_F(StatsWindowTest, LongRunKeepsEveryHistoryCapped) {
  open("0-3", "0-3", 2);
  feed({4, {"sda", "sdb"}, {"eth0"}, {"Radeon"}, 2}, 0, 5000);
  // 4 processors, the total, 2 fans, 2 disks, 1 interface, 1 GPU, memory, I/O, processes, load, power.
  const size_t series = 4 + 1 + 2 + 2 + 1 + 1 + 5;
  EXPECT_EQ(window->heldSamples(), series * SystemStatsWindow::kHistoryLimit);
  // The graphs were handed the capped history: one column per pair of samples.
  EXPECT_EQ(window->totalCpuView()->model().columns.size(), SystemStatsWindow::kHistoryLimit - 1);
  // A device that vanishes takes its history with it (a GPU once it stayed away a while): left are
  // 4 processors, the total, sda and the five machine-wide series.
  feed({4, {"sda"}, {}, {}, 0}, 5000, 5001 + SystemStatsWindow::kGpuMissedSamplesKept);
  EXPECT_EQ(window->heldSamples(), 11 * SystemStatsWindow::kHistoryLimit);
  window->samplerRestarted();
  EXPECT_EQ(window->heldSamples(), 0u);
}

// Reading a stored "operations" is the live icon's test (DockTest.DiskGraphFollowsTheWindowsDataSelector).
TEST_F(StatsWindowTest, SettingsReadAtLoadAndSavedAtClose) {
  scratch.store().saveBool("graph_show_data_io", true);
  QFont font("Monospace");
  font.setPointSize(13);
  scratch.store().saveString("graph_label_font", font.toString().toStdString());
  open();
  EXPECT_TRUE(window->showDataIO());
  EXPECT_EQ(window->dataIOSelector()->currentIndex(), 0);
  EXPECT_EQ(window->labelFont().pointSize(), 13);
  window->setShowDataIO(false);
  font.setPointSize(9);
  window->setLabelFont(font);
  window->close();
  EXPECT_FALSE(scratch.store().loadBool("graph_show_data_io", true));
  QFont saved;
  saved.fromString(QString::fromStdString(scratch.store().loadString("graph_label_font", "")));
  EXPECT_EQ(saved.pointSize(), 9);
}

// A small screen (a laptop at twice the scale) or a large label font: every caption line still has
// room above the data's axis strip; the graphs scroll instead of cutting text.
TEST_F(StatsWindowTest, EveryCaptionHasRoomAndTheGraphsScrollWhereTheWindowIsSmall) {
  const Devices machine{
      .cpus = 8, .disks = {"nvme0", "sda"}, .interfaces = {"wlp2s0", "enp3s0"}, .gpus = {"amdgpu"}, .fans = 2};
  QFont large;
  large.setPointSize(16);
  using Case = std::tuple<const char*, QSize, std::optional<QFont>>;
  const Case cases[] = {{"a roomy window", {1280, 860}, std::nullopt},
                        {"a window of 800 x 470", {800, 470}, std::nullopt},
                        {"a large label font", {1000, 700}, large}};
  for (const auto& [what, size, font] : cases) {
    SCOPED_TRACE(what);
    open("0-7", "0-7", 0, false);
    if (font) window->setLabelFont(*font);
    window->resize(size);
    window->show();
    feed(machine, 0, 20);
    // The layout settles over a few rounds: each splitter passes its new minimum up to the next.
    for (int round = 0; round < 5; ++round) QApplication::processEvents();
    EXPECT_LE(window->height(), size.height());
    int shown = 0;
    for (GraphView* view : window->findChildren<GraphView*>()) {
      if (!view->isVisibleTo(window.get())) continue;
      ++shown;
      const QRect text = QFontMetrics(view->captionFont())
                             .boundingRect(QRect(0, 0, view->width(), 10000), Qt::AlignLeft | Qt::AlignTop,
                                           view->labelText());
      EXPECT_LE(text.height(), view->plotHeight()) << view->labelText().toStdString();
    }
    EXPECT_GE(shown, 8 + 1 + 1 + 2 + 2 + 2 + 5) << "per-core, total, GPU, fans, disks, interfaces, the rest";
  }
}

// The appearance itself is checked through the application object (appearance_test.cpp).
TEST_F(StatsWindowTest, DividersFollowThePreferences) {
  open("0-7", "0-7", 0, false);
  for (bool thin : {true, false, true}) {
    GraphSwitches::current().thin_dividers = thin;
    window->graphSettingsChanged();
    const int handle_px = thin ? SystemStatsWindow::kThinHandle_px : SystemStatsWindow::kThickHandle_px;
    EXPECT_EQ(window->cpuController()->handleWidth(), handle_px);
    auto* column = qobject_cast<QSplitter*>(window->cpuController()->widget(0));
    ASSERT_NE(column, nullptr);
    EXPECT_EQ(column->handleWidth(), handle_px);
  }
}

TEST_F(StatsWindowTest, TemperatureAndBatteryGraphsOnlyWhereTheMachineHasThem) {
  // A fixture machine, and the captions; "" where the graph is hidden.
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"sampling-laptop",
       "Temperature:\ncoretemp Package id 0: 52.0 \u00b0C (critical 100)\nnvme Sensor 1: 40.9 \u00b0C",
       "Battery:\n63% discharging  9.8 W\nEmpty in 3:24\nHealth: 93%"},
      {"sampling-desktop", "Temperature:\nk10temp Tctl: 61.3 \u00b0C\namdgpu mem: 56.0 \u00b0C (critical 105)", ""},
      {"sampling-vm", "", ""},
  };
  for (const auto& [machine, temperature, battery] : cases) {
    SCOPED_TRACE(machine);
    const std::string tree = std::string(PELMORA_FIXTURES) + "/" + machine;
    auto sampled = SystemStats::create(SysRoot(tree + "/proc", tree + "/sys"));
    open();
    for (int k = 0; k < 2; ++k) {
      sampled->tick();
      clock.advance_us(1'000'000);
      window->statsUpdated(sampled->snapshot());
    }
    EXPECT_EQ(caption(window->temperatureView()), temperature);
    EXPECT_EQ(caption(window->batteryView()), battery);
  }
}

}  // namespace
