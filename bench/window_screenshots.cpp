// Renders the statistics window into a PNG for the README. The device list comes from one real sample
// of the tree PELMORA_PROC_ROOT/PELMORA_SYS_ROOT point at (this machine when unset). With --live N the
// window is fed N real samples a second apart; otherwise a fixture's counters are moved along smooth
// made-up workloads for 600 samples, since a fixture tree never changes by itself.
//   window_screenshots OUT.png [--live SECONDS]
#include <QApplication>
#include <QThread>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <random>
#include <string>

#include "app/system_stats_window.h"
#include "graphs/graph_switches.h"
#include "sampling/system_stats.h"
#include "support/default_settings.h"
#include "support/timeval.h"

using namespace pelmora;

namespace {

constexpr int kSyntheticSamples = 600;
constexpr double kTickTime_ns = 1e9;

double wave(int t, double period, double phase) { return 0.5 + 0.5 * std::sin(2.0 * M_PI * t / period + phase); }

class Workload {
 public:
  explicit Workload(SampleSet start) : m_sample(std::move(start)) {
    auto& p = m_sample.proc_stats;
    if (p.user + p.system + p.other == 0) p = {142, 231, 17, 0};
  }

  const SampleSet& next(int t) {
    std::uniform_real_distribution<double> noise(-0.08, 0.08);
    for (size_t i = 0; i < m_sample.cpu_stats.size(); ++i) {
      auto& cpu = m_sample.cpu_stats[i];
      const double busy = std::clamp(0.1 + 0.6 * wave(t, 90 + 13.0 * (i % 7), 0.7 * i) + noise(m_rng), 0.0, 1.0);
      cpu.totalUserTime += static_cast<uint64_t>(busy * 0.7 * kTickTime_ns);
      cpu.totalSystemTime += static_cast<uint64_t>(busy * 0.3 * kTickTime_ns);
      cpu.totalIdleTime += static_cast<uint64_t>((1.0 - busy) * kTickTime_ns);
      cpu.frequency = 1200.0 + 2800.0 * busy;
    }
    m_sample.io_stats = {};
    for (size_t d = 0; d < m_sample.dsk_stats.size(); ++d) {
      auto& io = m_sample.dsk_stats[d].stats;
      const double mb = 40.0 * std::pow(wave(t, 47 + 11.0 * d, d), 4) + 2.0 * (1.0 + noise(m_rng));
      io.bytes_read += static_cast<int64_t>(mb * 1e6);
      io.bytes_write += static_cast<int64_t>(0.6 * mb * 1e6 * wave(t, 31, 1.0));
      io.count_read += static_cast<int64_t>(mb * 1e6 / 65536);
      io.count_write += static_cast<int64_t>(0.6 * mb * 1e6 / 65536 * wave(t, 31, 1.0));
      m_sample.io_stats.bytes_read += io.bytes_read;
      m_sample.io_stats.bytes_write += io.bytes_write;
      m_sample.io_stats.count_read += io.count_read;
      m_sample.io_stats.count_write += io.count_write;
    }
    for (size_t n = 0; n < m_sample.net_stats.size(); ++n) {
      auto& net = m_sample.net_stats[n].stats;
      const double scale = n == 0 ? 3e6 : 2e5;
      net.bytes_in += static_cast<int64_t>(scale * (std::pow(wave(t, 70, n), 3) + 0.05));
      net.bytes_out += static_cast<int64_t>(0.3 * scale * (wave(t, 25, n + 1.0) + 0.05));
    }
    for (size_t g = 0; g < m_sample.gfx_cards.size(); ++g) {
      auto& stats = m_sample.gfx_cards[g].stats;
      if (stats.totalVRAM == 0) stats.totalVRAM = int64_t{4} << 30;
      const double load = std::clamp(wave(t, 120, 2.0 * g) + noise(m_rng), 0.0, 1.0);
      stats.pctUtil = static_cast<int64_t>(100.0 * load);
      stats.usedVRAM = static_cast<int64_t>((0.2 + 0.5 * load) * static_cast<double>(stats.totalVRAM));
      stats.freeVRAM = stats.totalVRAM - stats.usedVRAM;
    }
    for (size_t f = 0; f < m_sample.fan_stats.size(); ++f) {
      auto& fan = m_sample.fan_stats[f];
      if (fan.max <= fan.min) fan.max = fan.min + 4000;
      fan.speed = fan.min + static_cast<int64_t>(static_cast<double>(fan.max - fan.min) * 0.6 * wave(t, 150, f));
    }
    auto& mem = m_sample.mem_stats;
    const int64_t pages = mem.free_count + mem.active_count + mem.inactive_count + mem.wire_count;
    if (pages > 0) {
      mem.active_count = static_cast<int64_t>(pages * (0.30 + 0.15 * wave(t, 200, 0)));
      mem.wire_count = pages / 10;
      mem.inactive_count = pages / 5;
      mem.free_count = pages - mem.active_count - mem.wire_count - mem.inactive_count;
    }
    const double ncpu = static_cast<double>(m_sample.cpu_stats.size());
    m_load = 0.92 * m_load + 0.08 * ncpu * 0.7 * wave(t, 90, 0);
    m_sample.load_avg = {m_load, m_load * 0.9, m_load * 0.8};
    m_sample.power_stats.total = 6.0 + 35.0 * wave(t, 90, 0.3) + 3.0 * noise(m_rng);
    return m_sample;
  }

 private:
  SampleSet m_sample;
  std::mt19937 m_rng{7};
  double m_load = 0.0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUT.png [--live SECONDS]\n", argv[0]);
    return 2;
  }
  const int live_s = argc >= 4 && std::strcmp(argv[2], "--live") == 0 ? std::atoi(argv[3]) : 0;
  QApplication app(argc, argv);
  GraphSwitches::current() = GraphSwitches();
  GraphSwitches::current().update_interval = 0;
  // A settings file of its own, so the user's saved font and frame do not change the picture.
  const std::string settings = "/tmp/pelmora-window-screenshot-" + std::to_string(getpid()) + ".json";
  DefaultSettings store(settings);
  // The window times its redraws from show(), so the made-up samples' clock must exist by then.
  std::optional<FakeClock> clock;
  if (live_s == 0) clock.emplace();
  // Samples are taken here by hand; the sampler's own timer would first fire after an hour.
  auto sampler = SystemStats::create(SysRoot::current(), 3'600'000);
  SystemStatsWindow window(*sampler, store);
  window.resize(1280, 860);
  window.show();
  sampler->tick();
  if (live_s > 0) {
    for (int s = 0; s < live_s; ++s) {
      QThread::sleep(1);
      sampler->tick();
      window.statsUpdated(sampler->snapshot());
      QApplication::processEvents();
    }
  } else {
    Workload workload(sampler->snapshot());
    for (int t = 0; t < kSyntheticSamples; ++t) {
      clock->advance_us(1'000'000);
      window.statsUpdated(workload.next(t));
    }
  }
  QApplication::processEvents();
  const bool saved = window.grab().save(QString::fromLocal8Bit(argv[1]));
  window.close();
  std::remove(settings.c_str());
  if (!saved) {
    std::fprintf(stderr, "cannot write %s\n", argv[1]);
    return 1;
  }
  std::printf("%s\n", argv[1]);
  return 0;
}
