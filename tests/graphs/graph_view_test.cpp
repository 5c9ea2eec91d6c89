// Rendered graph widgets, checked by pixel where the drawing is what matters.
#ifdef PELMORA_HAVE_GRAPHS_QT
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QImage>
#include <QLabel>
#include <QLocale>
#include <QMenu>
#include <QMouseEvent>
#include <QPainterPath>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QThreadPool>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <tuple>

#include "common/temp_dir.h"
#include "graphs/views/graph_legend.h"
#include "graphs/views/graph_popover.h"
#include "graphs/views/graph_view_temperature.h"
#include "graphs/views/kind_graph_view.h"
#include "graphs/views/preferences_graph.h"
#include "graphs/views/text_display.h"
#include "support/default_settings.h"
#include "support/settings_keys.h"

// Tasks handed to Qt's global thread pool, counted where Qt starts them: this definition takes the
// place of QtCore's for the whole test program (the program's own symbols are bound first) and
// passes every call on to it.
std::atomic<int> g_pool_tasks{0};
void QThreadPool::start(std::function<void()> functionToRun, int priority) {
  using Start = void (*)(QThreadPool*, std::function<void()>*, int);
  static const auto qt_start = reinterpret_cast<Start>(dlsym(RTLD_NEXT, "_ZN11QThreadPool5startESt8functionIFvvEEi"));
  ++g_pool_tasks;
  qt_start(this, &functionToRun, priority);
}

namespace fs = std::filesystem;
using namespace pelmora;

namespace {

bool near(QColor a, QColor b, int tolerance = 12) {
  return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
         std::abs(a.blue() - b.blue()) <= tolerance;
}

class GraphWidgetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QLocale::setDefault(QLocale::c());
    store = std::make_unique<DefaultSettings>(file);
    GraphView::setSettingsStore(store.get());
    for (GraphClass g : kAllGraphClasses) GraphPalette::colors(g) = GraphPalette::defaults(g);
    GraphSwitches::current() = GraphSwitches{};
    GraphSwitches::current().radio_default = false;
    GraphSwitches::current().radio_light = true;  // a white background whatever the platform theme
  }
  void TearDown() override {
    GraphView::setSettingsStore(nullptr);
    GraphSwitches::current() = GraphSwitches{};
  }
  // Half busy (a quarter user, a quarter system) for every column.
  static std::vector<cpu_sample_t> halfBusy(size_t samples) {
    std::vector<cpu_sample_t> h;
    for (uint64_t i = 0; i < samples; ++i) h.push_back({i * 10, i * 10, i * 20, 1000.0 + double(i)});
    return h;
  }
  // A processor with a critical mark and a disk without one, for a minute.
  static std::vector<std::vector<temperatureStats>> twoSensors() {
    return std::vector<std::vector<temperatureStats>>(60, {{"coretemp Package id 0", "cpu", 55000, 100000, 80000},
                                                           {"nvme Composite", "disk", 44000, 0, 0}});
  }
  static void click(GraphView& view, Qt::MouseButton button) {
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), view.mapToGlobal(QPointF(5, 5)), button, button,
                      Qt::NoModifier);
    QApplication::sendEvent(&view, &press);
  }
  test::TempDir dir{"pelmora-graphview"};
  const fs::path file = dir / "defaults.json";
  std::unique_ptr<DefaultSettings> store;
};

// What a pixel shows: a series' colour, its lightened fill (one channel well above the other
// two), the background, the frame of the live icon.
enum class Ink { white, magenta, green, red, blue, greenish, reddish, outline };

bool inked(QColor c, Ink ink) {
  switch (ink) {
    case Ink::white: return c == QColor(Qt::white);
    case Ink::magenta: return c == QColor(Qt::magenta);
    case Ink::green: return near(c, toQColor(system_colors::green));
    case Ink::red: return c.red() > 200 && c.green() < 150 && c.blue() < 150;
    case Ink::blue: return near(c, toQColor(system_colors::blue), 60);
    case Ink::greenish: return c.green() > c.red() + 40 && c.green() > c.blue() + 40;
    case Ink::reddish: return c.red() > c.green() + 40 && c.red() > c.blue() + 40;
    case Ink::outline: return c.lightness() < 128;  // the text colour
  }
  return false;
}

