#include "app/settings.h"

#include <climits>

#include "process_control/power_monitor.h"
#include "support/settings_keys.h"

namespace pelmora {

Settings::Settings(nlohmann::json stored)
    : m_settings(stored.is_object() ? std::move(stored) : nlohmann::json::object()) {}

Settings Settings::load(DefaultSettings& store) { return Settings(keys::kCpuSettings.load(store)); }

void Settings::save(DefaultSettings& store) const { keys::kCpuSettings.save(store, m_settings); }

void Settings::setIfMissing(const char* name, const std::string& power_name, const nlohmann::json& value) {
  nlohmann::json& per_source = m_settings[name];
  if (!per_source.is_object()) per_source = nlohmann::json::object();
  if (!per_source.contains(power_name)) per_source[power_name] = value;
}

void Settings::fillDefaults(bool has_hardware_threads, std::optional<int> logical_cpu) {
  for (const char* source : {kACPowerName, kBatteryPowerName}) {
    setIfMissing(kHyperthreads, source, has_hardware_threads);
    setIfMissing(kPreferPhys, source, true);
    setIfMissing(kThrottle, source, true);
    if (logical_cpu) setIfMissing(kCPUCount, source, *logical_cpu);
  }
}

bool Settings::flag(const char* name, const std::string& power_name) const {
  const auto per_source = m_settings.find(name);
  if (per_source == m_settings.end() || !per_source->is_object()) return true;
  const auto value = per_source->find(power_name);
  if (value == per_source->end() || !value->is_boolean()) return true;
  return value->get<bool>();
}

std::optional<int> Settings::count(const std::string& power_name) const {
  const auto per_source = m_settings.find(kCPUCount);
  if (per_source == m_settings.end() || !per_source->is_object()) return std::nullopt;
  const auto value = per_source->find(power_name);
  if (value == per_source->end() || !value->is_number_integer()) return std::nullopt;
  const auto n = value->get<int64_t>();
  if (n < INT_MIN || n > INT_MAX) return std::nullopt;
  return static_cast<int>(n);
}

void Settings::store(const std::string& power_name, const PowerSourceChoices& c) {
  for (const char* name : {kHyperthreads, kPreferPhys, kThrottle, kCPUCount})
    if (!m_settings[name].is_object()) m_settings[name] = nlohmann::json::object();
  m_settings[kHyperthreads][power_name] = c.hyperthreads;
  m_settings[kPreferPhys][power_name] = c.prefer_phys;
  m_settings[kThrottle][power_name] = c.throttle;
  m_settings[kCPUCount][power_name] = c.cpu_count;
}

}  // namespace pelmora
