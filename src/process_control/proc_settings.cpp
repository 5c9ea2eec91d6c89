#include "process_control/proc_settings.h"

#include <algorithm>
#include <cmath>

#include "process_control/power_monitor.h"
#include "support/broadcast.h"
#include "support/default_settings.h"
#include "support/logger.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

constexpr const char* kListenerKey = "pelmora.powersource.ProcSettings";

std::optional<double> shareFromJson(const nlohmann::json& v) {
  if (!v.is_number()) return std::nullopt;
  const double share = v.get<double>();
  if (!std::isfinite(share) || share <= 0.0) return std::nullopt;
  return share;
}

std::optional<int> niceFromJson(const nlohmann::json& v) {
  if (!v.is_number_integer()) return std::nullopt;
  const int64_t nice = v.get<int64_t>();
  if (nice < kLowestNice || nice > kHighestNice) return std::nullopt;
  return static_cast<int>(nice);
}

template <typename Value, typename Convert>
std::map<std::string, std::map<std::string, Value>> tableFromJson(const nlohmann::json& value,
                                                                  Convert convert,
                                                                  std::vector<std::string>* rejected) {
  std::map<std::string, std::map<std::string, Value>> table;
  auto reject = [&](const std::string& what) {
    if (rejected) rejected->push_back(what);
  };
  if (!value.is_object()) return table;
  for (const auto& [power, names] : value.items()) {
    if (!names.is_object()) {
      reject(power);
      continue;
    }
    for (const auto& [name, v] : names.items()) {
      if (auto typed = convert(v))
        table[power][name] = *typed;
      else
        reject(power + "/" + name);
    }
  }
  return table;
}

template <typename Table>
nlohmann::json tableToJson(const Table& table) {
  nlohmann::json out = nlohmann::json::object();
  for (const auto& [power, names] : table)
    for (const auto& [name, value] : names) out[power][name] = value;
  return out;
}

template <typename Table, typename Value>
std::optional<Value> lookup(const Table& table, const std::string& name, const std::string& power) {
  auto source = table.find(power);
  if (source == table.end()) return std::nullopt;
  auto entry = source->second.find(name);
  if (entry == source->second.end()) return std::nullopt;
  return entry->second;
}

void logRejected(const char* key, const std::vector<std::string>& rejected) {
  if (rejected.empty()) return;
  std::string line = std::string("Saved \"") + key + "\" entries were malformed and are ignored:";
  for (const auto& what : rejected) line += " " + what;
  Log(line + ".");
}

// Reads one saved list when saving it is on. A stored value that is not a dictionary at all leaves
// the list as it is (empty at creation).
template <typename Table>
void loadSavedList(DefaultSettings& store, const BoolKey& saved, const DictKey& key, Table& table,
                   Table (*parse)(const nlohmann::json&, std::vector<std::string>*)) {
  if (!saved.load(store)) return;
  const auto stored = store.loadValue(key.key);
  if (!stored) return;
  if (!stored->is_object()) {
    Log(std::string("Saved \"") + key.key + "\" is not a dictionary and is ignored.");
    return;
  }
  std::vector<std::string> rejected;
  table = parse(*stored, &rejected);
  logRejected(key.key, rejected);
}

}  // namespace

LimitTable limitTableFromJson(const nlohmann::json& value, std::vector<std::string>* rejected) {
  return tableFromJson<double>(value, shareFromJson, rejected);
}

PriorityTable priorityTableFromJson(const nlohmann::json& value, std::vector<std::string>* rejected) {
  return tableFromJson<int>(value, niceFromJson, rejected);
}

nlohmann::json toJson(const LimitTable& table) { return tableToJson(table); }
nlohmann::json toJson(const PriorityTable& table) { return tableToJson(table); }

std::map<std::string, std::set<std::string>> treeNamesFromJson(const nlohmann::json& value) {
  std::map<std::string, std::set<std::string>> out;
  const auto table = tableFromJson<bool>(
      value,
      [](const nlohmann::json& v) {
        return v.is_boolean() && v.get<bool>() ? std::optional<bool>(true) : std::nullopt;
      },
      nullptr);
  for (const auto& [power, names] : table)
    for (const auto& [name, on] : names) out[power].insert(name);
  return out;
}

nlohmann::json treeNamesToJson(const std::map<std::string, std::set<std::string>>& names) {
  nlohmann::json out = nlohmann::json::object();
  for (const auto& [power, set] : names)
    for (const auto& name : set) out[power][name] = true;
  return out;
}

