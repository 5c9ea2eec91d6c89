// Each fixture machine sampled end to end through the sampler's own tick.
#include <gtest/gtest.h>

#include <algorithm>
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
    int64_t free_kb;
    std::vector<DiskExpectation> disks;
    ioStats io;  // all disks together
    std::vector<std::string> interfaces;
    std::vector<graphicsCard> gpus;
    std::vector<fanStats> fans;
  } cases[] = {
      // clang-format off
      {"this vm", "sampling-vm", 2, {}, 0, 0, 22594032, {{"vda", ""}}, {}, {"eth0"}, {}, {}},
      // The NVMe drive has 4096-byte logical blocks; its stat file still counts 512-byte sectors.
      {"laptop", "sampling-laptop", 8, {}, 0, 0, 8000000, {{"nvme0n1", "SAMSUNG MZVLB512HAJQ-000L7"}},
       {9000000LL * 512, 6400000LL * 512, 120000, 80000}, {"enp2s0f0", "wlp3s0"},
       {GpuCollector::makeCard("AMD GPU 1002:1636", 7, 536870912, 134217728)},
       {fanStats{false, 2415, 0, 0}, fanStats{true, 3100, 5500, 1200}}},
      {"hybrid 8P 8E with smt", "sampling-hybrid", 24, {7}, 16, 8, 50000000, {{"sda", "ATA Samsung SSD 870"}}, {},
       {"eno1", "wlo1"}, {}, {fanStats{false, 850, 0, 0}, fanStats{false, 0, 0, 0}, fanStats{false, 1200, 0, 0}}},
      // nvme0c0n1 is the hidden path below nvme0n1; counting it would double the NVMe traffic.
      {"nvme multipath host", "sampling-nvme", 4, {}, 0, 0, 4000000,
       {{"sda", "Msft Virtual Disk"}, {"sdb", "Virtual Disk"}, {"nvme0n1", "INTEL SSDPE2KX010T8"}, {"nvme1n1", "Micron 7450"}},
       {43827200, 88064000, 1510, 2720}, {"ens3", "ens4"}, {}, {}},
  };  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto stats = SystemStats::create(fixtureRoot(c.machine));
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
    EXPECT_EQ(sample.mem_stats.free_count * stats->pageSize(), c.free_kb * 1024);
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
  }
}

TEST(FixtureMachines, AnEmptyTreeGivesEmptyListsAndZeros) {
  auto stats = SystemStats::create(SysRoot("/nonexistent/proc", "/nonexistent/sys"));
  stats->tick();
  const auto sample = stats->snapshot();
  EXPECT_TRUE(sample.cpu_stats.empty());
  EXPECT_TRUE(sample.dsk_stats.empty());
  EXPECT_TRUE(sample.gfx_cards.empty());
  EXPECT_TRUE(sample.net_stats.empty());
  EXPECT_TRUE(sample.fan_stats.empty());
  EXPECT_EQ(sample.mem_stats, memoryStats{});
  EXPECT_EQ(sample.io_stats, ioStats{});
  EXPECT_EQ(sample.power_stats, powerStats{});
  EXPECT_TRUE(stats->cpuTypes().empty());
}

}  // namespace
