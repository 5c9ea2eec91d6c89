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

class StatsWindowTest : public ::testing::Test {
 protected:
  // Builds a window on the scratch tree with the given processor lists.
  std::unique_ptr<SystemStatsWindow> makeWindow(const std::string& present, const std::string& online) {
    scratch.setCpus(present, online);
    return std::make_unique<SystemStatsWindow>(*sampler, scratch.store(), scratch.root());
  }
  // Feeds samples start..end-1, one second apart on the fake clock.
  void feed(SystemStatsWindow& window, const Devices& devices, int64_t start, int64_t end) {
    for (int64_t k = start; k < end; ++k) {
      clock.advance_us(1'000'000);
      window.statsUpdated(makeSample(devices, k));
    }
  }

  SwitchesGuard guard;
  FakeClock clock;
  Scratch scratch;
  std::shared_ptr<SystemStats> sampler = scratch.sampler();
};

TEST_F(StatsWindowTest, ProcessorGridInTheWindow) {
  const struct {
    std::string present, online;
    bool show_offline;
    int64_t max_rows;
    std::vector<QString> labels;  // processor number of each graph, in cell order
    int columns, rows, fillers;
  } cases[] = {
      {"0-3", "0-3", false, 8, {"0", "1", "2", "3"}, 1, 4, 0},
      {"0-7", "0-7", false, 3, {"0", "1", "2", "3", "4", "5", "6", "7"}, 3, 3, 1},
      {"0-7", "0,2-3,6-7", false, 2, {"0", "2", "3", "6", "7"}, 3, 2, 1},
      {"0-7", "0,2-3,6-7", true, 4, {"0", "1", "2", "3", "4", "5", "6", "7"}, 2, 4, 0},
      {"0-23", "0-23", false, 8, {}, 3, 8, 0},
      {"0-1", "0", false, 8, {"0"}, 1, 1, 0},
      {"0-4", "0-4", false, 0, {"0", "1", "2", "3", "4"}, 5, 1, 0},  // a stored 0 still stacks one per row
      {"0,2,5", "0,5", false, 8, {"0", "5"}, 1, 2, 0},            // numbers, not positions
      {"0-3", "garbage", false, 8, {"0", "1", "2", "3"}, 1, 4, 0},  // unreadable: all online
      {"0-3", "4", false, 8, {}, 0, 0, 0},                         // none of them online
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.present + " online " + c.online + " rows " + std::to_string(c.max_rows));
    GraphSwitches::current().show_offline_cpus = c.show_offline;
    GraphSwitches::current().max_cpu_rows = c.max_rows;
    auto window = makeWindow(c.present, c.online);
    QSplitter* controller = window->cpuController();
    ASSERT_EQ(controller->count(), c.columns);
    int graphs = 0, fillers = 0;
    for (int column = 0; column < controller->count(); ++column) {
      auto* cells = qobject_cast<QSplitter*>(controller->widget(column));
      ASSERT_NE(cells, nullptr);
      EXPECT_EQ(cells->orientation(), Qt::Vertical);
      ASSERT_EQ(cells->count(), c.rows);
      for (int row = 0; row < cells->count(); ++row) {
        if (dynamic_cast<GraphViewCPU*>(cells->widget(row))) {
          ++graphs;
        } else {
          ++fillers;
          EXPECT_EQ(column, controller->count() - 1) << "fillers only close the last column";
        }
      }
    }
    EXPECT_EQ(fillers, c.fillers);
    EXPECT_EQ(graphs, static_cast<int>(window->cpuViews().size()));
    for (size_t i = 0; i < c.labels.size(); ++i) {
      EXPECT_TRUE(window->cpuViews()[i]->label().endsWith(" " + c.labels[i])) << window->cpuViews()[i]->label().toStdString();
    }
  }
}

// Processors switched by another program (the command line, the boot service) change only the
// kernel's online list: the grid follows at the next sample, and a sample with no change keeps it.
TEST_F(StatsWindowTest, ProcessorGraphsFollowTheOnlineListAtTheNextSample) {
  GraphSwitches::current().show_offline_cpus = false;
  GraphSwitches::current().max_cpu_rows = 8;
  auto window = makeWindow("0-7", "0-7");
  const struct {
    std::string online;
    size_t graphs;
  } steps[] = {{"0-7", 8}, {"0-3", 4}, {"0-3", 4}, {"0,2,4,6", 4}, {"0", 1}, {"0-7", 8}};
  Devices eight;
  eight.cpus = 8;
  int64_t k = 0;
  for (const auto& step : steps) {
    SCOPED_TRACE("online " + step.online);
    scratch.write("sys/devices/system/cpu/online", step.online + "\n");
    feed(*window, eight, k, k + 1);
    ++k;
    ASSERT_EQ(window->cpuViews().size(), step.graphs);
  }
  EXPECT_TRUE(window->cpuViews()[2]->label().endsWith(" 2"));
  EXPECT_EQ(window->cpuViews()[2]->accessibleName(), window->cpuViews()[2]->label());
}

std::vector<std::string> keys(const auto& map) {
  std::vector<std::string> out;
  for (const auto& [key, value] : map) out.push_back(key);
  return out;
}

