#include "graphs/graph_switches.h"

#include "support/default_settings.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

// One table of (key, member) pairs, so load and save cannot disagree on a name.
struct BoolSwitch {
  const BoolKey& key;
  bool GraphSwitches::*member;
};
struct IntSwitch {
  const IntKey& key;
  int64_t GraphSwitches::*member;
  const IntRange* range;  // none for menu indices
};

constexpr BoolSwitch kBoolKeys[] = {
    {keys::kGraphRadioDefault, &GraphSwitches::radio_default},
    {keys::kGraphRadioLight, &GraphSwitches::radio_light},
    {keys::kGraphRadioDark, &GraphSwitches::radio_dark},
    {keys::kGraphThinDividers, &GraphSwitches::thin_dividers},
    {keys::kGraphShowCurrent, &GraphSwitches::show_current},
    {keys::kGraphShowNetAvg, &GraphSwitches::show_net_avg},
    {keys::kGraphNetAvgExp, &GraphSwitches::net_avg_exp},
    {keys::kGraphShowOfflineCpus, &GraphSwitches::show_offline_cpus},
    {keys::kGraphShowCpuFrequency, &GraphSwitches::show_cpu_frequency},
    {keys::kGraphFillGraph, &GraphSwitches::fill_graph},
    {keys::kGraphShowTimeGrid, &GraphSwitches::show_time_grid},
    {keys::kGraphShowScaleGrid, &GraphSwitches::show_scale_grid},
};

constexpr IntSwitch kIntKeys[] = {
    {keys::kGraphUpdateInterval, &GraphSwitches::update_interval, nullptr},
    {keys::kGraphNetAvg, &GraphSwitches::net_avg, nullptr},
    {keys::kGraphMaxCpuRows, &GraphSwitches::max_cpu_rows, &GraphSwitches::kMaxCpuRows},
    {keys::kGraphFreqSampleInterval_ms, &GraphSwitches::freq_sample_interval_ms,
     &GraphSwitches::kFreqSampleInterval_ms},
    {keys::kGraphTimeGrid, &GraphSwitches::time_grid, &GraphSwitches::kTimeGrid},
    {keys::kGraphScaleGrid, &GraphSwitches::scale_grid, &GraphSwitches::kScaleGrid},
};

}  // namespace

GraphSwitches GraphSwitches::load(DefaultSettings& store) {
  GraphSwitches s;
  for (const auto& k : kBoolKeys) s.*k.member = k.key.load(store);
  for (const auto& k : kIntKeys) {
    const int64_t value = k.key.load(store);
    // A menu index other than the first two means the last item (5 seconds, 60 samples).
    s.*k.member = k.range ? k.range->clamp(value) : (value == 0 || value == 1 ? value : 2);
  }
  return s;
}

void GraphSwitches::save(DefaultSettings& store) const {
  for (const auto& k : kBoolKeys) k.key.save(store, this->*k.member);
  for (const auto& k : kIntKeys) k.key.save(store, this->*k.member);
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
