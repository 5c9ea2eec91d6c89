#pragma once
// The sampler: once a second, on a time-constraint timer thread of its own, it reads every system
// metric into its records, then posts one job to the main thread that hands a copy to every
// registered client. It runs only while it has clients and pauses across system sleep.
//
// Threads: ticks run on the timer thread "net.tandrel.pelmora.sampler"; client registration, sleep
// handling and snapshot delivery happen on the main thread. m_mutex guards every field; it is taken
// before the frequency source's lock and before the process table's lock, never after them.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sampling/cpu_collector.h"
#include "sampling/frequency_source.h"
#include "sampling/load_collector.h"
#include "sampling/nvml_gpus.h"
#include "sampling/power_meter.h"
#include "sampling/sample_records.h"
#include "support/mutex.h"
#include "support/sys_root.h"
#include "support/timer_queue.h"
#include "support/timeval.h"

namespace pelmora {

class SystemStats : public std::enable_shared_from_this<SystemStats> {
 public:
  using cpu_sample_t = pelmora::cpu_sample_t;
  using diskstat = pelmora::diskstat;
  using graphicsCard = pelmora::graphicsCard;
  using graphicsCardStats = pelmora::graphicsCardStats;
  using memoryStats = pelmora::memoryStats;
  using ioStats = pelmora::ioStats;
  using procstat = pelmora::procstat;
  using interfaceStats = pelmora::interfaceStats;
  using netStats = pelmora::netStats;
  using loadAverage = pelmora::loadAverage;
  using powerStats = pelmora::powerStats;
  using fanStats = pelmora::fanStats;
  using temperatureStats = pelmora::temperatureStats;
  using batteryStats = pelmora::batteryStats;
  // Called on the timer thread with m_mutex held; it may take the process table's lock.
  using ProcessCensusProvider = std::function<ProcessCensus()>;

  static constexpr const char* kTimerLabel = "net.tandrel.pelmora.sampler";
  static constexpr int64_t kDefaultSampleInterval_ms = 1000;

  // The one sampler of the program, on the machine's /proc and /sys; never destroyed.
  static SystemStats& shared();
  // A sampler on another tree (tests, tools). Snapshots reach clients only while the sampler is
  // owned by a std::shared_ptr, since the delivery job holds it weakly.
  static std::shared_ptr<SystemStats> create(SysRoot root, int64_t sample_interval_ms = kDefaultSampleInterval_ms);
  SystemStats(SysRoot root, int64_t sample_interval_ms);
  ~SystemStats();
  SystemStats(const SystemStats&) = delete;
  SystemStats& operator=(const SystemStats&) = delete;

  // Main thread. Adding the first client starts the sampler; removing the last one stops it.
  // Adding a client that is already registered changes nothing.
  void addClient(std::shared_ptr<SystemStatsClient> client);
  void removeClient(const std::shared_ptr<SystemStatsClient>& client);
  void start();
  void stop();
  // true before the system sleeps, false after it woke.
  void sleepStateChanged(bool sleeping);

  // Seams for what lives above sampling. Without them process counts and frequencies read 0.
  void setProcessCensusProvider(ProcessCensusProvider provider);
  void setFrequencySource(std::shared_ptr<FrequencySource> source);
  // Where RAPL readings come from when this process may not read them (the helper).
  void setEnergySource(PowerMeter::EnergySource source);

  // One tick on the calling thread, as the timer runs it (benchmarks, tests).
  void tick();
  // A copy of the stored values, as clients receive them.
  SampleSet snapshot();
  Timeval sampleTime();
  bool running();
  bool timerRunning();
  size_t clientCount();
  // The tree this sampler reads (constant).
  const SysRoot& root() const { return m_root; }

  int64_t pageSize() const { return m_page_size; }
  // One entry per processor: "Performance", "Efficiency" or "". Fixed at construction.
  const std::vector<std::string>& cpuTypes() const { return m_cpu_types; }

 private:
  using Lock = std::unique_lock<Mutex>;
  void startLocked();
  void stopLocked(Lock& lock);
  void stopTimerLocked(Lock& lock);
  void startFrequencySourceLocked();
  void stopFrequencySourceLocked();
  void collectLocked();
  void collectCpuLocked();
  void notifyClients();
  SampleSet snapshotLocked() const;

  std::vector<std::shared_ptr<SystemStatsClient>> m_clients;
  const int64_t m_sample_interval_ms;
  const int64_t m_page_size;        // bytes
  Mutex m_mutex;
  std::unique_ptr<TimerQueue> m_timer;
  bool m_running = false;
  SampleSet m_sample;  // the newest tick's readings, handed out as they are
  std::shared_ptr<FrequencySource> m_powermetrics;
  Timeval m_sample_time;
  std::vector<std::string> m_cpu_types;

  const SysRoot m_root;
  const CpuCollector::Timebase m_timebase;
  const bool m_real_machine;  // NVML speaks to the real driver, so only a sampler of the real /sys asks it
  PowerMeter m_power_meter;
  NvmlGpus m_nvml;
  ProcessCensusProvider m_process_census;
};

}  // namespace pelmora