bool rowHas(const QImage& image, int y, Ink ink) {
  for (int x = 0; x < image.width(); ++x)
    if (inked(image.pixelColor(x, y), ink)) return true;
  return false;
}

struct Probe {
  int x, y;
  Ink ink;
};

void expectInks(GraphView& view, const std::vector<Probe>& probes) {
  const QImage image = view.grab().toImage();
  for (const Probe& p : probes) {
    const QColor c = image.pixelColor(p.x, p.y);
    EXPECT_TRUE(inked(c, p.ink)) << "at " << p.x << "," << p.y << ": " << c.name().toStdString();
  }
}

TEST_F(GraphWidgetTest, SeriesColourAtTheRightEdgeAndTheFillFollowsItsSwitch) {
  for (bool fill : {true, false}) {
    SCOPED_TRACE(fill ? "fill on" : "fill off");
    GraphSwitches::current().fill_graph = fill;
    GraphViewCPU view;
    view.setShowsCaption(false);  // no caption, no axis strip: the data has the whole height
    view.resize(100, 50);
    view.update(halfBusy(80), true);
    // H - 1 = 49: busy 0.5 lies at y = 24.5 from the bottom, the centre of row 25 from the top; system
    // 0.25 at y = 12.25, mostly on row 37. Row 31 lies in the busy band, row 45 in the system band.
    const Ink busy_band = fill ? Ink::greenish : Ink::white, system_band = fill ? Ink::reddish : Ink::white;
    expectInks(
        view,
        {{95, 25, Ink::green}, {95, 37, Ink::red}, {95, 15, Ink::white}, {95, 31, busy_band}, {95, 45, system_band}});
  }
}

TEST_F(GraphWidgetTest, TheLiveIconIsClippedToARoundedFrameAndOutlined) {
  for (bool dock : {false, true}) {
    SCOPED_TRACE(dock ? "live icon" : "window");
    GraphViewLoad view;
    QPalette palette = view.palette();
    palette.setColor(QPalette::Window, Qt::magenta);  // what shows where the graph does not paint
    view.setPalette(palette);
    view.setDisplayDock(dock);
    view.resize(80, 60);
    expectInks(view, {{0, 0, dock ? Ink::magenta : Ink::white},
                      {40, 0, dock ? Ink::outline : Ink::white},
                      {40, 30, Ink::white}});
  }
}

TEST_F(GraphWidgetTest, TheAxisStripLiesUnderTheDataAndNamesTheSpanAndTheTopOfTheScale) {
  GraphSwitches::current().fill_graph = true;
  GraphViewCPU view;
  view.resize(200, 120);
  view.update(halfBusy(150), true);
  const int strip = view.axisStripHeight(), data = 120 - strip;
  ASSERT_GT(strip, 0);
  EXPECT_EQ(view.plotHeight(), data);
  EXPECT_EQ(view.axisText().toStdString(), "last 100 s\ttop: 100 %");  // 100 columns of a second each
  const QImage image = view.grab().toImage();
  for (int y = data + 1; y < 120; ++y)
    EXPECT_FALSE(rowHas(image, y, Ink::greenish) || rowHas(image, y, Ink::reddish)) << "row " << y;
  // The busy half ends at the middle of the data band, not of the whole view; the system band is
  // filled down to the strip.
  EXPECT_TRUE(rowHas(image, data / 2 + 1, Ink::greenish));
  EXPECT_FALSE(rowHas(image, data / 2 - 8, Ink::greenish));
  EXPECT_TRUE(rowHas(image, data - 1, Ink::reddish));

  // The live icon and a graph too low for a strip keep the whole height for the data.
  view.setDisplayDock(true);
  EXPECT_EQ(view.axisStripHeight(), 0);
  EXPECT_TRUE(view.axisText().isEmpty());
  view.setDisplayDock(false);
  view.resize(200, 2 * strip);
  EXPECT_EQ(view.axisStripHeight(), 0);
}

