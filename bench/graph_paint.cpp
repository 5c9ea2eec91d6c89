// Painting a statistics window's worth of graphs, each handed 1800 samples of realistic history:
// eight per-core CPU graphs and one of each other class. Beside it, the same series painted the naive
// way (every one of the 1800 entries of every series, nothing skipped), which is what the visible-
// window rule saves. Prints the medians side by side.
// With --screenshots DIR it instead writes one PNG per graph class (and the live icon) into DIR, and
// with --thermal-screenshots DIR [SUFFIX] the temperature and battery graphs and their live icons of
// the machine under PELMORA_PROC_ROOT / PELMORA_SYS_ROOT, for scripts/graph-screenshots.sh.
#include <QApplication>
#include <QImage>
#include <QPainter>
#include <QPainterPath>

#include <benchmark/benchmark.h>

#include "median_table.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "graphs/views/graph_view_temperature.h"
#include "sampling/battery_collector.h"
#include "sampling/temperature_collector.h"
#include "support/sys_root.h"

namespace {

using namespace pelmora;

constexpr size_t kSamples = 1800;
constexpr int kCores = 8;

double wave(size_t i, double period, double phase) { return 0.5 + 0.5 * std::sin(double(i) / period + phase); }

struct Window {
  std::vector<std::unique_ptr<GraphView>> views;
};

// Every graph of the window, sized as the statistics window lays them out, with its history.
Window buildWindow() {
  Window w;
  auto add = [&](GraphView* view, int width, int height, const QString& label) {
    view->resize(width, height);
    view->setLabel(label);
    w.views.emplace_back(view);
  };
  for (int core = 0; core <= kCores; ++core) {
    std::vector<cpu_sample_t> h;
    uint64_t s = 0, u = 0, idle = 0;
    for (size_t i = 0; i < kSamples; ++i) {
      s += uint64_t(20 * wave(i, 7, core));
      u += uint64_t(60 * wave(i, 13, core));
      idle += 40;
      h.push_back({s, u, idle, 2400});
    }
    auto* view = new GraphViewCPU;
    add(view, core < kCores ? 150 : 300, 100,
        core < kCores ? QString("Util(%): %1 CPU").arg(core) : QString("System CPU:(%)"));
    view->update(h, core == kCores);
  }
  std::vector<memoryStats> mem;
  std::vector<ioStats> io;
  std::vector<netStats> net;
  std::vector<loadAverage> load;
  std::vector<procstat> procs;
  std::vector<powerStats> power;
  std::vector<fanStats> fans;
  std::vector<graphicsCardStats> gfx;
  std::vector<std::vector<temperatureStats>> temps;
  std::vector<batteryStats> battery;
  ioStats disk;
  netStats link;
  for (size_t i = 0; i < kSamples; ++i) {
    mem.push_back({100000, int64_t(500000 * wave(i, 50, 0)), 300000, 200000});
    disk.bytes_read += int64_t(1e6 * wave(i, 9, 1));
    disk.bytes_write += int64_t(4e5 * wave(i, 5, 2));
    io.push_back(disk);
    link.bytes_in += int64_t(2e6 * wave(i, 11, 0));
    link.bytes_out += int64_t(3e5 * wave(i, 3, 1));
    net.push_back(link);
    load.push_back({4 * wave(i, 30, 0), 3 * wave(i, 90, 0), 2 * wave(i, 270, 0)});
    procs.push_back({120, 250, 20, int64_t(3 * wave(i, 40, 0))});
    power.push_back({25 * wave(i, 20, 0), 12 * wave(i, 20, 1), 6 * wave(i, 20, 2)});
    fans.push_back({false, int64_t(1200 + 3000 * wave(i, 60, 0)), 6000, 1200});
    gfx.push_back({8 << 30, int64_t((3 << 30) * wave(i, 100, 0)), 0, 0, int64_t(100 * wave(i, 8, 0))});
    temps.push_back({{"coretemp Package id 0", "cpu", int64_t(48000 + 30000 * wave(i, 25, 0)), 100000, 80000},
                     {"amdgpu edge", "gpu", int64_t(45000 + 15000 * wave(i, 60, 1)), 0, 0},
                     {"nvme Composite", "disk", int64_t(38000 + 6000 * wave(i, 200, 2)), 84850, 81850}});
    // Two hours on battery: the charge falls faster while the processor works hard.
    const double power_w = 6.0 + 8.0 * wave(i, 25, 0);
    const double charge = 95.0 - 40.0 * double(i) / double(kSamples);
    battery.push_back({"BAT0", "", "discharging", charge, power_w, int64_t(charge / 100.0 * 57.0 / power_w * 3600), 0,
                       92.98, 187});
  }
  auto* m = new GraphViewMEM;
  add(m, 300, 100, "System Memory:");
  m->update(mem, 4096);
  auto* d = new GraphViewIO;
  add(d, 300, 100, "Total Disk I/O:");
  d->update(io, true);
  auto* n = new GraphViewNet;
  add(n, 300, 100, "Network: enp3s0");
  n->update(net);
  auto* l = new GraphViewLoad;
  add(l, 300, 100, "Load Average:");
  l->update(load);
  auto* p = new GraphViewProc;
  add(p, 300, 100, "Processes:");
  p->update(procs);
  auto* pw = new GraphViewPower;
  add(pw, 300, 100, "Power:");
  pw->update(power);
  auto* f = new GraphViewFan;
  add(f, 300, 100, "Fan: 0");
  f->update(fans);
  auto* g = new GraphViewGFX;
  add(g, 300, 100, "GPU: Radeon RX 6600");
  g->update(gfx);
  auto* t = new GraphViewTemperature;
  add(t, 300, 100, "Temperature:");
  t->update(temps);
  auto* b = new GraphViewBattery;
  add(b, 300, 100, "Battery:");
  b->update(battery);
  return w;
}

QApplication& app() {
  static int argc = 1;
  static char name[] = "bench_graph_paint";
  static char* argv[] = {name, nullptr};
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY") &&
      qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
    qputenv("QT_QPA_PLATFORM", "offscreen");
  static auto* application = new QApplication(argc, argv);
  return *application;
}

void BM_PaintStatisticsWindow(benchmark::State& state) {
  app();
  Window window = buildWindow();
  std::vector<QImage> targets;
  for (const auto& v : window.views) targets.emplace_back(v->size(), QImage::Format_ARGB32_Premultiplied);
  for (auto _ : state)
    for (size_t k = 0; k < window.views.size(); ++k) window.views[k]->render(&targets[k]);
  state.counters["graphs"] = double(window.views.size());
}

// The naive painter: every series a path through all 1800 entries, stroked and filled, most of it
// off the left edge.
void BM_PaintEveryEntry(benchmark::State& state) {
  app();
  Window window = buildWindow();
  const int series_per_graph = 3;
  for (auto _ : state) {
    for (const auto& v : window.views) {
      QImage image(v->size(), QImage::Format_ARGB32_Premultiplied);
      QPainter painter(&image);
      painter.setRenderHint(QPainter::Antialiasing, true);
      painter.fillRect(image.rect(), Qt::white);
      const double w = v->width(), h = v->height();
      for (int s = 0; s < series_per_graph; ++s) {
        QPainterPath path;
        path.moveTo(w + 1, h);
        for (size_t i = 0; i < kSamples; ++i)
          path.lineTo(w + 1 - 2.0 * double(i), h - (h - 1) * wave(i, 7 + s, s));
        painter.strokePath(path, QPen(Qt::darkGreen, 1.0));
        path.lineTo(w + 1 - 2.0 * double(kSamples), h);
        path.closeSubpath();
        painter.fillPath(path, QColor(0, 128, 0, 128));
      }
    }
  }
}

constexpr int kRepetitions = 7;
BENCHMARK(BM_PaintStatisticsWindow)->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_PaintEveryEntry)->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);