TEST_F(StatsWindowTest, DeviceGraphsFollowTheDevicesAtTheNextRedraw) {
  GraphSwitches::current().update_interval = 0;  // 1 s: every sample redraws
  auto window = makeWindow("0-3", "0-3");
  window->show();
  const struct {
    Devices devices;
    std::vector<std::string> disks, interfaces, gpus;
    size_t fans;
  } steps[] = {
      // A card missing from a sample or two keeps its graph (see GpuHistoryOutlivesMissedSamples).
      {{4, {"nvme0n1", "sda"}, {"eth0"}, {"Radeon"}, 2}, {"nvme0n1", "sda"}, {"eth0"}, {"Radeon"}, 2},
      {{4, {"nvme0n1"}, {"eth0", "wlan0"}, {}, 1}, {"nvme0n1"}, {"eth0", "wlan0"}, {"Radeon"}, 1},
      {{4, {"nvme0n1", "sdb"}, {"wlan0"}, {"Radeon", "GeForce"}, 3}, {"nvme0n1", "sdb"}, {"wlan0"}, {"GeForce", "Radeon"}, 3},
      {{4, {}, {}, {"GeForce"}, 0}, {}, {}, {"GeForce", "Radeon"}, 0},
  };
  int64_t k = 0;
  for (const auto& step : steps) {
    SCOPED_TRACE("step with " + std::to_string(step.disks.size()) + " disks");
    // Within one second of the last redraw nothing changes yet.
    const auto disks_before = keys(window->diskViews());
    window->statsUpdated(makeSample(step.devices, k++));
    EXPECT_EQ(keys(window->diskViews()), disks_before);
    feed(*window, step.devices, k, k + 1);
    ++k;
    EXPECT_EQ(keys(window->diskViews()), step.disks);
    EXPECT_EQ(keys(window->interfaceViews()), step.interfaces);
    EXPECT_EQ(keys(window->gpuViews()), step.gpus);
    EXPECT_EQ(window->fanViews().size(), step.fans);
    // The graphs stand in the splitter in key order.
    for (const auto& [name, view] : window->diskViews()) {
      auto* splitter = qobject_cast<QSplitter*>(view->parentWidget());
      ASSERT_NE(splitter, nullptr);
      EXPECT_EQ(splitter->indexOf(view), static_cast<int>(std::distance(window->diskViews().begin(),
                                                                        window->diskViews().find(name))));
    }
  }
  window->close();
}

// A card's statistics that fail to read for a few samples do not cost it its history: it goes on
// where it stopped, and only a card gone for longer is dropped.
TEST_F(StatsWindowTest, GpuHistoryOutlivesMissedSamples) {
  GraphSwitches::current().update_interval = 0;
  auto window = makeWindow("0-3", "0-3");
  window->show();
  const Devices both{4, {}, {}, {"GeForce", "Radeon"}, 0}, radeon{4, {}, {}, {"Radeon"}, 0};
  const int64_t kept = SystemStatsWindow::kGpuMissedSamplesKept;
  feed(*window, both, 0, 20);
  feed(*window, radeon, 20, 20 + kept);
  feed(*window, both, 20 + kept, 30 + kept);
  ASSERT_EQ(keys(window->gpuViews()), (std::vector<std::string>{"GeForce", "Radeon"}));
  // GeForce's 20 samples before the gap and 10 after it: nothing was cleared.
  EXPECT_EQ(window->gpuViews().at("GeForce")->model().columns.size(), 30u);
  EXPECT_EQ(window->gpuViews().at("Radeon")->model().columns.size(), static_cast<size_t>(30 + kept));
  feed(*window, radeon, 30 + kept, 31 + 2 * kept);
  EXPECT_EQ(keys(window->gpuViews()), (std::vector<std::string>{"Radeon"}));
  window->close();
}