TEST_F(GraphWidgetTest, GridsAreDrawnUnderTheSeriesOnlyWhenSwitchedOn) {
  GraphSwitches::current().show_current = false;  // no anti-aliased text to count as grey
  GraphViewLoad view;
  view.resize(60, 40);
  auto greyPixels = [&] {
    const QImage image = view.grab().toImage();
    int count = 0;
    for (int x = 0; x < image.width(); ++x)
      for (int y = 0; y < image.height(); ++y)
        if (near(image.pixelColor(x, y), QColor(142, 142, 147), 30)) ++count;
    return count;
  };
  EXPECT_EQ(greyPixels(), 0);
  GraphSwitches::current().show_scale_grid = true;
  EXPECT_GT(greyPixels(), 0);
  GraphSwitches::current().scale_grid = 0;
  EXPECT_EQ(greyPixels(), 0);
}

// A view of one kind, labelled "L" in the size given; fed known samples unless the size is empty.
template <typename View, typename... Inputs>
std::function<std::unique_ptr<GraphView>(QSize)> viewOf(Inputs... inputs) {
  return [=](QSize size) -> std::unique_ptr<GraphView> {
    auto view = std::make_unique<View>();
    view->resize(size);
    view->setLabel("L");
    if (!size.isEmpty()) view->update(inputs...);
    return view;
  };
}