void printTable(const std::map<std::string, double>& medians_us) {
  pelmora::bench::printMedianTable(medians_us, "19 graphs, 1800 samples each", "vs ours",
                                   {{"BM_PaintStatisticsWindow", "our painter (visible columns only)"},
                                    {"BM_PaintEveryEntry", "naive: every entry of every series"}},
                                   46);
}

bool save(GraphView& view, const QString& file) {
  if (!view.grab().save(file)) {
    std::fprintf(stderr, "cannot write %s\n", qPrintable(file));
    return false;
  }
  std::printf("%s\n", qPrintable(file));
  return true;
}

// One picture per class at a size that shows the detail, plus the total CPU graph as the live icon.
int writeScreenshots(const QString& dir) {
  app();
  GraphSwitches::current().show_scale_grid = true;
  Window window = buildWindow();
  // The temperature and battery graphs come from the fixture machines (--thermal-screenshots).
  const char* names[] = {"cpu", "mem", "io", "net", "load", "proc", "power", "fan", "gfx"};
  // The whole-system CPU graph stands for its class; the rest follow in buildWindow's order.
  std::vector<GraphView*> chosen = {window.views[kCores].get()};
  for (size_t k = kCores + 1; k < kCores + 1 + std::size(names) - 1; ++k) chosen.push_back(window.views[k].get());
  for (size_t k = 0; k < chosen.size(); ++k)
    if (!save(*chosen[k], dir + "/graph-" + names[k] + ".png")) return 1;
  // The live icon.
  GraphView* icon = window.views[kCores].get();
  icon->setDisplayDock(true);
  icon->setLabel(QString());
  icon->resize(128, 128);
  return save(*icon, dir + "/graph-dock.png") ? 0 : 1;
}

