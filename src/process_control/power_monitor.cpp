#include "process_control/power_monitor.h"

#include <algorithm>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "support/broadcast.h"
#include "support/logger.h"
#include "support/main_queue.h"
#include "support/power_supply_rules.h"
#include "support/text.h"
#include "support/timer_queue.h"
#include "support/unique_fd.h"

#ifdef PELMORA_HAVE_SYSTEMD
#include <systemd/sd-device.h>
#include <systemd/sd-event.h>
#endif

namespace pelmora {
namespace {

bool isExternalSupply(const std::string& type) { return PowerSupplyRules::isExternal(type); }

bool isSystemBattery(const PowerSupplyInfo& supply) {
  return PowerSupplyRules::isSystemBattery(supply.type, supply.scope, supply.present);
}

}  // namespace

std::string providingPowerType(const std::vector<PowerSupplyInfo>& supplies) {
  bool external_online = false;
  bool discharging = false;
  for (const auto& supply : supplies) {
    if (isExternalSupply(supply.type) && supply.online.value_or(0) != 0) external_online = true;
    if (isSystemBattery(supply) && supply.status == "Discharging") discharging = true;
  }
  return (!external_online && discharging) ? kBatteryPowerName : kACPowerName;
}

bool hasSystemBattery(const std::vector<PowerSupplyInfo>& supplies) {
  return std::any_of(supplies.begin(), supplies.end(), isSystemBattery);
}

std::optional<std::vector<PowerSupplyInfo>> readPowerSupplies(const SysRoot& root) {
  if (!root.existsSys("class/power_supply")) return std::nullopt;
  std::vector<PowerSupplyInfo> supplies;
  for (const auto& name : root.listSys("class/power_supply")) {
    const std::string dir = "class/power_supply/" + name + "/";
    PowerSupplyInfo info;
    info.name = name;
    info.type = root.readSysTrimmed(dir + "type").value_or("");
    info.online = root.readSysInt(dir + "online");
    info.present = root.readSysInt(dir + "present");
    info.status = root.readSysTrimmed(dir + "status").value_or("");
    info.scope = root.readSysTrimmed(dir + "scope").value_or("");
    supplies.push_back(std::move(info));
  }
  return supplies;
}

// What tells us that a supply changed: an sd-device monitor on a thread of its own, or a poll. Both
// only call `changed`, which posts the re-read to the main thread.
class PowerMonitor::Watch {
 public:
  Watch(const Options& options, std::function<void()> changed) : m_changed(std::move(changed)) {
    if (options.use_device_monitor && startDeviceMonitor()) return;
    m_poll = std::make_unique<TimerQueue>("net.tandrel.pelmora.powerpoll", options.poll_interval_us,
                                          nullptr, m_changed);
    m_poll->start(QoS::utility);
  }

  ~Watch() {
    if (m_poll) m_poll->stop();
    if (m_thread.joinable()) {
      const uint64_t one = 1;
      if (::write(m_stop.get(), &one, sizeof one) < 0) Log("Power monitor: cannot wake its thread.");
      m_thread.join();
    }
#ifdef PELMORA_HAVE_SYSTEMD
    if (m_monitor) sd_device_monitor_unref(m_monitor);
    if (m_event) sd_event_unref(m_event);
#endif
  }

 private:
  bool startDeviceMonitor() {
#ifdef PELMORA_HAVE_SYSTEMD
    m_stop = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_stop || sd_event_new(&m_event) < 0 || sd_device_monitor_new(&m_monitor) < 0 ||
        sd_device_monitor_filter_add_match_subsystem_devtype(m_monitor, "power_supply", nullptr) < 0 ||
        sd_device_monitor_attach_event(m_monitor, m_event) < 0 ||
        sd_device_monitor_start(m_monitor, &Watch::onDevice, this) < 0 ||
        sd_event_add_io(m_event, nullptr, m_stop.get(), EPOLLIN, &Watch::onStop, nullptr) < 0) {
      Log("Power monitor: no device monitor, polling the power supplies every 5 seconds.");
      return false;
    }
    // sd-event is single-threaded: from here on only the watch thread touches m_event.
    m_thread = std::thread([this] {
      nameCurrentThread("net.tandrel.pelmora.powersource");
      sd_event_loop(m_event);
    });
    return true;
#else
    return false;
#endif
  }

#ifdef PELMORA_HAVE_SYSTEMD
  static int onDevice(sd_device_monitor*, sd_device*, void* self) {
    static_cast<Watch*>(self)->m_changed();
    return 0;
  }
  static int onStop(sd_event_source* source, int, uint32_t, void*) {
    return sd_event_exit(sd_event_source_get_event(source), 0);
  }
  sd_event* m_event = nullptr;
  sd_device_monitor* m_monitor = nullptr;
#endif