TEST_F(StatsWindowTest, RedrawsAtTheChosenInterval) {
  const struct {
    int64_t menu_index;
    std::vector<int64_t> redraw_after;  // sample numbers (1-based) after which a redraw happened
  } cases[] = {
      {2, {5, 10, 15}},
      {1, {2, 4, 6, 8, 10, 12, 14}},
      {0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("menu index " + std::to_string(c.menu_index));
    GraphSwitches::current().update_interval = c.menu_index;
    auto window = makeWindow("0-3", "0-3");
    window->show();
    std::vector<int64_t> redrawn;
    for (int64_t k = 1; k <= 15; ++k) {
      const int64_t before = window->redrawCount();
      feed(*window, {}, k, k + 1);
      if (window->redrawCount() != before) redrawn.push_back(k);
    }
    EXPECT_EQ(redrawn, c.redraw_after);
    window->close();
  }
}

TEST_F(StatsWindowTest, LongRunKeepsEveryHistoryCapped) {
  GraphSwitches::current().update_interval = 2;
  auto window = makeWindow("0-3", "0-3");
  window->show();
  const Devices devices{4, {"sda", "sdb"}, {"eth0"}, {"Radeon"}, 2};
  feed(*window, devices, 0, 5000);
  // 4 processors, the total, 2 fans, 2 disks, 1 interface, 1 GPU, memory, I/O, processes, load, power.
  const size_t series = 4 + 1 + 2 + 2 + 1 + 1 + 5;
  EXPECT_EQ(window->heldSamples(), series * SystemStatsWindow::kHistoryLimit);
  // The graphs were handed the capped history: one column per pair of samples.
  EXPECT_EQ(window->totalCpuView()->model().columns.size(), SystemStatsWindow::kHistoryLimit - 1);
  // A device that vanishes takes its history with it (a GPU once it stayed away a while).
  feed(*window, {4, {"sda"}, {}, {}, 0}, 5000, 5001 + SystemStatsWindow::kGpuMissedSamplesKept);
  // 4 processors, the total, sda and the five machine-wide series; sdb, the interface, the GPU and
  // the fans are gone.
  EXPECT_EQ(window->heldSamples(), 11 * SystemStatsWindow::kHistoryLimit);
  window->samplerRestarted();
  EXPECT_EQ(window->heldSamples(), 0u);
  window->close();
}

TEST_F(StatsWindowTest, SettingsReadAtLoadAndSavedAtClose) {
  for (bool bytes : {false, true}) {
    SCOPED_TRACE(bytes ? "data" : "operations");
    scratch.store().saveBool("graph_show_data_io", bytes);
    QFont font("Monospace");
    font.setPointSize(13);
    scratch.store().saveString("graph_label_font", font.toString().toStdString());
    auto window = makeWindow("0-3", "0-3");
    EXPECT_EQ(window->showDataIO(), bytes);
    EXPECT_EQ(window->dataIOSelector()->currentIndex(), bytes ? 0 : 1);
    EXPECT_EQ(window->labelFont().pointSize(), 13);
    window->show();
    window->setShowDataIO(!bytes);
    QFont other = window->labelFont();
    other.setPointSize(9);
    window->setLabelFont(other);
    window->close();
    EXPECT_EQ(scratch.store().loadBool("graph_show_data_io", bytes), !bytes);
    QFont saved;
    saved.fromString(QString::fromStdString(scratch.store().loadString("graph_label_font", "")));
    EXPECT_EQ(saved.pointSize(), 9);
  }
}

// A small screen (a laptop at twice the scale) or a large label font: every caption line still has
// room above the data's axis strip; the graphs scroll instead of cutting text.
TEST_F(StatsWindowTest, EveryCaptionHasRoomAndTheGraphsScrollWhereTheWindowIsSmall) {
  const Devices machine{.cpus = 8, .disks = {"nvme0n1", "sda"}, .interfaces = {"wlp2s0", "enp3s0"},
                        .gpus = {"amdgpu"}, .fans = 2};
  QFont large;
  large.setPointSize(16);
  const struct {
    const char* what;
    QSize window;
    std::optional<QFont> font;
  } cases[] = {{"a roomy window", {1280, 860}, std::nullopt},
               {"a window of 800 x 470", {800, 470}, std::nullopt},
               {"a large label font", {1000, 700}, large}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto window = makeWindow("0-7", "0-7");
    if (c.font) window->setLabelFont(*c.font);
    window->resize(c.window);
    window->show();
    feed(*window, machine, 0, 20);
    // The layout settles over a few rounds: each splitter passes its new minimum up to the next.
    for (int round = 0; round < 5; ++round) QApplication::processEvents();
    EXPECT_LE(window->height(), c.window.height());
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
  auto window = makeWindow("0-7", "0-7");
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
  GraphSwitches::current().update_interval = 0;  // 1 s: every sample redraws
  const struct {
    const char* machine;
    std::string temperature, battery;  // the captions; "" where the graph is hidden
  } cases[] = {
      {"sampling-laptop", "Temperature:\ncoretemp Package id 0: 52.0 \u00b0C (critical 100)\nnvme Sensor 1: 40.9 \u00b0C",
       "Battery:\n63% discharging  9.8 W\nEmpty in 3:24\nHealth: 93%"},
      {"sampling-desktop", "Temperature:\nk10temp Tctl: 61.3 \u00b0C\namdgpu mem: 56.0 \u00b0C (critical 105)", ""},
      {"sampling-vm", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.machine);
    const std::string tree = std::string(PELMORA_FIXTURES) + "/" + c.machine;
    auto machine = SystemStats::create(SysRoot(tree + "/proc", tree + "/sys"));
    auto window = makeWindow("0-3", "0-3");
    window->show();
    for (int k = 0; k < 2; ++k) {
      machine->tick();
      clock.advance_us(1'000'000);
      window->statsUpdated(machine->snapshot());
    }
    EXPECT_EQ(window->temperatureView()->isVisible(), !c.temperature.empty());
    EXPECT_EQ(window->batteryView()->isVisible(), !c.battery.empty());
    if (!c.temperature.empty()) {
      EXPECT_EQ(window->temperatureView()->labelText().toStdString(), c.temperature);
    }
    if (!c.battery.empty()) {
      EXPECT_EQ(window->batteryView()->labelText().toStdString(), c.battery);
    }
    window->close();
  }
}

}  // namespace
