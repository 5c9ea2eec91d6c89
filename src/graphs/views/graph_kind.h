#pragma once
// What sets one kind of time-series graph apart, as data: how its history becomes the model it draws
// (the pure column functions of graphs/graph_columns.h and thermal_columns.h), the legend's title,
// one legend row per series, how each series is read from a column and drawn (filled or a line), the
// caption's current values, the top of the scale and the tool a right click shows. KindGraphView
// draws any kind; the kinds are the constants at the end. Main thread only.
#include <QString>
#include <QStringList>

#include <cstdint>
#include <string>
#include <vector>

#include "graphs/graph_columns.h"
#include "graphs/graph_palette.h"
#include "graphs/thermal_columns.h"

namespace pelmora {

// A tool whose output a right click shows beside the graph ("ifconfig", "Volumes").
struct GraphDetails {
  QString title;
  QString program;
  QStringList arguments;
};

// Inputs: what a view's update takes besides its width (the history, oldest first, and the rest).
template <typename M, typename... Inputs>
struct GraphKind {
  using Model = M;
  using Column = typename decltype(M::columns)::value_type;
  struct Series {
    const char* label;                            // its legend row, translated when shown
    double fill_factor;                           // how much lighter its fill is; 0: a line, never filled
    double (*value)(const Column& column);        // a fraction of full scale
    bool (*drawn)(const Model& model) = nullptr;  // null: always
  };

  GraphClass graph;
  const char* title;
  std::vector<Series> series;
  // The model of the history for a view `width_px` wide (the columns it can show).
  Model (*model)(double width_px, Inputs... inputs);
  // The caption after the label, each line starting "\n"; `dock` for the live icon's narrow tile.
  QString (*current)(const Model& model, bool dock);
  // The value at the top of the graph ("100 %", "15.5 GiB", "12.0 Mbit/s"); empty when unknown.
  QString (*scale)(const Model& model);
  // The right click's tool for one device (empty: all of them); null where a right click shows nothing.
  GraphDetails (*details)(const QString& device) = nullptr;
};

struct CpuModel {
  std::vector<cpu_util> columns;
  bool total_system = false;  // the whole system's graph: no frequency in its caption
};

struct MemModel {
  std::vector<mem_stats> columns;
  double total_bytes = 0.0;  // of the newest sample
};

struct IoModel : PeakColumns<io_rate> {
  bool data_rate = false;  // bytes, not operations
};

struct PowerModel : PeakColumns<power_column> {
  bool sampled = false;  // at least one sample arrived, with or without a sensor
  bool sensor = false;   // the newest sample came from a power sensor
};

struct GfxModel {
  std::vector<graphicsCardStats> columns;
};

struct BatteryModel : BatteryColumns {
  batteryStats newest;
};

extern const GraphKind<CpuModel, const std::vector<cpu_sample_t>&, bool> kCpuGraph;
// The page size turns page counts into bytes.
extern const GraphKind<MemModel, const std::vector<memoryStats>&, int64_t> kMemGraph;
// Operations per sample, or bytes when the flag is set.
extern const GraphKind<IoModel, const std::vector<ioStats>&, bool> kIoGraph;
// Cumulative byte counters; the averaging follows the graph preferences.
extern const GraphKind<PeakColumns<bit_rate>, const std::vector<netStats>&> kNetGraph;
extern const GraphKind<PeakColumns<load_column>, const std::vector<loadAverage>&> kLoadGraph;
extern const GraphKind<PeakColumns<procStat>, const std::vector<procstat>&> kProcGraph;
extern const GraphKind<PowerModel, const std::vector<powerStats>&> kPowerGraph;
extern const GraphKind<FanColumns, const std::vector<fanStats>&> kFanGraph;
extern const GraphKind<GfxModel, const std::vector<graphicsCardStats>&> kGfxGraph;
extern const GraphKind<BatteryModel, const std::vector<batteryStats>&> kBatteryGraph;
// The newest samples, as many as there are columns, and the user's choice of sensors.
extern const GraphKind<TemperatureColumns, const std::vector<std::vector<temperatureStats>>&,
                       const std::vector<std::string>&>
    kTemperatureGraph;

}  // namespace pelmora
