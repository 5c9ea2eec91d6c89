#pragma once
// Settings: the CPU settings window's choices, one set per power source, stored as one dictionary
// under "CPU_Settings": setting name ("Hyperthreads", "PreferPhys", "Throttle", "CPUCount") ->
// power-source name ("AC Power", "Battery Power") -> value. Plain data, no Qt.
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace pelmora {

class DefaultSettings;

struct PowerSourceChoices {
  bool hyperthreads = true;
  bool prefer_phys = true;
  bool throttle = true;
  int cpu_count = 1;
  bool operator==(const PowerSourceChoices&) const = default;
};

class Settings {
 public:
  static constexpr const char* kHyperthreads = "Hyperthreads";
  static constexpr const char* kPreferPhys = "PreferPhys";
  static constexpr const char* kThrottle = "Throttle";
  static constexpr const char* kCPUCount = "CPUCount";

  Settings() = default;
  explicit Settings(nlohmann::json stored);
  static Settings load(DefaultSettings& store);
  void save(DefaultSettings& store) const;

  // Adds what is missing: hyper-threading as the machine has it, prefer-physical and throttling on,
  // and the count as the helper reports it (left missing when it did not answer).
  void fillDefaults(bool has_hardware_threads, std::optional<int> logical_cpu);

  // A missing value or one of the wrong type reads as true.
  bool flag(const char* name, const std::string& power_name) const;
  // None when missing or not an integer (the caller then uses the current logical count).
  std::optional<int> count(const std::string& power_name) const;
  void store(const std::string& power_name, const PowerSourceChoices& choices);

  const nlohmann::json& dictionary() const { return m_settings; }

 private:
  void setIfMissing(const char* name, const std::string& power_name, const nlohmann::json& value);

  nlohmann::json m_settings = nlohmann::json::object();
};

}  // namespace pelmora