ProcSettings::ProcSettings() : ProcSettings(DefaultSettings::shared(), PowerMonitor::shared()) {}

ProcSettings::ProcSettings(DefaultSettings& store, PowerMonitor& monitor)
    : m_store(store), m_monitor(monitor) {
  const std::string power = m_monitor.powerName();  // taken before our lock: no nesting
  {
    MutexLock lock(m_mutex);
    m_power = power;
    loadLocked();
  }
  AddListener(kPowerSourceBroadcast, kListenerKey, [this](const std::string&) { onPowerSourceChanged(); });
}

ProcSettings::~ProcSettings() { RemoveListener(kPowerSourceBroadcast, kListenerKey); }

void ProcSettings::onPowerSourceChanged() {
  const std::string power = m_monitor.powerName();
  MutexLock lock(m_mutex);
  m_power = power;
}

std::string ProcSettings::power() {
  MutexLock lock(m_mutex);
  return m_power;
}

std::optional<double> ProcSettings::limitFor(const std::string& name, const std::string& power) {
  MutexLock lock(m_mutex);
  return lookup<LimitTable, double>(m_limited_names, name, power);
}

void ProcSettings::setLimit(const std::string& name, const std::string& power, double share, bool tree) {
  MutexLock lock(m_mutex);
  m_limited_names[power][name] = share;
  if (tree)
    m_tree_names[power].insert(name);
  else if (auto source = m_tree_names.find(power);
           source != m_tree_names.end() && source->second.erase(name) && source->second.empty())
    m_tree_names.erase(source);
  saveLocked();
}

bool ProcSettings::limitHoldsTree(const std::string& name, const std::string& power) {
  MutexLock lock(m_mutex);
  auto source = m_tree_names.find(power);
  return source != m_tree_names.end() && source->second.count(name) > 0;
}

void ProcSettings::removeLimit(const std::string& name) { removeLimit(name, power()); }

void ProcSettings::removeLimit(const std::string& name, const std::string& power) {
  MutexLock lock(m_mutex);
  auto source = m_limited_names.find(power);
  if (source != m_limited_names.end()) {
    source->second.erase(name);
    if (source->second.empty()) m_limited_names.erase(source);
  }
  if (auto trees = m_tree_names.find(power); trees != m_tree_names.end()) {
    trees->second.erase(name);
    if (trees->second.empty()) m_tree_names.erase(trees);
  }
  saveLocked();
}

void ProcSettings::clearLimits() {
  MutexLock lock(m_mutex);
  m_limited_names.erase(m_power);
  m_tree_names.erase(m_power);
  saveLocked();
}

std::optional<int> ProcSettings::priorityFor(const std::string& name, const std::string& power) {
  MutexLock lock(m_mutex);
  return lookup<PriorityTable, int>(m_reniced_names, name, power);
}

void ProcSettings::setPriority(const std::string& name, const std::string& power, int priority) {
  MutexLock lock(m_mutex);
  m_reniced_names[power][name] = priority;
  saveLocked();
}

bool ProcSettings::remembersAny() {
  MutexLock lock(m_mutex);
  const auto any = [](const auto& table) {
    return std::any_of(table.begin(), table.end(), [](const auto& source) { return !source.second.empty(); });
  };
  return any(m_limited_names) || any(m_reniced_names);
}

void ProcSettings::load() {
  MutexLock lock(m_mutex);
  loadLocked();
}

void ProcSettings::save() {
  MutexLock lock(m_mutex);
  saveLocked();
}

void ProcSettings::loadLocked() {
  loadSavedList(m_store, keys::kSaveLimited, keys::kLimited, m_limited_names, limitTableFromJson);
  if (keys::kSaveLimited.load(m_store)) m_tree_names = treeNamesFromJson(keys::kLimitedTree.load(m_store));
  loadSavedList(m_store, keys::kSaveReniced, keys::kReniced, m_reniced_names, priorityTableFromJson);
}

void ProcSettings::saveLocked() {
  if (keys::kSaveLimited.load(m_store)) {
    keys::kLimited.save(m_store, toJson(m_limited_names));
    keys::kLimitedTree.save(m_store, treeNamesToJson(m_tree_names));
  }
  if (keys::kSaveReniced.load(m_store)) keys::kReniced.save(m_store, toJson(m_reniced_names));
}

}  // namespace pelmora
