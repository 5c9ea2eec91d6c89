#pragma once
// The statistics window: one time-series graph per metric in splitters. Per-processor graphs stand in
// columns of at most "graph_max_cpu_rows" rows; beside them the totals, memory, disk I/O, processes,
// load and power, and one graph per GPU, disk, interface and fan. The window is a sampler client
// while shown: it keeps every history (capped at kHistoryLimit samples) and redraws at the update
// interval of the graph preferences, not at every sample. Main thread only.
#include <QFont>
#include <QMainWindow>
#include <QPalette>

#include <map>
#include <optional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "graphs/graph_switches.h"
#include "graphs/views/kind_graph_view.h"
#include "sampling/sample_records.h"
#include "support/sys_root.h"
#include "support/timeval.h"

class QComboBox;
class QMenu;
class QSplitter;

namespace pelmora {

class DefaultSettings;
class GraphView;
class GraphViewTemperature;
class SamplerClientLink;
class SystemStats;

// Where each per-processor graph goes. shown lists the sample indices that get a graph, in cell
// order; the cells fill column after column, perColumn rows each, and the rest of the last column
// holds fillers so that every column has the same rows.
struct CpuGrid {
  std::vector<size_t> shown;
  int64_t per_column = 0;
  int64_t columns = 0;
  int64_t fillers() const { return columns * per_column - static_cast<int64_t>(shown.size()); }
  bool operator==(const CpuGrid&) const = default;
};
CpuGrid cpuGrid(const std::vector<bool>& online, bool show_offline, int64_t max_rows);

// Per present processor, whether it is online, from the text of devices/system/cpu/online. A missing
// or unreadable list means all of them are (kernels without hotplug have no such file).
std::vector<bool> cpuOnlineStatus(const std::vector<int>& present, const std::optional<std::string>& online_text);

// The whole machine as one processor: the sums of the times and the mean of the known frequencies.
cpu_sample_t totalCpuSample(const std::vector<cpu_sample_t>& cpus);

// The window palette for the chosen appearance; the default theme gives back the palette it had at load
// (an empty one, which follows the application's).
QPalette themePalette(const GraphSwitches& switches, const QPalette& default_palette);

class SystemStatsWindow : public QMainWindow {
  Q_OBJECT
 public:
  static constexpr size_t kHistoryLimit = 1800;
  // A card's statistics can fail to read for a sample or two (a busy driver, NVML starting up):
  // its history waits this many samples before the card counts as gone.
  static constexpr int64_t kGpuMissedSamplesKept = 10;
  static constexpr int kThinHandle_px = 1;
  static constexpr int kThickHandle_px = 6;

  // sampler and store outlive the window; root is where the processor online list is read.
  SystemStatsWindow(SystemStats& sampler, DefaultSettings& store, SysRoot root = SysRoot::current(),
                    QWidget* parent = nullptr);
  ~SystemStatsWindow() override;

  // The one window of the application: none while closed. openShared makes it when needed (deleted
  // again when closed), shows and raises it.
  static SystemStatsWindow* instance();
  static SystemStatsWindow* openShared(SystemStats& sampler, DefaultSettings& store);

  // Sampler client calls.
  void statsUpdated(const SampleSet& sample);
  void samplerRestarted();

  // The processors went on- or offline: the per-processor graphs are rebuilt. Changes made outside
  // this application (the command line, the boot service, another user) are found at the next sample.
  void processorSetChanged();
  // The graph preferences changed: appearance, processor grid and graphs follow at once.
  void graphSettingsChanged();
  // The graph label font: set on every graph and saved. changeFont asks with the font dialog.
  void setLabelFont(const QFont& font);
  const QFont& labelFont() const { return m_font; }
  void changeFont();
  void defaultFont();
  static QFont defaultLabelFont();
  // Disk I/O in bytes (first item of the selector) or in operations.
  bool showDataIO() const;
  void setShowDataIO(bool bytes);

