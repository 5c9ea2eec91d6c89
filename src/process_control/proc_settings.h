#pragma once
// The remembered CPU limits and priorities, by program name, one list per power source ("AC Power",
// "Battery Power"). Kept in the settings store under "limited" and "reniced", each only while its
// option ("save_limited", "save_reniced") is on. The names whose limit includes their child
// processes are kept apart, under "limited_tree", so that a settings file written before such limits
// existed loads as it did, and one written since still loads in an older version. Called from the limiter's timer
// thread and the main thread; every operation takes m_mutex, always after CPULimiter.m_mutex when both are held.
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/mutex.h"

namespace pelmora {

class DefaultSettings;
class PowerMonitor;

// power-source name -> (program name -> value)
using LimitTable = std::map<std::string, std::map<std::string, double>>;
using PriorityTable = std::map<std::string, std::map<std::string, int>>;

inline constexpr int kLowestNice = -20;
inline constexpr int kHighestNice = 20;

// Conversions between the stored dictionaries and the typed tables. Entries that are not a positive
// share (limits) or a whole number in -20...20 (priorities) are left out and named in `rejected`;
// anything but a dictionary gives an empty table. Pure.
LimitTable limitTableFromJson(const nlohmann::json& value, std::vector<std::string>* rejected = nullptr);
PriorityTable priorityTableFromJson(const nlohmann::json& value, std::vector<std::string>* rejected = nullptr);
nlohmann::json toJson(const LimitTable& table);
nlohmann::json toJson(const PriorityTable& table);
// "limited_tree": power-source name -> (program name -> true). Entries that are not true are left out.
std::map<std::string, std::set<std::string>> treeNamesFromJson(const nlohmann::json& value);
nlohmann::json treeNamesToJson(const std::map<std::string, std::set<std::string>>& names);

class ProcSettings {
 public:
  // The shared settings store and power monitor.
  ProcSettings();
  ProcSettings(DefaultSettings& store, PowerMonitor& monitor);
  ~ProcSettings();
  ProcSettings(const ProcSettings&) = delete;
  ProcSettings& operator=(const ProcSettings&) = delete;

  // The power-source name whose lists are in force.
  std::string power();

  std::optional<double> limitFor(const std::string& name, const std::string& power);
  // `tree`: the limit holds the program together with all its child processes.
  void setLimit(const std::string& name, const std::string& power, double share, bool tree = false);
  bool limitHoldsTree(const std::string& name, const std::string& power);
  // Removes the name from the current source's list, or from the named source's (and the list when
  // it becomes empty).
  void removeLimit(const std::string& name);
  void removeLimit(const std::string& name, const std::string& power);
  // Forgets the current source's whole list.
  void clearLimits();

  std::optional<int> priorityFor(const std::string& name, const std::string& power);
  void setPriority(const std::string& name, const std::string& power, int priority);

  // True when any power source's list remembers a limit or a priority.
  bool remembersAny();

  void load();
  void save();

 private:
  void onPowerSourceChanged();
  void loadLocked();
  void saveLocked();

  Mutex m_mutex;
  std::string m_power;
  LimitTable m_limited_names;
  PriorityTable m_reniced_names;
  std::map<std::string, std::set<std::string>> m_tree_names;  // power-source name -> names
  DefaultSettings& m_store;
  PowerMonitor& m_monitor;
};

}  // namespace pelmora