// The sensors and the first battery of the machine the environment's roots name (a fixture machine
// in scripts/graph-screenshots.sh), read by the real collectors, moved along a made-up workload so
// that the newest of the 1800 samples is exactly what the machine reads.
struct Thermal {
  std::vector<std::vector<temperatureStats>> temps, cpu_temps;
  std::vector<batteryStats> battery;
};

Thermal thermalHistory(const SysRoot& root) {
  Thermal t;
  const auto sensors = TemperatureCollector::read(root);
  const auto batteries = BatteryCollector::read(root).system;
  for (size_t i = 0; i < kSamples; ++i) {
    const double age = double(kSamples - 1 - i);  // seconds before the newest sample
    std::vector<temperatureStats> sample = sensors, cpu;
    for (size_t k = 0; k < sample.size(); ++k) {
      const double swing = 0.18 * std::sin(-age / (30.0 + 25.0 * double(k)));
      sample[k].temp_mC = int64_t(double(sample[k].temp_mC) * (1.0 + swing));
      if (sample[k].kind == TemperatureCollector::kCpu) cpu.push_back(sample[k]);
    }
    t.temps.push_back(sample);
    t.cpu_temps.push_back(cpu);
    if (batteries.empty()) continue;
    batteryStats b = batteries.front();
    if (b.status == "discharging" && b.time_to_empty_s > 0) {
      // Half an hour earlier the charge was higher by what the present rate drains in that time.
      b.charge_pct += age * b.charge_pct / double(b.time_to_empty_s);
      b.power_w *= 1.0 + 0.35 * std::sin(-age / 40.0);
    }
    t.battery.push_back(b);
  }
  return t;
}

// graph-temp{suffix}.png and, where the machine has a battery, graph-battery{suffix}.png; for the
// first machine (no suffix) the live icons of both kinds as well.
int writeThermalScreenshots(const QString& dir, const QString& suffix) {
  app();
  GraphSwitches::current().show_scale_grid = true;
  const Thermal t = thermalHistory(SysRoot::fromEnvironment());
  if (t.temps.empty() || t.temps.back().empty()) {
    std::fprintf(stderr, "no temperature sensors under the environment's roots\n");
    return 1;
  }
  GraphViewTemperature temp;
  temp.resize(300, 100);
  temp.setLabel("Temperature:");
  temp.update(t.temps);
  GraphViewBattery battery;
  battery.resize(300, 100);
  battery.setLabel("Battery:");
  battery.update(t.battery);
  if (!save(temp, dir + "/graph-temp" + suffix + ".png")) return 1;
  if (!t.battery.empty() && !save(battery, dir + "/graph-battery" + suffix + ".png")) return 1;
  if (!suffix.isEmpty()) return 0;
  // The live icon kinds, as the Dock labels and feeds them: the processor's sensors alone.
  temp.update(t.cpu_temps);
  for (auto [view, label, file] : {std::tuple<GraphView*, const char*, const char*>{&temp, "CPU Temp:", "graph-dock-temp.png"},
                                   {&battery, "Battery:", "graph-dock-battery.png"}}) {
    if (view == &battery && t.battery.empty()) continue;
    view->setDisplayDock(true);
    view->setLabel(label);
    view->resize(128, 128);
    if (!save(*view, dir + "/" + file)) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--screenshots") return writeScreenshots(argv[2]);
  if ((argc == 3 || argc == 4) && std::string(argv[1]) == "--thermal-screenshots")
    return writeThermalScreenshots(argv[2], argc == 4 ? argv[3] : "");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  pelmora::bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  printTable(reporter.medians_us);
  return 0;
}