// Each kind as a user meets it: the legend a click opens, the caption before the first sample and
// after known samples (in a window and in the live icon's tile), and the top of the scale under the data.
TEST_F(GraphWidgetTest, EveryKindsLegendCaptionAndScale) {
  const std::vector<batteryStats> battery{{"BAT0", "", "discharging", 63.0, 9.8, 12266, 0, 92.98, 187}};
  const std::vector<ioStats> io{{0, 0, 0, 0}, {1536, 512, 1500, 500}, {3072, 2048, 2000, 1500}};
  const struct {
    const char* kind;
    std::function<std::unique_ptr<GraphView>(QSize)> make;
    const char* legend;  // the title, then one row per series, joined by "|"
    const char* before;  // nullptr: not checked
    const char* after;
    const char* dock;  // nullptr: as in a window
    const char* top;   // "": no scale shown
  } kinds[] = {
      {"processor", viewOf<GraphViewCPU>(halfBusy(3), false), "CPU Utilisation (%)|User:|System:",
       "L\nCurrent: —\nFrequency: —", "L\nCurrent: 50.0 %\nFrequency: 1001 MHz", nullptr, "100 %"},  // one behind
      {"whole system", viewOf<GraphViewCPU>(halfBusy(3), true), "CPU Utilisation (%)|User:|System:", nullptr,
       "L\nCurrent: 50.0 %", nullptr, "100 %"},
      {"memory", viewOf<GraphViewMEM>(std::vector<memoryStats>{{1, 1, 1, 1}, {256, 128, 0, 128}}, int64_t{4096}),
       "Memory Usage|Inactive:|Active:|Wired:", "L\nFree: —", "L\nFree: 1.0 MiB", nullptr, "2.0 MiB"},
      {"disk operations", viewOf<GraphViewIO>(io, false), "Disk I/O|Read/sec:|Write/sec:", "L\nRead: —\nWrite: —",
       "L\nRead: 500 IO/s\nWrite: 1.0 kIO/s\nPeak: 1.5 kIO/s", nullptr, "1.5 kIO/s"},
      {"disk bytes", viewOf<GraphViewIO>(io, true), "Disk I/O|Read/sec:|Write/sec:", nullptr,
       "L\nRead: 1.5 KiB/s\nWrite: 1.5 KiB/s\nPeak: 1.5 KiB/s", nullptr, "1.5 KiB/s"},
      {"network", viewOf<GraphViewNet>(std::vector<netStats>{{0, 0}, {1000, 250}, {3000, 500}}),
       "Network I/O|bps in:|bps out:|avg bps in:|avg bps out:", "L\nIn: —\nOut: —",
       "L\nIn: 16.0 kbit/s\nOut: 2.0 kbit/s\nPeak: 16.0 kbit/s", nullptr, "16.0 kbit/s"},
      {"load", viewOf<GraphViewLoad>(std::vector<loadAverage>(72, loadAverage{1, 2, 4})),
       "Load Average|1 Minute:|5 Minutes:|15 Minutes:", "L\n1 Min: —",
       "L\n1 Min: 1.00  5 Min: 2.00  15 Min: 4.00\nPeak: 4.00", nullptr, "4.00"},
      {"processes", viewOf<GraphViewProc>(std::vector<procstat>{{10, 20, 5, 1}, {12, 25, 3, 0}}),
       "Process Counts|Owned by me:|System:|Other:|Translated:", "L\nMy Procs: —",
       "L\nMy Procs: 12  System: 25\nOther: 3  Translated: 0", nullptr, "40"},
      {"power", viewOf<GraphViewPower>(std::vector<powerStats>{{12.5, 5, 1, true}, {8.25, 3, 1, true}}),
       "Power (W)|Total:|CPU:|GPU:", "L\nTotal: —", "L\nTotal: 8.3 W\nPeak: 12.5 W", nullptr, "12.5 W"},
      // A machine without a readable power source: said so, not drawn as "0.00 W".
      {"no power sensor", viewOf<GraphViewPower>(std::vector<powerStats>{{0, 0, 0, false}, {0, 0, 0, false}}),
       "Power (W)|Total:|CPU:|GPU:", nullptr, "L\nno power sensor", nullptr, ""},
      {"fan", viewOf<GraphViewFan>(std::vector<fanStats>{{false, 3000, 6000, 1200}, {true, 4500, 6000, 1200}}),
       "Fan Speed(rpm)|RPM:|Max RPM:|Min RPM:", "L\nCurrent: —",
       "L\nCurrent: 4500 forced\nMaximum: 6000\nMinimum: 1200", nullptr, "6000 rpm"},
      {"graphics card", viewOf<GraphViewGFX>(std::vector<graphicsCardStats>{{2048, 1024, 1024, 0, 37}}),
       "GPU Usage|VRAM Used:|Utilisation(%):", "L\nFree: —\nUtilisation: —", "L\nFree: 1.0 KiB\nUtilisation: 37.0 %",
       nullptr, "100 %"},
      // The live icon is too narrow for the sensor's name and a rate beside the state.
      {"temperature", viewOf<GraphViewTemperature>(twoSensors()), "Temperature (°C)|Processor:|GPU:|Disk:", "L",
       "L\ncoretemp Package id 0: 55.0 °C (critical 100)\nnvme Composite: 44.0 °C", "L\n55.0 °C\n44.0 °C", "110 °C"},
      {"battery", viewOf<GraphViewBattery>(battery), "Battery|Charge (%):|Rate (W):", nullptr,
       "L\n63% discharging  9.8 W\nEmpty in 3:24\nHealth: 93%", "L\n63% discharging\n9.8 W\nEmpty in 3:24", "100 %"},
  };
  for (const auto& k : kinds) {
    SCOPED_TRACE(k.kind);
    GraphSwitches::current().show_current = true;
    if (k.before) {
      EXPECT_EQ(k.make({})->labelText().toStdString(), k.before);
    }
    auto view = k.make({300, 100});
    EXPECT_EQ(view->labelText().toStdString(), k.after);
    const QString axis = view->axisText();
    EXPECT_EQ(axis.section("\ttop: ", 1).toStdString(), k.top) << axis.toStdString();
    view->openLegend();
    GraphLegend* shown = view->legend();
    QStringList legend{shown->title()};
    for (int row = 0; row < GraphLegend::kRows; ++row) {
      const bool visible = shown->label(row)->isVisibleTo(shown);
      EXPECT_EQ(shown->colorButton(row)->isVisibleTo(shown), visible) << row;
      if (visible) legend << shown->label(row)->text();
    }
    EXPECT_EQ(legend.join('|').toStdString(), k.legend);
    view->popover()->hide();
    view->setDisplayDock(true);
    EXPECT_EQ(view->labelText().toStdString(), k.dock ? k.dock : k.after);
    GraphSwitches::current().show_current = false;
    EXPECT_EQ(view->labelText(), "L");
  }
}

