#pragma once
// Every "graph_" setting with its default and range. The graph preferences pane keeps the shared
// instance (current()) equal to its controls, and the graph views read their drawing switches from it
// at paint time, so painting never goes to the settings store. Main thread only.
#include <cstdint>

#include "graphs/graph_geometry.h"

namespace pelmora {

class DefaultSettings;

struct IntRange {
  int64_t min, max, stepper_default;
  int64_t clamp(int64_t value) const { return value < min ? min : value > max ? max : value; }
};

struct GraphSwitches {
  static constexpr IntRange kMaxCpuRows{1, 128, 8};
  static constexpr IntRange kFreqSampleInterval{1, 5000, 500};
  static constexpr IntRange kTimeGrid{1, 3600, 60};  // stored default 30; the stepper's own is 60
  static constexpr IntRange kScaleGrid{0, 100, 25};

  bool radio_default = true;
  bool radio_light = false;
  bool radio_dark = false;
  int64_t update_interval = 2;  // menu index: 1 s, 2 s, else 5 s
  int64_t net_avg = 1;          // menu index: 5, 10, else 60 samples
  bool thin_dividers = true;
  bool show_current = true;
  bool show_net_avg = true;
  bool net_avg_exp = true;
  bool show_offline_cpus = false;
  bool show_cpu_frequency = true;
  bool fill_graph = true;
  bool show_time_grid = false;
  bool show_scale_grid = false;
  int64_t max_cpu_rows = 8;
  int64_t freq_sample_interval = 500;  // milliseconds
  int64_t time_grid = 30;              // history columns
  int64_t scale_grid = 25;             // percent of the height

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