  std::function<void()> m_changed;
  std::unique_ptr<TimerQueue> m_poll;
  UniqueFd m_stop;
  std::thread m_thread;
};

PowerMonitor::Options PowerMonitor::optionsFor(const SysRoot& root) {
  Options options;
  // Device events describe the machine's own /sys, and only udevd sends them (without it the monitor
  // starts and hears nothing, as in a container): a tree elsewhere, or no udevd, means polling.
  options.use_device_monitor = root.sysRoot() == "/sys" && ::access("/run/udev/control", F_OK) == 0;
  return options;
}

PowerMonitor& PowerMonitor::shared() {
  // Lives for the whole run.
  static PowerMonitor* monitor = new PowerMonitor(SysRoot::current(), optionsFor(SysRoot::current()));
  return *monitor;
}

PowerMonitor::PowerMonitor(SysRoot root) : PowerMonitor(std::move(root), Options{}) {}

PowerMonitor::PowerMonitor(SysRoot root, Options options)
    : m_root(std::move(root)), m_options(options), m_alive(std::make_shared<PowerMonitor*>(this)) {
  update();
}

PowerMonitor::~PowerMonitor() {
  stopMonitoring();
  m_alive.reset();
}

void PowerMonitor::postUpdate() {
  std::weak_ptr<PowerMonitor*> alive = m_alive;
  MainQueue::post([alive] {
    if (auto self = alive.lock()) (*self)->update();
  });
}

void PowerMonitor::startMonitoring() {
  MutexLock lock(m_mutex);
  if (m_power_changed_source) return;
  m_power_changed_source = std::make_unique<Watch>(m_options, [this] { postUpdate(); });
}

void PowerMonitor::stopMonitoring() {
  MutexLock lock(m_mutex);
  stopMonitoringLocked();
}

void PowerMonitor::stopMonitoringLocked() {
  // The watch thread never takes m_mutex (it only posts), so joining it here cannot deadlock.
  m_power_changed_source.reset();
}

bool PowerMonitor::monitoring() {
  MutexLock lock(m_mutex);
  return m_power_changed_source != nullptr;
}

void PowerMonitor::update() {
  MutexLock lock(m_mutex);
  const auto supplies = readPowerSupplies(m_root);
  if (!supplies) return;
  const std::string type = providingPowerType(*supplies);
  const PowerSource before = m_powersource;
  if (type == kBatteryPowerName) {
    m_powersource = PowerSource::battery;
    m_powername = type;
  } else {
    m_powersource = PowerSource::mains;
    m_powername = kACPowerName;
  }
  if (m_powersource != before) Broadcast(kPowerSourceBroadcast, true);
}

void PowerMonitor::switchSource() {
  MutexLock lock(m_mutex);
  stopMonitoringLocked();
  m_powersource = m_powersource == PowerSource::mains ? PowerSource::battery : PowerSource::mains;
  Broadcast(kPowerSourceBroadcast, true);
}

bool PowerMonitor::hasBattery() {
  const auto supplies = readPowerSupplies(m_root);
  return supplies && hasSystemBattery(*supplies);
}

PowerSource PowerMonitor::powerSource() {
  MutexLock lock(m_mutex);
  return m_powersource;
}

std::string PowerMonitor::powerName() {
  MutexLock lock(m_mutex);
  return m_powername;
}

}  // namespace pelmora
