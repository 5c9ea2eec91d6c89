#include "sampling/system_stats.h"

#include <unistd.h>

#include <algorithm>

#include "sampling/battery_collector.h"
#include "sampling/core_clusters.h"
#include "sampling/disk_collector.h"
#include "sampling/fan_collector.h"
#include "sampling/gpu_collector.h"
#include "sampling/memory_collector.h"
#include "sampling/network_collector.h"
#include "helper_link/pelmora.h"
#include "sampling/power_metrics.h"
#include "sampling/temperature_collector.h"
#include "support/logger.h"
#include "support/main_queue.h"
#include "support/thread_policy.h"

namespace pelmora {
namespace {

constexpr int64_t kMicrosecondsPerMillisecond = 1000;

void enterTimeConstraintPolicy() {
  // Without CAP_SYS_NICE the kernel refuses; the sampler then runs as an ordinary thread.
  (void)makeCurrentThreadTimeConstraint();
}

}  // namespace

SystemStats& SystemStats::shared() {
  // Never destroyed: the application keeps the sampler for its whole run.
  static auto* instance = [] {
    auto* stats = new std::shared_ptr<SystemStats>(create(SysRoot::current()));
    (*stats)->setFrequencySource(PowerMetrics::shared());
    (*stats)->setEnergySource([] { return Pelmora::shared().energy(); });
    return stats;
  }();
  return **instance;
}

std::shared_ptr<SystemStats> SystemStats::create(SysRoot root, int64_t sample_interval_ms) {
  return std::make_shared<SystemStats>(std::move(root), sample_interval_ms);
}

SystemStats::SystemStats(SysRoot root, int64_t sample_interval_ms)
    : m_sample_interval_ms(sample_interval_ms),
      m_page_size(sysconf(_SC_PAGESIZE)),
      m_root(std::move(root)),
      m_timebase(CpuCollector::hostTimebase()),
      m_real_machine(m_root.sysRoot() == "/sys") {
  m_timer = std::make_unique<TimerQueue>(kTimerLabel, m_sample_interval_ms * kMicrosecondsPerMillisecond,
                                         enterTimeConstraintPolicy, [this] { tick(); });
  const auto stat_text = m_root.readProc("stat");
  const auto stat = stat_text ? ProcStat::parse(*stat_text) : std::nullopt;
  m_cpu_types = CoreClusters::read(m_root, CpuCollector::presentCpus(m_root, stat ? &*stat : nullptr));
}

SystemStats::~SystemStats() {
  stop();
  m_timer.reset();
}

void SystemStats::addClient(std::shared_ptr<SystemStatsClient> client) {
  Lock lock(m_mutex);
  if (!client || std::find(m_clients.begin(), m_clients.end(), client) != m_clients.end()) return;
  m_clients.push_back(std::move(client));
  if (m_clients.size() == 1) startLocked();
}

void SystemStats::removeClient(const std::shared_ptr<SystemStatsClient>& client) {
  Lock lock(m_mutex);
  auto it = std::find(m_clients.begin(), m_clients.end(), client);
  if (it == m_clients.end()) return;
  m_clients.erase(it);
  if (m_clients.empty()) stopLocked(lock);
}

void SystemStats::start() {
  Lock lock(m_mutex);
  startLocked();
}

void SystemStats::stop() {
  Lock lock(m_mutex);
  stopLocked(lock);
}

void SystemStats::startLocked() {
  if (m_running) return;
  startFrequencySourceLocked();
  m_timer->start(QoS::userInteractive);
  m_running = true;
}

void SystemStats::stopLocked(Lock& lock) {
  if (!m_running) return;
  stopFrequencySourceLocked();
  stopTimerLocked(lock);
  m_running = false;
}

// Stopping joins the timer thread, and a tick may be waiting for m_mutex right now: the lock is let
// go for the join. Only the main thread starts and stops the timer, so nothing else can change it
// meanwhile; a tick that slips in just finishes normally.
void SystemStats::stopTimerLocked(Lock& lock) {
  lock.unlock();
  m_timer->stop();
  lock.lock();
}

void SystemStats::startFrequencySourceLocked() {
  if (!m_powermetrics) return;
  MutexLock source_lock(m_powermetrics->mutex());
  m_powermetrics->start();
}

void SystemStats::stopFrequencySourceLocked() {
  if (!m_powermetrics) return;
  MutexLock source_lock(m_powermetrics->mutex());
  m_powermetrics->stop();
}

void SystemStats::sleepStateChanged(bool sleeping) {
  Lock lock(m_mutex);
  if (!m_running) return;
  if (sleeping) {
    Log("Sampler stopping for system sleep.");
    stopFrequencySourceLocked();
    stopTimerLocked(lock);
    return;
  }
  for (const auto& client : m_clients) client->samplerRestarted();
  stopTimerLocked(lock);
  m_timer->start(QoS::defaultQoS);
  stopFrequencySourceLocked();
  startFrequencySourceLocked();
  Log("Sampler restarted after system sleep.");
}

void SystemStats::setProcessCensusProvider(ProcessCensusProvider provider) {
  MutexLock lock(m_mutex);
  m_process_census = std::move(provider);
}

void SystemStats::setEnergySource(PowerMeter::EnergySource source) {
  MutexLock lock(m_mutex);
  m_power_meter.setEnergySource(std::move(source));
}

void SystemStats::setFrequencySource(std::shared_ptr<FrequencySource> source) {
  Lock lock(m_mutex);
  if (m_running) stopFrequencySourceLocked();
  m_powermetrics = std::move(source);
  if (m_running) startFrequencySourceLocked();
}

void SystemStats::tick() {
  MutexLock lock(m_mutex);
  collectLocked();
  m_sample_time = Timeval::now();
  MainQueue::post([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->notifyClients();
  });
}

void SystemStats::collectLocked() {
  collectCpuLocked();
  if (auto memory = MemoryCollector::read(m_root, m_page_size)) m_sample.mem_stats = *memory;
  m_sample.gfx_cards = GpuCollector::readAmdgpu(m_root);
  std::vector<temperatureStats> nvidia_temps;
  if (m_real_machine)
    for (auto& card : m_nvml.read(&nvidia_temps)) m_sample.gfx_cards.push_back(std::move(card));
  auto disks = DiskCollector::read(m_root);
  m_sample.dsk_stats = std::move(disks.disks);
  m_sample.io_stats = disks.total;
  m_sample.proc_stats = m_process_census ? ProcessCounter::count(m_process_census(), getuid()) : procstat{};
  m_sample.net_stats.clear();
  m_sample.net_stats = NetworkCollector::read(m_root);
  m_sample.load_avg = LoadCollector::read();
  const auto watts = m_power_meter.read_w(m_root, Timeval::nowMicroseconds());
  m_sample.power_stats.total = watts.value_or(0.0);
  m_sample.power_stats.sensor = watts.has_value();
  m_sample.power_stats.cpu = 0;
  m_sample.power_stats.gpu = 0;
  m_sample.fan_stats = FanCollector::read(m_root);
  m_sample.temp_stats = TemperatureCollector::read(m_root);
  m_sample.temp_stats.insert(m_sample.temp_stats.end(), nvidia_temps.begin(), nvidia_temps.end());
  auto batteries = BatteryCollector::read(m_root);
  m_sample.battery_stats = std::move(batteries.system);
  m_sample.device_batteries = std::move(batteries.devices);
}

void SystemStats::collectCpuLocked() {
  m_sample.cpu_stats = CpuCollector::read(m_root, m_timebase);
  if (!m_powermetrics) return;
  MutexLock source_lock(m_powermetrics->mutex());
  for (size_t i = 0; i < m_sample.cpu_stats.size(); ++i)
    m_sample.cpu_stats[i].frequency = m_powermetrics->frequency_mhz(i);
}

void SystemStats::notifyClients() {
  MutexLock lock(m_mutex);
  if (m_clients.empty()) return;
  const SampleSet sample = snapshotLocked();
  for (const auto& client : m_clients) client->statsUpdated(sample);
}

SampleSet SystemStats::snapshotLocked() const { return m_sample; }

SampleSet SystemStats::snapshot() {
  MutexLock lock(m_mutex);
  return snapshotLocked();
}

Timeval SystemStats::sampleTime() { return lockedCopy(m_mutex, m_sample_time); }

bool SystemStats::running() { return lockedCopy(m_mutex, m_running); }

bool SystemStats::timerRunning() { return m_timer->running(); }

size_t SystemStats::clientCount() {
  MutexLock lock(m_mutex);
  return m_clients.size();
}

}  // namespace pelmora