// The pieces the area under a series is filled in, against the whole outline filled at once, on
// the white of a view and in the live icon's rounded frame: the same pixels, and none of the pieces
// reaches Qt's thread pool.
TEST_F(GraphWidgetTest, TheAreaUnderASeriesIsFilledInPiecesWithTheSamePixelsAndNoPoolTask) {
  std::mt19937 random(27);
  auto noise = [&](double from, double to) { return std::uniform_real_distribution<double>(from, to)(random); };
  const struct {
    const char* shape;
    size_t entries;
    std::function<double(size_t)> value;
  } shapes[] = {
      {"an idle processor", 400, [&](size_t) { return noise(0.0, 0.05); }},
      {"noise over the whole height", 400, [&](size_t) { return noise(0.0, 1.0); }},
      {"rare spikes", 400, [&](size_t i) { return i % 9 == 0 ? noise(0.8, 1.0) : noise(0.0, 0.03); }},
      {"a flat half", 400, [](size_t) { return 0.5; }},
      {"over the top", 400, [&](size_t) { return noise(0.9, 1.4); }},
      {"a short history", 12, [&](size_t) { return noise(0.3, 0.9); }},
      {"one entry", 1, [](size_t) { return 0.7; }},
  };
  const struct {
    QSize size;
    bool framed;  // clipped to the live icon's rounded frame
  } sizes[] = {{{300, 100}, false}, {{641, 240}, false}, {{97, 400}, false},
               {{22, 22}, false},   {{128, 128}, true},  {{300, 180}, true}};
  const QColor fill = toQColor(adjustColourAndAlpha(system_colors::green, 0.4));
  int whole_tasks = 0;
  for (const auto& shape : shapes) {
    for (const auto& [size, framed] : sizes) {
      SCOPED_TRACE(std::string(shape.shape) + " in " + std::to_string(size.width()) + "x" +
                   std::to_string(size.height()) + (framed ? " framed" : ""));
      std::vector<double> values;
      for (size_t i = 0; i < shape.entries; ++i) values.push_back(shape.value(i));
      const SeriesPath path = plotSeries(size.width(), size.height(), values.size(),
                                         [&](size_t i) { return values[i]; });
      auto painted = [&](const std::function<void(QPainter&)>& draw, int& tasks) {
        QImage image(size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::white);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing, true);
        QPainterPath frame;
        frame.addRoundedRect(QRectF(image.rect()), GraphView::kCornerRadius, GraphView::kCornerRadius);
        if (framed) painter.setClipPath(frame);
        const int before = g_pool_tasks;
        draw(painter);
        tasks = g_pool_tasks - before;
        return image;
      };
      int piece_tasks = 0, outline_tasks = 0;
      const QImage pieces = painted(
          [&](QPainter& p) {
            GraphView::fillUnder(p, path, size.height(), fill, framed ? std::optional(QRect({}, size)) : std::nullopt);
          },
          piece_tasks);
      const QImage whole = painted(
          [&](QPainter& p) {
            QPainterPath outline;
            outline.moveTo(path.fill[0].x, size.height() - path.fill[0].y);
            for (const GraphPoint& point : path.fill) outline.lineTo(point.x, size.height() - point.y);
            p.fillPath(outline, fill);
          },
          outline_tasks);
      EXPECT_EQ(piece_tasks, 0);
      whole_tasks += outline_tasks;
      int differing = 0;
      for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x) differing += pieces.pixel(x, y) != whole.pixel(x, y);
      EXPECT_EQ(differing, 0);
    }
  }
  EXPECT_GT(whole_tasks, 0);  // the counter sees the pool the whole outlines reach
}

