#include "support/settings_keys.h"

#include "support/default_settings.h"

namespace pelmora {

bool BoolKey::load(DefaultSettings& store) const { return store.loadBool(key, def); }
void BoolKey::save(DefaultSettings& store, bool value) const { store.saveBool(key, value); }
int64_t IntKey::load(DefaultSettings& store) const { return store.loadInt(key, def); }
void IntKey::save(DefaultSettings& store, int64_t value) const { store.saveInt(key, value); }
double DoubleKey::load(DefaultSettings& store) const { return store.loadDouble(key, def); }
void DoubleKey::save(DefaultSettings& store, double value) const { store.saveDouble(key, value); }
std::string StringKey::load(DefaultSettings& store) const { return store.loadString(key, def); }
void StringKey::save(DefaultSettings& store, const std::string& value) const { store.saveString(key, value); }
std::vector<std::string> StringListKey::load(DefaultSettings& store) const {
  const auto value = store.loadValue(key);
  std::vector<std::string> out;
  if (!value || !value->is_array()) return out;
  for (const auto& item : *value) {
    if (!item.is_string()) return {};
    out.push_back(item.get<std::string>());
  }
  return out;
}
void StringListKey::save(DefaultSettings& store, const std::vector<std::string>& value) const {
  store.saveDict(key, nlohmann::json(value));
}
nlohmann::json DictKey::load(DefaultSettings& store) const { return store.loadDict(key); }
void DictKey::save(DefaultSettings& store, const nlohmann::json& value) const { store.saveDict(key, value); }
std::string FontKey::load(DefaultSettings& store) const { return store.loadString(key, ""); }
void FontKey::save(DefaultSettings& store, const std::string& value) const { store.saveString(key, value); }
std::optional<nlohmann::json> ColoursKey::load(DefaultSettings& store) const { return store.loadValue(key); }
void ColoursKey::save(DefaultSettings& store, const nlohmann::json& value) const { store.saveDict(key, value); }

namespace {

SettingKey entry(const BoolKey& k) { return {k.key, SettingType::boolean, k.def}; }
SettingKey entry(const IntKey& k) { return {k.key, SettingType::integer, k.def}; }
SettingKey entry(const DoubleKey& k) { return {k.key, SettingType::real, k.def}; }
SettingKey entry(const StringKey& k) { return {k.key, SettingType::string, k.def}; }
SettingKey entry(const StringListKey& k) { return {k.key, SettingType::strings, nlohmann::json::array()}; }
SettingKey entry(const DictKey& k) { return {k.key, SettingType::dictionary, nlohmann::json::object()}; }
SettingKey entry(const FontKey& k) { return {k.key, SettingType::font, nullptr}; }
SettingKey entry(const ColoursKey& k) { return {k.key, SettingType::colours, nullptr}; }

std::vector<SettingKey> buildTable() {
  using namespace keys;
  // A table, a few keys to a line.
  // clang-format off
  std::vector<SettingKey> t = {
      entry(kAppPelmora), entry(kAppProcesses), entry(kAppSystemStats), entry(kCpuSettings),
      entry(kWarnThrottle), entry(kWarnApplyBoot), entry(kApplyBoot), entry(kSaveLimited),
      entry(kSaveReniced), entry(kLaunchAtLogin), entry(kShowDock), entry(kShowMenubar),
      entry(kLimitFrontmost), entry(kLimited), entry(kReniced), entry(kLimitedTree), entry(kLimiterInterval_ms),
      entry(kAdjusterInterval_ms), entry(kPIDProportional), entry(kPIDIntegral), entry(kPIDDerivative),
      entry(kUsePIDController), entry(kProcessesInterval_ms), entry(kProcessFilter),
      entry(kProcessSortColumn), entry(kProcessSortAscending), entry(kDockDisplay),
      entry(kGraphUpdateInterval), entry(kGraphRadioDefault), entry(kGraphRadioLight),
      entry(kGraphRadioDark), entry(kGraphThinDividers), entry(kGraphMaxCpuRows),
      entry(kGraphShowOfflineCpus), entry(kGraphShowCpuFrequency), entry(kGraphFreqSampleInterval_ms),
      entry(kGraphShowNetAvg), entry(kGraphNetAvg), entry(kGraphNetAvgExp), entry(kGraphShowTimeGrid),
      entry(kGraphTimeGrid), entry(kGraphShowScaleGrid), entry(kGraphScaleGrid), entry(kGraphFillGraph),
      entry(kGraphShowCurrent), entry(kGraphShowDataIO), entry(kGraphTempSensors), entry(kProcessTree),
      entry(kPelmoraWindowFrame), entry(kProcinfoWindowFrame), entry(kSystemStatsWindowFrame),
      entry(kSystemStatsGfxSplit), entry(kProcessTableFont), entry(kOpenFilesFont), entry(kGraphLabelFont),
      entry(kCpuColours), entry(kMemColours), entry(kIOColours), entry(kNetColours), entry(kGfxColours),
      entry(kFanColours), entry(kLoadColours), entry(kPowerColours), entry(kProcColours), entry(kTempColours),
      entry(kBatteryColours),
  };
  // clang-format on
  return t;
}

}  // namespace

const std::vector<SettingKey>& allSettingKeys() {
  static const std::vector<SettingKey> table = buildTable();
  return table;
}

nlohmann::json loadSetting(DefaultSettings& store, const SettingKey& e) {
  switch (e.type) {
    case SettingType::boolean: return store.loadBool(e.key, e.def.get<bool>());
    case SettingType::integer: return store.loadInt(e.key, e.def.get<int64_t>());
    case SettingType::real: return store.loadDouble(e.key, e.def.get<double>());
    case SettingType::string: return store.loadString(e.key, e.def.get<std::string>());
    case SettingType::strings: return nlohmann::json(StringListKey{e.key.c_str()}.load(store));
    case SettingType::dictionary: return store.loadDict(e.key, e.def);
    case SettingType::font:
    case SettingType::colours: return store.loadValue(e.key).value_or(nullptr);
  }
  return nullptr;
}

}  // namespace pelmora
