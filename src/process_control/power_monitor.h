#pragma once
// Which source powers the machine, read from /sys/class/power_supply, and the "pelmora.powersource"
// broadcast when it changes. Changes are noticed by an sd-device monitor on the power_supply
// subsystem (its own thread) where libsystemd is available, else by a poll every 5 s; either way the
// re-read runs on the main thread. Lock order: CPULimiter.m_mutex before m_mutex.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/mutex.h"
#include "support/sys_root.h"

namespace pelmora {

enum class PowerSource { mains, battery };

inline constexpr const char* kACPowerName = "AC Power";
inline constexpr const char* kBatteryPowerName = "Battery Power";
inline constexpr const char* kPowerSourceBroadcast = "pelmora.powersource";

// The facts of one /sys/class/power_supply entry that decide the source.
struct PowerSupplyInfo {
  std::string name;                // the directory name (AC, BAT0, ucsi-source-psy-USBC000:001)
  std::string type;                // "Mains", "USB", "Battery", ... as the kernel spells it
  std::optional<int64_t> online;   // external supplies: 1 when plugged in
  std::optional<int64_t> present;  // batteries: 0 when the bay is empty
  std::string status;              // batteries: "Discharging", "Charging", "Full", ...
  std::string scope;               // "" (absent), "System" or "Device" (a mouse's battery)
};

// The providing type: "Battery Power" exactly when no mains or USB supply is online and a battery of
// the system (not of a peripheral) is discharging; "AC Power" for everything else. Pure.
std::string providingPowerType(const std::vector<PowerSupplyInfo>& supplies);

// Whether one of the supplies is a battery of the machine itself (a mouse's battery does not count).
// Pure.
bool hasSystemBattery(const std::vector<PowerSupplyInfo>& supplies);

// Reads every supply under class/power_supply; none when that directory is missing or unreadable.
std::optional<std::vector<PowerSupplyInfo>> readPowerSupplies(const SysRoot& root);

class PowerMonitor {
 public:
  struct Options {
    bool use_device_monitor = true;  // false: always poll (tests, machines without udev)
    int64_t poll_interval_us = 5'000'000;
  };
  // The options for the machine behind root: the device monitor only for the real /sys with udevd.
  static Options optionsFor(const SysRoot& root);

  // The process-wide instance on SysRoot::current(), created on first use.
  static PowerMonitor& shared();
  // Starts at mains / "AC Power", then reads the supplies once.
  explicit PowerMonitor(SysRoot root);
  PowerMonitor(SysRoot root, Options options);
  ~PowerMonitor();
  PowerMonitor(const PowerMonitor&) = delete;
  PowerMonitor& operator=(const PowerMonitor&) = delete;

  void startMonitoring();
  void stopMonitoring();
  bool monitoring();
  // Re-reads the supplies; posts "pelmora.powersource" (asynchronously) when the source changed.
  // An unreadable state changes nothing.
  void update();
  // The manual switch: stops monitoring, flips the source and posts the broadcast. The name stays
  // as it was, so the saved per-source lists keep following the last detected source.
  void switchSource();

  PowerSource powerSource();
  std::string powerName();
  // Reads the supplies now: false on a desktop, where "Battery Power" is only ever a manual switch.
  bool hasBattery();

 private:
  class Watch;

  void stopMonitoringLocked();
  void postUpdate();

  SysRoot m_root;
  Options m_options;
  PowerSource m_powersource = PowerSource::mains;
  std::string m_powername = kACPowerName;
  std::unique_ptr<Watch> m_power_changed_source;
  // Jobs posted to the main thread hold this weakly so none runs after destruction.
  std::shared_ptr<PowerMonitor*> m_alive;
  Mutex m_mutex;
};

}  // namespace pelmora
