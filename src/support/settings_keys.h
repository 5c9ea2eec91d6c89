#pragma once
// Every key of the user's settings with its type and default, in one place. Readers go through the
// typed keys below so that a default is written once; the table (allSettingKeys) lists them all for
// tools and tests. The graph library takes its defaults from here and keeps their ranges itself.
// Font and colour-array keys have no value of their own here:
// their default is the drawing code's built-in one, and a fresh store holds nothing for them.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace pelmora {

class DefaultSettings;

enum class SettingType { boolean, integer, real, string, strings, dictionary, font, colours };

struct BoolKey {
  const char* key;
  bool def;
  bool load(DefaultSettings& store) const;
  void save(DefaultSettings& store, bool value) const;
};
struct IntKey {
  const char* key;
  int64_t def;
  int64_t load(DefaultSettings& store) const;
  void save(DefaultSettings& store, int64_t value) const;
};
struct DoubleKey {
  const char* key;
  double def;
  double load(DefaultSettings& store) const;
  void save(DefaultSettings& store, double value) const;
};
struct StringKey {
  const char* key;
  const char* def;
  std::string load(DefaultSettings& store) const;
  void save(DefaultSettings& store, const std::string& value) const;
};
// A list of texts; defaults to the empty list, and so does a stored value that is not a list of texts.
struct StringListKey {
  const char* key;
  std::vector<std::string> load(DefaultSettings& store) const;
  void save(DefaultSettings& store, const std::vector<std::string>& value) const;
};
// Defaults to the empty dictionary.
struct DictKey {
  const char* key;
  nlohmann::json load(DefaultSettings& store) const;
  void save(DefaultSettings& store, const nlohmann::json& value) const;
};
// A font as QFont::toString writes it; empty when none is stored (the drawing code's own font).
struct FontKey {
  const char* key;
  std::string load(DefaultSettings& store) const;
  void save(DefaultSettings& store, const std::string& value) const;
};
// A graph's colour array as stored; none when nothing is (the drawing code's built-in colours). The
// graph library checks its length and entries.
struct ColoursKey {
  const char* key;
  std::optional<nlohmann::json> load(DefaultSettings& store) const;
  void save(DefaultSettings& store, const nlohmann::json& value) const;
};

