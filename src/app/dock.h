#pragma once
// The live icon: one of the display kinds. For every kind but Icon a graph view the size of an icon
// is kept off screen, fed from a short history of samples (kHistoryLimit), and drawn into a pixmap at
// most once a second; the pixmap becomes the application's window icon and is offered to the tray
// (iconChanged), for desktops that cannot show a live window icon. With Icon the application's own
// icon comes back and the Dock stops being a sampler client. The kind is kept under "DOCK_display".
// Works with or without a tray. Main thread only.
#include <QIcon>
#include <QObject>
#include <QPalette>

#include <map>
#include <optional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sampling/sample_records.h"
#include "support/timeval.h"

class QMenu;
class QWidget;

namespace pelmora {

class DefaultSettings;
class GraphView;
class SamplerClientLink;
class SystemStats;

class Dock : public QObject {
  Q_OBJECT
 public:
  enum class Display : int { Icon = 0, CPU, DiskIO, GPU, LoadAvg, Memory, Network, Power, Processes, Temperature, Battery };
  static constexpr int kDisplayCount = 11;
  static constexpr size_t kHistoryLimit = 72;
  static constexpr int kTileSize_px = 128;
  // The common tray size; the tray gets a graph of its own drawn at this size, without a caption.
  static constexpr int kTraySize_px = 22;
  static constexpr int64_t kIconInterval_us = 1'000'000;

  // Reads the saved kind and shows it (attaching to the sampler unless it is Icon).
  Dock(SystemStats& sampler, DefaultSettings& store, QObject* parent = nullptr);
  ~Dock() override;

  void setDisplay(Display display);
  Display displayType() const { return m_display_type; }
  // A stored raw value outside the kinds reads as Icon.
  static Display displayFromRaw(int64_t raw);
  // The menu item text of a kind.
  static QString displayName(Display display);

  // The icon shown now: the live graph or, for Icon, the application's own.
  QIcon icon() const;
  // The same at tray size: the graph without its caption, or the application's own icon.
  QIcon trayIcon() const;
  GraphView* view() const { return m_view.get(); }
  // The graph preferences changed (the appearance among them): both icons are drawn again at once.
  void graphSettingsChanged();
  bool attached() const { return m_attached; }
  int64_t iconDraws() const { return m_icon_draws; }

  // Sampler client calls.
  void statsUpdated(const SampleSet& sample);
  void samplerRestarted();

  // History lengths, for tests: CPU, disk, load, memory, network, power, processes and each GPU.
  std::vector<size_t> historyLengths() const;

 signals:
  void iconChanged(const QIcon& icon);
  void trayIconChanged(const QIcon& icon);
  void displayChanged(pelmora::Dock::Display display);

 protected:
  // The theme observer: an application palette change repaints the graph in the new colours.
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  std::unique_ptr<GraphView> makeView(Display display) const;
  void attach();
  void detach();
  void clearHistories();
  // Hands the histories to the views; the icon is redrawn separately.
  void feedView();
  void appendThermal(const SampleSet& sample);
  void feed(GraphView* view);
  void drawIcon(bool force);

  std::unique_ptr<GraphView> m_view;
  std::unique_ptr<GraphView> m_tray_view;
  Display m_display_type = Display::Icon;
  bool m_theme_observer = false;
  std::vector<cpu_sample_t> m_total_cpu;
  std::map<std::string, std::vector<graphicsCardStats>> m_gfx;
  std::vector<ioStats> m_io;
  std::vector<loadAverage> m_load;
  std::vector<memoryStats> m_mem;
  std::vector<netStats> m_net;
  std::vector<powerStats> m_power;
  std::vector<procstat> m_proc;
  std::set<std::string> m_active_gfx;
  std::vector<std::vector<temperatureStats>> m_cpu_temp;  // the processor's sensors only
  std::vector<batteryStats> m_battery;                     // the machine's first battery

  SystemStats& m_sampler;
  DefaultSettings& m_store;
  std::shared_ptr<SamplerClientLink> m_link;
  bool m_attached = false;
  QIcon m_app_icon;
  QIcon m_live_icon;
  QIcon m_live_tray_icon;
  std::optional<Timeval> m_last_icon;
  int64_t m_icon_draws = 0;
};

}  // namespace pelmora
