#include "graphs/graph_switches.h"

#include "support/default_settings.h"

namespace pelmora {
namespace {

// One table of (key, member) pairs, so load and save cannot disagree on a name.
struct BoolKey {
  const char* key;
  bool GraphSwitches::*member;
};
struct IntKey {
  const char* key;
  int64_t GraphSwitches::*member;
  const IntRange* range;  // none for menu indices
};

constexpr BoolKey kBoolKeys[] = {
    {"graph_radio_default", &GraphSwitches::radio_default},
    {"graph_radio_light", &GraphSwitches::radio_light},
    {"graph_radio_dark", &GraphSwitches::radio_dark},
    {"graph_thin_dividers", &GraphSwitches::thin_dividers},
    {"graph_show_current", &GraphSwitches::show_current},
    {"graph_show_net_avg", &GraphSwitches::show_net_avg},
    {"graph_net_avg_exp", &GraphSwitches::net_avg_exp},
    {"graph_show_offline_cpus", &GraphSwitches::show_offline_cpus},
    {"graph_show_cpu_frequency", &GraphSwitches::show_cpu_frequency},
    {"graph_fill_graph", &GraphSwitches::fill_graph},
    {"graph_show_time_grid", &GraphSwitches::show_time_grid},
    {"graph_show_scale_grid", &GraphSwitches::show_scale_grid},
};

constexpr IntKey kIntKeys[] = {
    {"graph_update_interval", &GraphSwitches::update_interval, nullptr},
    {"graph_net_avg", &GraphSwitches::net_avg, nullptr},
    {"graph_max_cpu_rows", &GraphSwitches::max_cpu_rows, &GraphSwitches::kMaxCpuRows},
    {"graph_freq_sample_interval", &GraphSwitches::freq_sample_interval, &GraphSwitches::kFreqSampleInterval},
    {"graph_time_grid", &GraphSwitches::time_grid, &GraphSwitches::kTimeGrid},
    {"graph_scale_grid", &GraphSwitches::scale_grid, &GraphSwitches::kScaleGrid},
};

}  // namespace

GraphSwitches GraphSwitches::load(DefaultSettings& store) {
  GraphSwitches s;
  const GraphSwitches defaults;
  for (const auto& k : kBoolKeys) s.*k.member = store.loadBool(k.key, defaults.*k.member);
  for (const auto& k : kIntKeys) {
    const int64_t value = store.loadInt(k.key, defaults.*k.member);
    // A menu index other than the first two means the last item (5 seconds, 60 samples).
    s.*k.member = k.range ? k.range->clamp(value) : (value == 0 || value == 1 ? value : 2);
  }
  return s;
}

void GraphSwitches::save(DefaultSettings& store) const {
  for (const auto& k : kBoolKeys) store.saveBool(k.key, this->*k.member);
  for (const auto& k : kIntKeys) store.saveInt(k.key, this->*k.member);
}

int64_t GraphSwitches::updateInterval_us() const {
  if (update_interval == 0) return 1'000'000;
  if (update_interval == 1) return 2'000'000;
  return 5'000'000;
}

GraphSwitches& GraphSwitches::current() {
  static auto* switches = new GraphSwitches();
  return *switches;
}

}  // namespace pelmora