// Every kind repainted with a busy history, in windows, in the tray and as the live icon: no pool task.
TEST_F(GraphWidgetTest, NoKindsRepaintReachesThePool) {
  GraphSwitches::current().fill_graph = true;
  GraphSwitches::current().show_scale_grid = GraphSwitches::current().show_time_grid = true;
  std::mt19937 random(5);
  auto noise = [&](int64_t top) { return std::uniform_int_distribution<int64_t>(0, top)(random); };
  std::vector<cpu_sample_t> cpu{{}};
  std::vector<netStats> net{{}};
  std::vector<memoryStats> memory;
  std::vector<loadAverage> load;
  for (int i = 0; i < 400; ++i) {
    const auto& c = cpu.back();
    const int64_t user = noise(60), system = noise(40);
    cpu.push_back({c.totalSystemTime + system, c.totalUserTime + user, c.totalIdleTime + 100 - user - system, 2000});
    net.push_back({net.back().bytes_in + (i % 7 ? noise(2000) : noise(900000)), net.back().bytes_out + noise(5000)});
    memory.push_back({noise(100), 300 + noise(50), 200 + noise(50), 100});
    load.push_back({double(noise(400)) / 100, 2, 1});
  }
  const struct {
    const char* kind;
    std::function<std::unique_ptr<GraphView>(QSize)> make;
  } kinds[] = {
      {"processor", viewOf<GraphViewCPU>(cpu, true)},
      {"network", viewOf<GraphViewNet>(net)},
      {"memory", viewOf<GraphViewMEM>(memory, int64_t{800})},
      {"load", viewOf<GraphViewLoad>(load)},
  };
  for (const auto& k : kinds) {
    for (const QSize size : {QSize(300, 100), QSize(640, 320), QSize(22, 22), QSize(128, 128)}) {
      SCOPED_TRACE(std::string(k.kind) + " " + std::to_string(size.width()));
      auto view = k.make(size);
      view->setShowsCaption(size.width() != 22);
      view->setDisplayDock(size.width() == 128);
      const int before = g_pool_tasks;
      const QImage image = view->grab().toImage();
      EXPECT_EQ(g_pool_tasks - before, 0);
    }
  }
}

// The text of the interface or the volumes a right click opens, and the legend a click opens beside
// it: one per click, each closing on its own. A colour chosen in the legend is saved under the
// class's key and shown by the next legend.
TEST_F(GraphWidgetTest, PopoversOpenOncePerClickAndCloseOnTheirOwn) {
  GraphViewCPU cpu;
  GraphViewNet net;
  net.setDevice("lo");
  GraphViewIO disk;
  const struct {
    GraphView* view;
    std::function<GraphPopover*()> details;  // none for the processor
    const char* title;
  } cases[] = {{&cpu, nullptr, "processor"},
               {&net, [&] { return net.detailsPopover(); }, "ifconfig"},
               {&disk, [&] { return disk.detailsPopover(); }, "Volumes"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.title);
    c.view->resize(100, 50);
    c.view->show();
    if (c.details) click(*c.view, Qt::RightButton);
    click(*c.view, Qt::LeftButton);
    GraphPopover* legend = c.view->popover();
    ASSERT_NE(legend, nullptr);
    EXPECT_EQ(legend->title(), "Legend");
    click(*c.view, Qt::LeftButton);
    EXPECT_EQ(c.view->popover(), legend);
    c.view->legend()->colorChanged(c.view->legend()->colorButton(1), QColor(1, 2, 3));
    if (c.details) {
      GraphPopover* details = c.details();
      ASSERT_NE(details, nullptr);
      EXPECT_EQ(details->title(), c.title);
      EXPECT_FALSE(static_cast<TextDisplay*>(details->content())->toPlainText().isEmpty());
      EXPECT_NE(details, legend);
      details->hide();  // closing the text drops only the text
      EXPECT_EQ(c.details(), nullptr);
      EXPECT_EQ(c.view->popover(), legend);
      EXPECT_NE(c.view->legend(), nullptr);
    }
    legend->hide();  // the user clicked elsewhere
    EXPECT_EQ(c.view->popover(), nullptr);
    EXPECT_EQ(c.view->legend(), nullptr);
    click(*c.view, Qt::LeftButton);
    ASSERT_NE(c.view->legend(), nullptr);
    EXPECT_EQ(c.view->legend()->color(1), QColor(1, 2, 3));
    c.view->popover()->hide();
  }
  EXPECT_EQ(store->loadValue("cpu_colors"), (nlohmann::json{"#34C759FF", "#010203FF"}));
}

