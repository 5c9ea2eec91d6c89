#pragma once
// What the statistics window and live icon tests share: a settings file and a
// processor tree of their own, a sampler that never ticks on its own, and made-up samples.
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "common/temp_dir.h"
#include "graphs/graph_switches.h"
#include "sampling/sample_records.h"
#include "sampling/system_stats.h"
#include "support/default_settings.h"
#include "support/sys_root.h"

namespace pelmora::stats_test {

// A temporary directory with a settings file and a /sys tree holding the processor lists.
class Scratch {
 public:
  Scratch() {
    std::filesystem::create_directories(m_dir / "proc");
    std::filesystem::create_directories(m_dir / "sys/devices/system/cpu");
    m_store = std::make_unique<DefaultSettings>(m_dir / "defaults.json");
  }
  void setCpus(const std::string& present, const std::string& online) {
    write("sys/devices/system/cpu/present", present + "\n");
    write("sys/devices/system/cpu/online", online + "\n");
  }
  void write(const std::string& relative, const std::string& text) { m_dir.write(relative, text); }
  SysRoot root() const { return SysRoot((m_dir / "proc").string(), (m_dir / "sys").string()); }
  DefaultSettings& store() { return *m_store; }
  // A sampler on the scratch tree whose timer would first fire after an hour: samples come only
  // from the test.
  std::shared_ptr<SystemStats> sampler() { return SystemStats::create(root(), 3'600'000); }

 private:
  test::TempDir m_dir{"pelmora-stats"};
  std::unique_ptr<DefaultSettings> m_store;
};

// Restores the drawing switches every test may change.
class SwitchesGuard {
 public:
  SwitchesGuard() : m_saved(GraphSwitches::current()) {}
  ~SwitchesGuard() { GraphSwitches::current() = m_saved; }

 private:
  GraphSwitches m_saved;
};

struct Devices {
  size_t cpus = 4;
  std::vector<std::string> disks;
  std::vector<std::string> interfaces;
  std::vector<std::string> gpus;
  size_t fans = 0;
};

// Sample number k of a steady machine: every counter grows by a fixed step per sample.
inline SampleSet makeSample(const Devices& devices, int64_t k) {
  SampleSet s;
  const auto u = static_cast<uint64_t>(k);
  for (size_t i = 0; i < devices.cpus; ++i) s.cpu_stats.push_back({u * 10, u * 30, u * 60, 2400.0});
  int64_t diskno = 0;
  for (const auto& name : devices.disks) {
    s.dsk_stats.push_back({diskno++, name, "Maker Model", {k * 4096, k * 8192, k, 2 * k}});
  }
  for (const auto& name : devices.interfaces) s.net_stats.push_back({name, {k * 1000, k * 500}});
  for (const auto& name : devices.gpus) s.gfx_cards.push_back({name, true, {1 << 30, 1 << 28, 3 << 28, 0, k % 100}});
  for (size_t i = 0; i < devices.fans; ++i) s.fan_stats.push_back({false, 1000 + k % 500, 5000, 800});
  s.mem_stats = {1000 + k, 2000, 500, 300};
  s.io_stats = {k * 4096, k * 8192, k, 2 * k};
  s.proc_stats = {100, 200, 5, 0};
  s.load_avg = {static_cast<double>(k), 1.0, 0.5};
  s.power_stats = {10.0 + static_cast<double>(k % 7), 0.0, 0.0, true};
  return s;
}

}  // namespace pelmora::stats_test
