// Each fixture machine, and an empty tree, sampled end to end through the sampler's own tick.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "common/fixture_root.h"
#include "sampling/gpu_collector.h"
#include "sampling/system_stats.h"
#include "support/main_queue.h"

using namespace pelmora;
using pelmora::test::fixtureRoot;

namespace {

struct DiskExpectation {
  std::string bsdname;
  std::string name;
};

TEST(FixtureMachines, EachMachineThroughTheSamplersTick) {
  const struct {
    const char* label;
    const char* machine;
    size_t cpus;
    std::vector<size_t> offline;  // processors whose sample must be all zero
    size_t performance, efficiency;
    std::array<int64_t, 4> mem_kb;  // free, active, inactive, wired
    std::vector<DiskExpectation> disks;
    ioStats io;  // all disks together
    std::vector<std::string> interfaces;
    std::vector<graphicsCard> gpus;
    std::vector<fanStats> fans;
    bool power_sensor;
  } cases[] = {
      // clang-format off
      {"this vm", "sampling-vm", 2, {}, 0, 0, {22594032, 459896, 1401064, 45148}, {{"vda", ""}}, {}, {"eth0"}, {}, {}, false},
      // The NVMe drive has 4096-byte logical blocks; its stat file still counts 512-byte sectors.
      {"laptop", "sampling-laptop", 8, {}, 0, 0, {8000000, 3000000, 2000000, 120000},
       {{"nvme0n1", "SAMSUNG MZVLB512HAJQ-000L7"}},
       {9000000LL * 512, 6400000LL * 512, 120000, 80000}, {"enp2s0f0", "wlp3s0"},
       {GpuCollector::makeCard("AMD GPU 1002:1636", 7, 536870912, 134217728)},
       {fanStats{false, 2415, 0, 0}, fanStats{true, 3100, 5500, 1200}}, true},
      {"hybrid 8P 8E with smt", "sampling-hybrid", 24, {7}, 16, 8, {50000000, 6000000, 4000000, 240000},
       {{"sda", "ATA Samsung SSD 870"}}, {}, {"eno1", "wlo1"}, {},
       {fanStats{false, 850, 0, 0}, fanStats{false, 0, 0, 0}, fanStats{false, 1200, 0, 0}}, true},
      // nvme0c0n1 is the hidden path below nvme0n1; counting it would double the NVMe traffic.
      {"nvme multipath host", "sampling-nvme", 4, {}, 0, 0, {4000000, 2000000, 1000000, 38000},
       {{"sda", "Msft Virtual Disk"}, {"sdb", "Virtual Disk"}, {"nvme0n1", "INTEL SSDPE2KX010T8"}, {"nvme1n1", "Micron 7450"}},
       {43827200, 88064000, 1510, 2720}, {"ens3", "ens4"}, {}, {}, false},
      {"an empty tree", nullptr, 0, {}, 0, 0, {}, {}, {}, {}, {}, {}, false},
  };  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto stats = SystemStats::create(c.machine ? fixtureRoot(c.machine) : SysRoot("/nonexistent", "/nonexistent"));
    stats->tick();
    RunLoop::main().runUntilIdle();
    const SampleSet sample = stats->snapshot();
    ASSERT_EQ(sample.cpu_stats.size(), c.cpus);
    for (size_t i = 0; i < c.cpus; ++i) {
      const bool offline = std::count(c.offline.begin(), c.offline.end(), i) > 0;
      const auto& s = sample.cpu_stats[i];
      EXPECT_EQ(offline, s.totalIdleTime == 0 && s.totalUserTime == 0 && s.totalSystemTime == 0) << "cpu " << i;
      EXPECT_EQ(s.frequency, 0.0);
    }
    const auto& types = stats->cpuTypes();
    ASSERT_EQ(types.size(), c.cpus);
    EXPECT_EQ(static_cast<size_t>(std::count(types.begin(), types.end(), "Performance")), c.performance);
    EXPECT_EQ(static_cast<size_t>(std::count(types.begin(), types.end(), "Efficiency")), c.efficiency);
    const auto pages = [&](int64_t kb) { return kb * 1024 / stats->pageSize(); };
    EXPECT_EQ(sample.mem_stats,
              (memoryStats{pages(c.mem_kb[0]), pages(c.mem_kb[1]), pages(c.mem_kb[2]), pages(c.mem_kb[3])}));
    ASSERT_EQ(sample.dsk_stats.size(), c.disks.size());
    ioStats total;
    for (size_t i = 0; i < c.disks.size(); ++i) {
      const auto& disk = sample.dsk_stats[i];
      EXPECT_EQ(disk.diskno, static_cast<int64_t>(i));
      EXPECT_EQ(disk.bsdname, c.disks[i].bsdname);
      EXPECT_EQ(disk.name, c.disks[i].name);
      total.bytes_read += disk.stats.bytes_read;
      total.bytes_write += disk.stats.bytes_write;
      total.count_read += disk.stats.count_read;
      total.count_write += disk.stats.count_write;
    }
    EXPECT_EQ(sample.io_stats, total);
    if (c.io != ioStats{}) {
      EXPECT_EQ(sample.io_stats, c.io);
    }
    std::vector<std::string> names;
    for (const auto& intf : sample.net_stats) names.push_back(intf.intf);
    EXPECT_EQ(names, c.interfaces);
    EXPECT_EQ(sample.gfx_cards, c.gpus);
    EXPECT_EQ(sample.fan_stats, c.fans);
    // Filled later by the programs (process census) and by the power meter.
    EXPECT_EQ(sample.proc_stats, procstat{});
    EXPECT_EQ(sample.power_stats.cpu, 0.0);
    EXPECT_EQ(sample.power_stats.gpu, 0.0);
    EXPECT_EQ(sample.power_stats.sensor, c.power_sensor);
    EXPECT_TRUE(c.power_sensor || sample.power_stats.total == 0.0) << "a figure without a sensor";
  }
}

}  // namespace