// The kinds above name at most four series; a fifth has no row, and a well not the legend's is -1.
TEST_F(GraphWidgetTest, LegendRowsStopAtTheLastWell) {
  GraphLegend legend;
  std::vector<int> indices;
  legend.setUp("Title", {"a", "b", "c", "d", "e"}, {}, [&](int i, const QColor&) { indices.push_back(i); });
  EXPECT_TRUE(legend.colorButton(GraphLegend::kRows - 1)->isVisibleTo(&legend));
  legend.colorChanged(legend.colorButton(3), Qt::cyan);
  legend.colorChanged(&legend, Qt::cyan);
  EXPECT_EQ(indices, (std::vector<int>{3, -1}));
}

TEST_F(GraphWidgetTest, PreferencesPaneDefaultsDependentControlsAndRestore) {
  PreferencesGraph pane(*store);
  EXPECT_EQ(pane.controlValues(), GraphSwitches{});
  EXPECT_EQ(GraphSwitches::current(), GraphSwitches{});
  EXPECT_EQ(pane.m_time_grid->maximum(), 3600);
  EXPECT_EQ(pane.m_scale_grid->minimum(), 0);
  EXPECT_FALSE(pane.m_time_grid->isEnabled());
  EXPECT_TRUE(pane.m_freq_sample_interval->isEnabled());

  std::vector<std::tuple<bool, int, int>> sampling;
  int window = 0;
  QObject::connect(&pane, &PreferencesGraph::frequencySamplingChanged,
                   [&](bool use, int interval_s, int sample_ms) { sampling.emplace_back(use, interval_s, sample_ms); });
  QObject::connect(&pane, &PreferencesGraph::graphSettingsChanged, [&] { ++window; });
  pane.m_show_cpu_frequency->setChecked(false);
  ASSERT_EQ(sampling.size(), 1u);
  EXPECT_EQ(sampling[0], std::make_tuple(false, 5, 500));
  EXPECT_EQ(window, 1);
  EXPECT_FALSE(pane.m_freq_sample_interval->isEnabled());
  EXPECT_FALSE(pane.m_freq_sample_unit->isEnabled());
  EXPECT_FALSE(store->loadBool("graph_show_cpu_frequency", true));

  pane.m_radio_dark->setChecked(true);
  EXPECT_EQ(window, 2);  // one step for the choice, none for the button that went off
  EXPECT_TRUE(store->loadBool("graph_radio_dark", false));
  EXPECT_FALSE(store->loadBool("graph_radio_default", true));
  pane.m_update_interval->setCurrentIndex(0);
  EXPECT_EQ(sampling.back(), std::make_tuple(false, 1, 500));
  pane.m_show_time_grid->setChecked(true);
  EXPECT_TRUE(pane.m_time_grid->isEnabled());
  EXPECT_TRUE(GraphSwitches::current().show_time_grid);

  GraphPalette::setColor(GraphClass::power, 0, {1, 1, 1, 255}, *store);
  pane.restoreDefaults();
  EXPECT_TRUE(pane.m_radio_default->isChecked());
  EXPECT_TRUE(pane.m_show_cpu_frequency->isChecked());
  EXPECT_EQ(pane.m_update_interval->currentIndex(), 2);
  EXPECT_EQ(pane.m_time_grid->value(), 60);  // the stepper's own default
  EXPECT_EQ(sampling.back(), std::make_tuple(true, 5, 500));
  EXPECT_EQ(GraphPalette::colors(GraphClass::power), GraphPalette::defaults(GraphClass::power));
  for (GraphClass g : kAllGraphClasses) EXPECT_TRUE(store->contains(GraphPalette::key(g).key));
  EXPECT_EQ(store->loadInt("graph_time_grid", 0), 60);
}

