#pragma once
// Every "graph_" setting (key and default in support/settings_keys.h) with its range. The graph
// preferences pane keeps the shared instance (current()) equal to its controls, and the graph views
// read their drawing switches from it at paint time, so painting never goes to the settings store.
// Main thread only.
#include <cstdint>

#include "graphs/graph_geometry.h"
#include "support/settings_keys.h"

namespace pelmora {

class DefaultSettings;

struct IntRange {
  int64_t min, max, stepper_default;
  int64_t clamp(int64_t value) const { return value < min ? min : value > max ? max : value; }
};

struct GraphSwitches {
  static constexpr IntRange kMaxCpuRows{1, 128, 8};
  static constexpr IntRange kFreqSampleInterval_ms{1, 5000, 500};
  static constexpr IntRange kTimeGrid{1, 3600, 60};  // stored default 30; the stepper's own is 60
  static constexpr IntRange kScaleGrid{0, 100, 25};

  bool radio_default = keys::kGraphRadioDefault.def;
  bool radio_light = keys::kGraphRadioLight.def;
  bool radio_dark = keys::kGraphRadioDark.def;
  int64_t update_interval = keys::kGraphUpdateInterval.def;  // menu index: 1 s, 2 s, else 5 s
  int64_t net_avg = keys::kGraphNetAvg.def;                  // menu index: 5, 10, else 60 samples
  bool thin_dividers = keys::kGraphThinDividers.def;
  bool show_current = keys::kGraphShowCurrent.def;
  bool show_net_avg = keys::kGraphShowNetAvg.def;
  bool net_avg_exp = keys::kGraphNetAvgExp.def;
  bool show_offline_cpus = keys::kGraphShowOfflineCpus.def;
  bool show_cpu_frequency = keys::kGraphShowCpuFrequency.def;
  bool fill_graph = keys::kGraphFillGraph.def;
  bool show_time_grid = keys::kGraphShowTimeGrid.def;
  bool show_scale_grid = keys::kGraphShowScaleGrid.def;
  int64_t max_cpu_rows = keys::kGraphMaxCpuRows.def;
  int64_t freq_sample_interval_ms = keys::kGraphFreqSampleInterval_ms.def;
  int64_t time_grid = keys::kGraphTimeGrid.def;    // history columns
  int64_t scale_grid = keys::kGraphScaleGrid.def;  // percent of the height

  // Reads every key with its default; integers are clamped into their stepper's range.
  static GraphSwitches load(DefaultSettings& store);
  void save(DefaultSettings& store) const;

  GridOptions grid() const { return {show_time_grid, show_scale_grid, time_grid, scale_grid}; }
  // Refresh period of the graphs and of the frequency sampler: 1, 2 or 5 seconds.
  int64_t updateInterval_us() const;

  // The values the views paint with. Starts from the defaults until the pane (or the application)
  // sets it.
  static GraphSwitches& current();

  bool operator==(const GraphSwitches&) const = default;
};

}  // namespace pelmora