  // For the application's menus and for tests.
  QSplitter* cpuController() const { return m_cpu_controller; }
  QComboBox* dataIOSelector() const { return m_data_io; }
  QMenu* fontMenu() const { return m_font_menu; }
  const std::vector<GraphViewCPU*>& cpuViews() const { return m_cpu_views; }
  const std::map<std::string, GraphViewIO*>& diskViews() const { return m_disk_views; }
  const std::map<std::string, GraphViewNet*>& interfaceViews() const { return m_intf_views; }
  const std::map<std::string, GraphViewGFX*>& gpuViews() const { return m_gpu_views; }
  const std::vector<GraphViewFan*>& fanViews() const { return m_fan_views_list; }
  GraphViewCPU* totalCpuView() const { return m_total_cpu_view; }
  // Hidden on a machine without such sensors or without a battery of its own.
  GraphViewTemperature* temperatureView() const { return m_temp_view; }
  GraphViewBattery* batteryView() const { return m_battery_view; }
  int64_t redrawCount() const { return m_redraw_count; }
  // Samples held over every history: bounded however long the window runs.
  size_t heldSamples() const;
  bool isSamplerClient() const { return m_registered; }

 protected:
  void showEvent(QShowEvent* event) override;
  void closeEvent(QCloseEvent* event) override;

 private:
  void buildLayout();
  QSplitter* makeSplitter(Qt::Orientation orientation, QWidget* parent = nullptr);
  void addGraph(QSplitter* splitter, GraphView* view, const QString& label);
  void rebuildCpuGraphs();
  void applyAppearance();
  void appendSample(const SampleSet& sample);
  void dropVanishedDevices(const SampleSet& sample);
  void redraw();
  void syncDeviceViews();
  void syncDisks();
  void syncInterfaces();
  void syncGpus();
  void syncFans();
  void syncThermal();
  void updateGraphs();
  void register_();
  void release();
  void saveSettings();

  // Splitters: left and right halves; the processor columns; one graph per device.
  QSplitter* m_split_horiz = nullptr;
  QSplitter* m_split_left = nullptr;
  QSplitter* m_split_right = nullptr;
  QSplitter* m_cpu_controller = nullptr;
  QSplitter* m_gfx_views = nullptr;
  QSplitter* m_dsk_views = nullptr;
  QSplitter* m_net_views = nullptr;
  QSplitter* m_fan_views = nullptr;
  GraphViewCPU* m_total_cpu_view = nullptr;
  GraphViewMEM* m_mem_view = nullptr;
  GraphViewIO* m_io_view = nullptr;
  GraphViewLoad* m_load_view = nullptr;
  GraphViewProc* m_proc_view = nullptr;
  GraphViewPower* m_power_view = nullptr;
  GraphViewTemperature* m_temp_view = nullptr;
  GraphViewBattery* m_battery_view = nullptr;
  QComboBox* m_data_io = nullptr;
  QMenu* m_font_menu = nullptr;  // "Font…", "Default Font"

  // Histories, oldest first, each at most kHistoryLimit long.
  std::vector<std::vector<cpu_sample_t>> m_cpu;
  std::vector<cpu_sample_t> m_total_cpu;
  std::vector<std::vector<fanStats>> m_fan;
  std::map<std::string, std::vector<ioStats>> m_dsk;  // by kernel name
  std::map<std::string, std::vector<netStats>> m_net;
  std::map<std::string, std::vector<graphicsCardStats>> m_gfx;  // by card name
  std::map<std::string, int64_t> m_gfx_missed;  // samples in a row a card was missing from
  std::vector<memoryStats> m_mem;
  std::vector<ioStats> m_io;
  std::vector<procstat> m_proc;
  std::vector<loadAverage> m_load;
  std::vector<powerStats> m_power;
  std::vector<std::vector<temperatureStats>> m_temp;  // only samples that had sensors
  std::vector<batteryStats> m_battery;                // the machine's first battery

  std::map<std::string, GraphViewIO*> m_disk_views;
  std::map<std::string, std::string> m_disk_names;  // kernel name -> vendor and model
  std::map<std::string, GraphViewNet*> m_intf_views;
  std::map<std::string, GraphViewGFX*> m_gpu_views;
  std::vector<GraphViewFan*> m_fan_views_list;
  std::vector<GraphViewCPU*> m_cpu_views;  // parallel to m_cpu_view_index
  std::vector<size_t> m_cpu_view_index;    // sample index of each processor graph

  QByteArray m_gfx_state;  // saved GPU divider positions, until the GPU graphs exist
  QPalette m_default_appearance;
  std::vector<int> m_present;  // processor numbers, one per sample entry
  size_t m_ncpu = 0;
  std::vector<bool> m_cpu_status;
  QFont m_font;
  Timeval m_lastupdate;
  int64_t m_redraw_count = 0;

  SystemStats& m_sampler;
  DefaultSettings& m_store;
  const SysRoot m_root;
  std::shared_ptr<SamplerClientLink> m_link;
  bool m_registered = false;
};

}  // namespace pelmora
