// The pure halves of the collectors: text in, record out.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "sampling/core_clusters.h"
#include "sampling/cpu_collector.h"
#include "sampling/disk_collector.h"
#include "sampling/fan_collector.h"
#include "sampling/gpu_collector.h"
#include "sampling/load_collector.h"
#include "sampling/memory_collector.h"
#include "sampling/network_collector.h"

using namespace pelmora;

namespace {

// --- processor ticks -------------------------------------------------------------------------

// Which columns count as what is checked on every fixture machine; here the timebase's arithmetic.
TEST(CpuCollector, TicksScaleThroughTheTimebase) {
  const struct {
    const char* label;
    cpu_ticks ticks;
    CpuCollector::Timebase timebase;
    cpu_sample_t expected;
  } cases[] = {
      // user nice system idle iowait irq softirq steal guest guest_nice
      {"a timebase with a denominator", {3, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {10, 4}, {0, 7, 0, 0}},
      {"a zero denominator gives zero", {3, 3, 3, 3, 0, 0, 0, 0, 0, 0}, {10, 0}, {0, 0, 0, 0}},
      {"counters beyond 32 bits",
       {5'000'000'000, 0, 0, 0, 0, 0, 0, 0, 0, 0},
       {10'000'000, 1},
       {0, 50'000'000'000'000'000, 0, 0}},
  };
  for (const auto& c : cases) EXPECT_EQ(CpuCollector::sampleFromTicks(c.ticks, c.timebase), c.expected) << c.label;
}

// --- memory ----------------------------------------------------------------------------------

// Each fixture machine's meminfo is read through the sampler; here other page sizes and what a
// meminfo may lack.
TEST(MemoryCollector, ReadsPagesByKey) {
  const std::string meminfo =
      "MemTotal: 1000 kB\nMemFree: 400 kB\nActive: 200 kB\nInactive: 120 kB\nActive(anon): 99 kB\n"
      "Unevictable: 8 kB\nSUnreclaim: 12 kB\nKernelStack: 4 kB\nPageTables: 16 kB\nHugePages_Total: 7\n";
  const struct {
    const char* label;
    std::string text;
    int64_t page_size;
    std::optional<memoryStats> expected;
  } cases[] = {
      {"16 KiB pages", meminfo, 16384, memoryStats{25, 12, 7, 2}},
      {"Active(anon) is not Active", "MemFree: 4 kB\nActive(anon): 400 kB\nInactive: 4 kB\n", 4096, std::nullopt},
      {"wired parts an old kernel lacks count zero",
       "MemFree: 4 kB\nActive: 8 kB\nInactive: 12 kB\nPageTables: 40 kB\n", 4096, memoryStats{1, 2, 3, 10}},
      {"no page size", meminfo, 0, std::nullopt},
      {"empty", "", 4096, std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(MemoryCollector::fromMeminfo(c.text, c.page_size), c.expected) << c.label;
}

// --- disks -----------------------------------------------------------------------------------

TEST(DiskCollector, StatLinesGiveOperationsAndBytes) {
  const struct {
    const char* label;
    std::string text;
    std::optional<ioStats> expected;
  } cases[] = {
      // Fields: reads merged sectors ms writes merged sectors ms inflight io_ms weighted [discards x4] [flush x2]
      {"11 fields", "  10 1 200 5  20 2 400 6  0 7 8\n", ioStats{102400, 204800, 10, 20}},
      {"15 fields with discards", "10 1 200 5 20 2 400 6 0 7 8 99 0 9999 3\n", ioStats{102400, 204800, 10, 20}},
      {"17 fields with flushes", "10 1 200 5 20 2 400 6 0 7 8 99 0 9999 3 44 5\n", ioStats{102400, 204800, 10, 20}},
      {"10 fields is not a stat line", "10 1 200 5 20 2 400 6 0 7\n", std::nullopt},
      {"a field that is not a number", "10 1 2x0 5 20 2 400 6 0 7 8\n", std::nullopt},
      {"sectors whose bytes overflow", "1 0 18014398509481984 0 1 0 0 0 0 0 0\n", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(DiskCollector::parseStat(c.text), c.expected) << c.label;
}

// The fixture machines name their disks from padded, blank, missing and numeric vendors; here a
// vendor without a model.
TEST(DiskCollector, NamesParsesDevAndRejectsVirtualDevices) {
  EXPECT_EQ(DiskCollector::diskName("WDC", ""), "WDC");
  EXPECT_EQ(DiskCollector::parseDev("259:12\n"), (std::pair<int, int>{259, 12}));
  EXPECT_FALSE(DiskCollector::parseDev("259\n"));
  EXPECT_FALSE(DiskCollector::parseDev("a:1\n"));
  for (const char* name : {"loop0", "ram3", "zram0", "dm-1", "md127", "nbd0", ""})
    EXPECT_FALSE(DiskCollector::isPhysicalName(name)) << name;
  for (const char* name : {"sda", "nvme0n1", "vda", "mmcblk0", "xvda"})
    EXPECT_TRUE(DiskCollector::isPhysicalName(name)) << name;
}

// --- network, GPUs, fans, load, process counts --------------------------------------------------

TEST(NetworkCollector, ReportsOnlyHardwareInterfaceNames) {
  for (const char* name :
       {"en0", "en10", "enp3s0", "eno1", "ens3", "eth0", "wlan0", "wlp2s0", "wwan0", "wwp0s20f3u2i12"})
    EXPECT_TRUE(NetworkCollector::isReported(name)) << name;
  for (const char* name : {"e1", "fw0", "lo", "lo0", "utun3", "tun0", "bridge0", "br0", "virbr0", "veth12ab", "ifb0",
                           "docker0", "en", "wl", ""})
    EXPECT_FALSE(NetworkCollector::isReported(name)) << name;
}

TEST(GpuCollector, TellsCardsFromConnectorsAndReadsUevent) {
  EXPECT_TRUE(GpuCollector::isCardName("card0"));
  EXPECT_TRUE(GpuCollector::isCardName("card12"));
  for (const char* name : {"card", "card0-eDP-1", "renderD128", "version"})
    EXPECT_FALSE(GpuCollector::isCardName(name)) << name;
  EXPECT_EQ(GpuCollector::ueventValue("DRIVER=amdgpu\nPCI_ID=1002:1636\n", "PCI_ID"), "1002:1636");
  EXPECT_EQ(GpuCollector::ueventValue("PCI_DRIVER=x\n", "DRIVER"), std::nullopt);
}

TEST(FanCollector, FindsFanNumbersInNumericOrder) {
  EXPECT_EQ(FanCollector::fanNumbers({"fan10_input", "fan2_input", "fan1_input", "fan1_min", "fan_input", "fanX_input",
                                      "pwm1_enable", "name"}),
            (std::vector<int>{1, 2, 10}));
}

TEST(LoadCollector, APartialReadingGivesZeros) {
  const double values[3] = {1.5, 0.75, 0.25};
  EXPECT_EQ(LoadCollector::fromValues(3, values), (loadAverage{1.5, 0.75, 0.25}));
  for (int returned : {-1, 0, 1, 2}) EXPECT_EQ(LoadCollector::fromValues(returned, values), loadAverage{}) << returned;
}

TEST(ProcessCounter, RootComesBeforeTheOwnUser) {
  const ProcessCensus census{{0, 1000, 1000, 0, 33, 1001, 0}, 2};
  EXPECT_EQ(ProcessCounter::count(census, 1000), (procstat{2, 3, 2, 2}));
  EXPECT_EQ(ProcessCounter::count(census, 0), (procstat{0, 3, 4, 2}));
}

// --- core clusters -------------------------------------------------------------------------

TEST(CoreClusters, CapacitiesNameTheClusters) {
  const struct {
    const char* label;
    std::vector<std::optional<int64_t>> capacities;
    std::vector<std::string> expected;
  } cases[] = {
      {"big little", {446, 446, 1024, 1024}, {"Efficiency", "Efficiency", "Performance", "Performance"}},
      {"three tiers", {160, 485, 1024}, {"Efficiency", "Efficiency", "Performance"}},
      {"all alike", {1024, 1024}, {"", ""}},
      {"unknown", {std::nullopt, std::nullopt}, {"", ""}},
      {"one unreadable", {512, std::nullopt, 1024}, {"Efficiency", "", "Performance"}},
  };
  for (const auto& c : cases) EXPECT_EQ(CoreClusters::fromCapacities(c.capacities), c.expected) << c.label;
}

}  // namespace