namespace keys {
// Windows open at the last quit.
inline constexpr BoolKey kAppPelmora{"APP_Pelmora", false};
inline constexpr BoolKey kAppProcesses{"APP_Processes", false};
inline constexpr BoolKey kAppSystemStats{"APP_SystemStats", false};
// CPU settings window: setting name -> power-source name -> value.
inline constexpr DictKey kCpuSettings{"CPU_Settings"};
inline constexpr BoolKey kWarnThrottle{"WARN_throttle", true};
inline constexpr BoolKey kWarnApplyBoot{"WARN_apply_boot", true};
// Processes pane.
inline constexpr BoolKey kApplyBoot{"apply_boot", false};
inline constexpr BoolKey kSaveLimited{"save_limited", true};
inline constexpr BoolKey kSaveReniced{"save_reniced", true};
inline constexpr BoolKey kLaunchAtLogin{"LaunchAtLogin", false};
inline constexpr BoolKey kShowDock{"show_dock", true};
inline constexpr BoolKey kShowMenubar{"show_menubar", false};
inline constexpr BoolKey kLimitFrontmost{"LimitFrontmost", false};
// Per-power-source lists of limited and reniced programs.
inline constexpr DictKey kLimited{"limited"};
inline constexpr DictKey kReniced{"reniced"};
// Power-source name -> program name -> true: the limits that hold the program's child processes too.
inline constexpr DictKey kLimitedTree{"limited_tree"};
// Limiter and adjuster (milliseconds) and the PID law.
inline constexpr IntKey kLimiterInterval_ms{"limiter_sample_interval", 30};
inline constexpr IntKey kAdjusterInterval_ms{"adjuster_sample_interval", 500};
inline constexpr DoubleKey kPIDProportional{"PID_proportional", 0.5};
inline constexpr DoubleKey kPIDIntegral{"PID_integral", 0.25};
inline constexpr DoubleKey kPIDDerivative{"PID_derivative", 0.0125};
inline constexpr BoolKey kUsePIDController{"PID_use_pidcontroller", false};
// Process table and window.
inline constexpr IntKey kProcessesInterval_ms{"UPDATE_PROCESSES", 5000};
inline constexpr IntKey kProcessFilter{"process_filter", 0};
inline constexpr StringKey kProcessSortColumn{"process_sort_column", "pctcpu"};
inline constexpr BoolKey kProcessSortAscending{"process_sort_ascending", false};
inline constexpr BoolKey kProcessTree{"process_tree", false};
inline constexpr IntKey kDockDisplay{"DOCK_display", 0};
// Graphs.
inline constexpr IntKey kGraphUpdateInterval{"graph_update_interval", 2};
inline constexpr BoolKey kGraphRadioDefault{"graph_radio_default", true};
inline constexpr BoolKey kGraphRadioLight{"graph_radio_light", false};
inline constexpr BoolKey kGraphRadioDark{"graph_radio_dark", false};
inline constexpr BoolKey kGraphThinDividers{"graph_thin_dividers", true};
inline constexpr IntKey kGraphMaxCpuRows{"graph_max_cpu_rows", 8};
inline constexpr BoolKey kGraphShowOfflineCpus{"graph_show_offline_cpus", false};
inline constexpr BoolKey kGraphShowCpuFrequency{"graph_show_cpu_frequency", true};
inline constexpr IntKey kGraphFreqSampleInterval_ms{"graph_freq_sample_interval", 500};
inline constexpr BoolKey kGraphShowNetAvg{"graph_show_net_avg", true};
inline constexpr IntKey kGraphNetAvg{"graph_net_avg", 1};
inline constexpr BoolKey kGraphNetAvgExp{"graph_net_avg_exp", true};
inline constexpr BoolKey kGraphShowTimeGrid{"graph_show_time_grid", false};
inline constexpr IntKey kGraphTimeGrid{"graph_time_grid", 30};
inline constexpr BoolKey kGraphShowScaleGrid{"graph_show_scale_grid", false};
inline constexpr IntKey kGraphScaleGrid{"graph_scale_grid", 25};
inline constexpr BoolKey kGraphFillGraph{"graph_fill_graph", true};
inline constexpr BoolKey kGraphShowCurrent{"graph_show_current", true};
inline constexpr BoolKey kGraphShowDataIO{"graph_show_data_io", true};
// The sensors the temperature graph draws, by name, in line order; empty: processor package, hottest
// GPU, hottest disk.
inline constexpr StringListKey kGraphTempSensors{"graph_temp_sensors"};
// Window places and sizes (QWidget::saveGeometry, base64) and the statistics window's GPU split;
// empty: the window manager places the window.
inline constexpr StringKey kPelmoraWindowFrame{"PelmoraWindow Frame", ""};
inline constexpr StringKey kProcinfoWindowFrame{"ProcinfoWindow Frame", ""};
inline constexpr StringKey kSystemStatsWindowFrame{"SystemStatsWindow Frame", ""};
inline constexpr StringKey kSystemStatsGfxSplit{"SystemStatsGFX", ""};
// Fonts.
inline constexpr FontKey kProcessTableFont{"process_table_font"};
inline constexpr FontKey kOpenFilesFont{"openfiles_font"};
inline constexpr FontKey kGraphLabelFont{"graph_label_font"};
// Each graph's colours.
inline constexpr ColoursKey kCpuColours{"cpu_colors"};
inline constexpr ColoursKey kMemColours{"mem_colors"};
inline constexpr ColoursKey kIOColours{"io_colors"};
inline constexpr ColoursKey kNetColours{"net_colors"};
inline constexpr ColoursKey kGfxColours{"gfx_colors"};
inline constexpr ColoursKey kFanColours{"fan_colors"};
inline constexpr ColoursKey kLoadColours{"loadavg_colors"};
inline constexpr ColoursKey kPowerColours{"power_colors"};
inline constexpr ColoursKey kProcColours{"proc_colors"};
inline constexpr ColoursKey kTempColours{"temp_colors"};
inline constexpr ColoursKey kBatteryColours{"battery_colors"};
}  // namespace keys

struct SettingKey {
  std::string key;
  SettingType type;
  nlohmann::json def;  // null for fonts and colour arrays (the drawing code's own default)
};

// Every key, in the order above.
const std::vector<SettingKey>& allSettingKeys();
// The value a store yields for the entry's key, read with the entry's type and default (null for
// fonts and colour arrays that are not stored).
nlohmann::json loadSetting(DefaultSettings& store, const SettingKey& entry);

}  // namespace pelmora
