#include "support/settings_keys.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <set>

#include "common/temp_dir.h"
#include "support/default_settings.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;

struct FreshStore {
  test::TempDir dir{"pelmora-keys"};
  DefaultSettings store{dir / "defaults.json"};
};

// Written out by hand, apart from the code's table, so a changed default shows up here.
// clang-format off
const nlohmann::json kExpected = {
    {"APP_Pelmora", false}, {"APP_Processes", false}, {"APP_SystemStats", false},
    {"CPU_Settings", nlohmann::json::object()}, {"WARN_throttle", true}, {"WARN_apply_boot", true},
    {"apply_boot", false}, {"save_limited", true}, {"save_reniced", true}, {"LaunchAtLogin", false},
    {"show_dock", true}, {"show_menubar", false}, {"LimitFrontmost", false},
    {"limited", nlohmann::json::object()}, {"reniced", nlohmann::json::object()},
    {"limited_tree", nlohmann::json::object()},
    {"limiter_sample_interval", 30}, {"adjuster_sample_interval", 500}, {"PID_proportional", 0.5},
    {"PID_integral", 0.25}, {"PID_derivative", 0.0125}, {"PID_use_pidcontroller", false},
    {"UPDATE_PROCESSES", 5000}, {"process_filter", 0}, {"process_sort_column", "pctcpu"},
    {"process_sort_ascending", false}, {"DOCK_display", 0}, {"graph_update_interval", 2},
    {"graph_radio_default", true}, {"graph_radio_light", false}, {"graph_radio_dark", false},
    {"graph_thin_dividers", true}, {"graph_max_cpu_rows", 8}, {"graph_show_offline_cpus", false},
    {"graph_show_cpu_frequency", true}, {"graph_freq_sample_interval", 500}, {"graph_show_net_avg", true},
    {"graph_net_avg", 1}, {"graph_net_avg_exp", true}, {"graph_show_time_grid", false},
    {"graph_time_grid", 30}, {"graph_show_scale_grid", false}, {"graph_scale_grid", 25},
    {"graph_fill_graph", true}, {"graph_show_current", true}, {"graph_show_data_io", true},
    {"graph_temp_sensors", nlohmann::json::array()}, {"process_tree", false},
    {"PelmoraWindow Frame", ""}, {"ProcinfoWindow Frame", ""}, {"SystemStatsWindow Frame", ""},
    {"SystemStatsGFX", ""},
    {"process_table_font", nullptr}, {"openfiles_font", nullptr}, {"graph_label_font", nullptr},
    {"cpu_colors", nullptr}, {"mem_colors", nullptr}, {"io_colors", nullptr}, {"net_colors", nullptr},
    {"gfx_colors", nullptr}, {"fan_colors", nullptr}, {"loadavg_colors", nullptr}, {"power_colors", nullptr},
    {"proc_colors", nullptr}, {"temp_colors", nullptr}, {"battery_colors", nullptr},
};
// clang-format on

TEST(SettingsKeys, AFreshStoreYieldsExactlyTheDefaults) {
  FreshStore fresh;
  std::set<std::string> seen;
  for (const auto& e : allSettingKeys()) {
    EXPECT_TRUE(seen.insert(e.key).second) << "listed twice: " << e.key;
    ASSERT_TRUE(kExpected.contains(e.key)) << "unexpected key " << e.key;
    EXPECT_EQ(loadSetting(fresh.store, e), kExpected[e.key]) << e.key;
  }
  EXPECT_EQ(seen.size(), kExpected.size());
  // Reading defaults writes nothing.
  EXPECT_FALSE(fs::exists(fresh.store.file()));
}

// A value saved through its typed key, or stored raw (as a hand edit or another version may leave
// it), reads back from a new store over the same file: through the key when its type fits, and as
// the key's default when it does not.
struct Stored {
  std::string what;
  std::function<void(DefaultSettings&)> save;
  nlohmann::json expected;
  std::function<nlohmann::json(DefaultSettings&)> load;
};
template <typename Value>
nlohmann::json asJson(const Value& v) {
  return v;
}
nlohmann::json asJson(const std::optional<nlohmann::json>& v) { return v.value_or(nullptr); }
template <typename Key>
Stored row(const Key& k, nlohmann::json stored, nlohmann::json expected) {
  return {std::string(k.key) + " = " + stored.dump(), [k, stored](DefaultSettings& s) { s.saveDict(k.key, stored); },
          std::move(expected), [k](DefaultSettings& s) { return asJson(k.load(s)); }};
}
template <typename Key, typename Value>
Stored saved(const Key& k, const Value& value) {
  return {std::string(k.key) + " saved", [k, value](DefaultSettings& s) { k.save(s, value); }, asJson(value),
          [k](DefaultSettings& s) { return asJson(k.load(s)); }};
}

TEST(SettingsKeys, SavedAndStoredValuesReadBackWhenTheirTypeFits) {
  using namespace keys;
  using strings = std::vector<std::string>;
  const nlohmann::json sensors = {"nvme Composite", "acpitz"};
  // clang-format off
  const Stored cases[] = {
      saved(kWarnThrottle, false), saved(kProcessesInterval_ms, int64_t{2000}), saved(kPIDProportional, 0.75),
      saved(kProcessSortColumn, std::string("pid")), saved(kGraphLabelFont, std::string("DejaVu Sans,10")),
      saved(kLimited, nlohmann::json{{"AC Power", {{"yes", 0.5}}}}), saved(kGraphTempSensors, strings{"k10temp Tctl"}),
      saved(kCpuColours, nlohmann::json{1, 2}),
      {"a removed key", [](DefaultSettings& s) { s.saveInt("gone", 1); s.remove("gone"); }, false,
       [](DefaultSettings& s) { return nlohmann::json(s.contains("gone")); }},
      row(kWarnThrottle, false, false), row(kWarnThrottle, 0, false), row(kWarnThrottle, "no", true),
      row(kWarnThrottle, {{"on", true}}, true),
      row(kLimiterInterval_ms, 45, 45), row(kLimiterInterval_ms, "fast", 30),
      row(kLimiterInterval_ms, 2.0, 2),  // a whole double is still a usable integer
      row(kPIDIntegral, 0.75, 0.75), row(kPIDIntegral, 2, 2.0), row(kPIDIntegral, "x", 0.25),
      row(kProcessSortColumn, "pid", "pid"), row(kProcessSortColumn, 3, "pctcpu"),
      row(kCpuSettings, {{"x", 1}}, {{"x", 1}}), row(kCpuSettings, nlohmann::json::array({1, 2}), nlohmann::json::object()),
      row(kCpuSettings, true, nlohmann::json::object()),
      row(kGraphTempSensors, sensors, sensors), row(kGraphTempSensors, "acpitz", nlohmann::json::array()),
      row(kGraphTempSensors, {"acpitz", 3}, nlohmann::json::array()),
      row(kGraphLabelFont, "DejaVu Sans,10", "DejaVu Sans,10"), row(kGraphLabelFont, 10, ""),
  };  // clang-format on
  FreshStore fresh;
  for (const auto& c : cases) {
    c.save(fresh.store);
    DefaultSettings again(fresh.store.file());
    EXPECT_EQ(c.load(again), c.expected) << c.what;
  }
  EXPECT_FALSE(fs::exists(fresh.store.file().string() + ".tmp"));
}

}  // namespace
}  // namespace pelmora
