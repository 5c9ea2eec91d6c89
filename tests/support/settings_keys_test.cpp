#include "support/settings_keys.h"

#include <gtest/gtest.h>

#include <filesystem>
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

TEST(SettingsKeys, TypedKeysReadStoredValuesAndFallBackOnTheWrongType) {
  FreshStore fresh;
  auto& s = fresh.store;
  struct Case { const char* what; nlohmann::json stored; nlohmann::json expected; };
  const Case bool_cases[] = {{"stored false", false, false}, {"a string", "no", true}, {"a dictionary", {{"on", true}}, true}};
  for (const auto& c : bool_cases) {
    if (c.stored.is_boolean()) keys::kWarnThrottle.save(s, c.stored.get<bool>());
    else if (c.stored.is_string()) s.saveString("WARN_throttle", c.stored.get<std::string>());
    else s.saveDict("WARN_throttle", c.stored);
    EXPECT_EQ(keys::kWarnThrottle.load(s), c.expected.get<bool>()) << c.what;
  }
  s.saveString("limiter_sample_interval", "fast");
  EXPECT_EQ(keys::kLimiterInterval_ms.load(s), 30);
  keys::kLimiterInterval_ms.save(s, 45);
  EXPECT_EQ(keys::kLimiterInterval_ms.load(s), 45);
  keys::kPIDIntegral.save(s, 0.75);
  EXPECT_DOUBLE_EQ(keys::kPIDIntegral.load(s), 0.75);
  s.saveBool("CPU_Settings", true);
  EXPECT_EQ(keys::kCpuSettings.load(s), nlohmann::json::object());
  const struct { const char* what; nlohmann::json stored; std::vector<std::string> expected; } list_cases[] = {
      {"a list", {"nvme Composite", "acpitz"}, {"nvme Composite", "acpitz"}},
      {"one text, not a list", "acpitz", {}},
      {"a list with a number in it", {"acpitz", 3}, {}},
  };
  for (const auto& c : list_cases) {
    s.saveDict("graph_temp_sensors", c.stored);
    EXPECT_EQ(keys::kGraphTempSensors.load(s), c.expected) << c.what;
  }
  keys::kGraphTempSensors.save(s, {"k10temp Tctl"});
  s.reload();
  EXPECT_EQ(keys::kGraphTempSensors.load(s), (std::vector<std::string>{"k10temp Tctl"}));
}

}  // namespace
}  // namespace pelmora