// The sensors menu as a user works it: tick, untick, back to the defaults; the choice outlives the view.
TEST_F(GraphWidgetTest, TemperatureSensorsChosenFromTheMenuAreSavedAndReadBack) {
  const std::vector<std::vector<temperatureStats>> history{
      {{"coretemp Package id 0", "cpu", 60000, 100000, 0}, {"acpitz", "other", 50000, 0, 0},
       {"iwlwifi_1", "other", 45000, 0, 0}, {"nvme Composite", "disk", 40000, 84850, 0}}};
  auto item = [](QMenu* menu, const char* text) -> QAction* {
    for (QAction* a : menu->actions())
      if (a->text() == text) return a;
    return nullptr;
  };
  GraphViewTemperature view;
  view.resize(300, 100);
  view.show();
  view.update(history);
  using Names = std::vector<std::string>;
  const struct {
    const char* what;
    const char* item;
    Names choice;                    // saved under the key afterwards
    std::array<std::string, 3> drawn;
    std::vector<const char*> disabled;  // menu items that cannot be toggled then
  } steps[] = {
      {"acpitz ticked takes the free line", "acpitz", {"coretemp Package id 0", "acpitz", "nvme Composite"},
       {"coretemp Package id 0", "acpitz", "nvme Composite"}, {"iwlwifi_1"}},
      {"the package unticked frees its line", "coretemp Package id 0", {"", "acpitz", "nvme Composite"},
       {"", "acpitz", "nvme Composite"}, {}},
      {"the disk unticked", "nvme Composite", {"", "acpitz"}, {"", "acpitz", ""}, {"acpitz"}},
      {"back to the defaults", "Default Sensors", {}, {"coretemp Package id 0", "", "nvme Composite"}, {}},
  };
  for (const auto& step : steps) {
    std::unique_ptr<QMenu> menu(view.makeSensorMenu(nullptr));
    QAction* action = item(menu.get(), step.item);
    ASSERT_NE(action, nullptr) << step.what;
    action->trigger();
    EXPECT_EQ(keys::kGraphTempSensors.load(*store), step.choice) << step.what;
    EXPECT_EQ(view.columns().names, step.drawn) << step.what;
    std::unique_ptr<QMenu> after(view.makeSensorMenu(nullptr));
    for (QAction* a : after->actions()) {
      if (a->isSeparator()) continue;
      const bool listed = std::any_of(step.disabled.begin(), step.disabled.end(), [&](const char* d) { return a->text() == d; });
      EXPECT_EQ(a->isEnabled(), !listed) << step.what << ": " << a->text().toStdString();
    }
  }
  // Chosen in one window, drawn by the next graph that is shown.
  keys::kGraphTempSensors.save(*store, {"iwlwifi_1"});
  GraphViewTemperature next;
  next.resize(300, 100);
  next.update(history);
  next.show();
  EXPECT_EQ(next.columns().names, (std::array<std::string, 3>{"iwlwifi_1", "", ""}));
}

TEST_F(GraphWidgetTest, TemperatureLinesWithTheirCriticalMarks) {
  GraphViewTemperature view;
  view.resize(100, 50);
  view.update(twoSensors());
  // Scale 110 °C, H - 1 = 49: the disk's line 44 / 110 of the height up, in its blue, with no mark.
  expectInks(view, {{95, 30, Ink::blue}});
  // The processor's 100 °C mark lies 5.5 rows below the top, dashed in its red: red in many of the
  // columns, but with gaps.
  const QImage image = view.grab().toImage();
  int red_columns = 0;
  for (int x = 0; x < 100; ++x) {
    const QColor red = toQColor(system_colors::red);
    if (near(image.pixelColor(x, 5), red, 40) || near(image.pixelColor(x, 6), red, 40)) ++red_columns;
  }
  EXPECT_GT(red_columns, 30);
  EXPECT_LT(red_columns, 90);
}

}  // namespace
#endif
