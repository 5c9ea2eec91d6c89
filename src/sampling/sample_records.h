#pragma once
// The values the sampler holds for every system metric, the snapshot it hands its clients, and the
// client interface. Plain copyable records without behaviour. Counters are cumulative since boot;
// consumers form the per-interval differences themselves.
#include <cstdint>
#include <string>
#include <vector>

namespace pelmora {

// One logical processor. Times are nanoseconds (USER_HZ ticks scaled through the timebase).
struct cpu_sample_t {
  uint64_t totalSystemTime = 0;
  uint64_t totalUserTime = 0;  // user plus nice
  uint64_t totalIdleTime = 0;
  double frequency = 0.0;      // MHz, 0 when unknown
  bool operator==(const cpu_sample_t&) const = default;
};

// Block-device traffic, cumulative.
struct ioStats {
  int64_t bytes_read = 0;
  int64_t bytes_write = 0;
  int64_t count_read = 0;
  int64_t count_write = 0;
  bool operator==(const ioStats&) const = default;
};

struct diskstat {
  int64_t diskno = 0;   // position among the physical disks sorted by (major, minor)
  std::string bsdname;  // the kernel's name: sda, nvme0n1
  std::string name;     // vendor and model, joined by one space when both are known
  ioStats stats;
  bool operator==(const diskstat&) const = default;
};

struct graphicsCardStats {
  int64_t totalVRAM = 0;  // bytes
  int64_t usedVRAM = 0;   // bytes
  int64_t freeVRAM = 0;   // totalVRAM - usedVRAM, never below 0
  int64_t cpuWait = 0;    // always 0
  int64_t pctUtil = 0;    // percent busy
  bool operator==(const graphicsCardStats&) const = default;
};

struct graphicsCard {
  std::string name;
  bool active = true;
  graphicsCardStats stats;
  bool operator==(const graphicsCard&) const = default;
};

// Page counts, not bytes: multiply by the sampler's page size.
struct memoryStats {
  int64_t free_count = 0;
  int64_t active_count = 0;
  int64_t inactive_count = 0;
  int64_t wire_count = 0;
  bool operator==(const memoryStats&) const = default;
};

struct procstat {
  int64_t user = 0;    // owned by the user running Pelmora
  int64_t system = 0;  // owned by root
  int64_t other = 0;   // anyone else
  int64_t translated = 0;
  bool operator==(const procstat&) const = default;
};

struct netStats {
  int64_t bytes_in = 0;
  int64_t bytes_out = 0;
  bool operator==(const netStats&) const = default;
};

struct interfaceStats {
  std::string intf;
  netStats stats;
  bool operator==(const interfaceStats&) const = default;
};

struct loadAverage {
  double oneMin = 0.0;
  double fiveMin = 0.0;
  double fifteenMin = 0.0;
  bool operator==(const loadAverage&) const = default;
};

// Watts.
struct powerStats {
  double total = 0.0;
  double cpu = 0.0;
  double gpu = 0.0;
  bool sensor = false;  // false: the machine has no power source we can read, and total means nothing
  bool operator==(const powerStats&) const = default;
};

struct fanStats {
  bool forced = false;  // under manual control
  int64_t speed = 0;    // rpm
  int64_t max = 0;      // rpm
  int64_t min = 0;      // rpm
  bool operator==(const fanStats&) const = default;
};

// One temperature sensor, named by its chip and label ("coretemp Package id 0", "nvme Composite") or
// by its thermal zone ("acpitz"). Millidegrees Celsius, as the kernel counts them.
struct temperatureStats {
  std::string name;
  std::string kind;      // "cpu", "gpu", "disk" or "other": what the chip measures
  int64_t temp_mC = 0;
  int64_t crit_mC = 0;   // the critical limit; 0 when the driver publishes none
  int64_t max_mC = 0;    // the high limit; 0 when the driver publishes none
  bool operator==(const temperatureStats&) const = default;
};

// One battery from power_supply. Figures the driver does not publish read 0.
struct batteryStats {
  std::string name;           // the supply's directory: BAT0, hidpp_battery_0
  std::string model;          // model_name, "" when absent
  std::string status;         // "charging", "discharging", "full", "not charging" or "unknown"
  double charge_pct = 0.0;
  double power_w = 0.0;       // the rate of charge or discharge, always positive
  int64_t time_to_empty_s = 0;  // only while discharging
  int64_t time_to_full_s = 0;   // only while charging
  double health_pct = 0.0;    // full capacity over design capacity
  int64_t cycle_count = 0;
  bool operator==(const batteryStats&) const = default;
};

// A copy of everything the sampler stored at one tick; the client owns it.
struct SampleSet {
  std::vector<cpu_sample_t> cpu_stats;
  std::vector<diskstat> dsk_stats;
  std::vector<graphicsCard> gfx_cards;
  memoryStats mem_stats;
  ioStats io_stats;  // the sum over all disks
  procstat proc_stats;
  std::vector<interfaceStats> net_stats;
  loadAverage load_avg;
  powerStats power_stats;
  std::vector<fanStats> fan_stats;
  std::vector<temperatureStats> temp_stats;
  std::vector<batteryStats> battery_stats;     // the machine's own batteries
  std::vector<batteryStats> device_batteries;  // peripherals' batteries (scope Device): mouse, keyboard
  bool operator==(const SampleSet&) const = default;
};

// Implemented by whoever wants samples. Both calls arrive on the main thread with the sampler's lock
// held, so a client must not add or remove clients from inside them.
class SystemStatsClient {
 public:
  virtual ~SystemStatsClient() = default;
  // The sampler resumed after system sleep: drop history that would join across the gap.
  virtual void samplerRestarted() = 0;
  virtual void statsUpdated(const SampleSet& sample) = 0;
};

}  // namespace pelmora
