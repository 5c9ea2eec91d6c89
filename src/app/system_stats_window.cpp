#include "app/system_stats_window.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QFontDatabase>
#include <QFontDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPointer>
#include <QScrollArea>
#include <QSplitter>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <set>

#include "app/desktop_scheme.h"
#include "app/sampler_client_link.h"
#include "app/window_frame.h"
#include "graphs/views/graph_view_temperature.h"
#include "sampling/cpu_collector.h"
#include "sampling/system_stats.h"
#include "support/default_settings.h"
#include "support/settings_keys.h"
#include "support/text.h"

namespace pelmora {

namespace {

constexpr int kFillerHeight_px = 100;

QPointer<SystemStatsWindow>& sharedSlot() {
  static QPointer<SystemStatsWindow> slot;
  return slot;
}

QString qs(const std::string& text) { return QString::fromStdString(text); }

// Drops the keyed histories of devices that are not in the newest sample.
template <typename Map>
void keepOnly(Map& map, const std::set<std::string>& present) {
  std::erase_if(map, [&](const auto& entry) { return !present.contains(entry.first); });
}

}  // namespace

CpuGrid cpuGrid(const std::vector<bool>& online, bool show_offline, int64_t max_rows) {
  CpuGrid grid;
  for (size_t i = 0; i < online.size(); ++i) {
    if (show_offline || online[i]) grid.shown.push_back(i);
  }
  const auto shown = static_cast<int64_t>(grid.shown.size());
  grid.per_column = std::min(std::max<int64_t>(max_rows, 1), shown);
  grid.columns = grid.per_column == 0 ? 0 : (shown + grid.per_column - 1) / grid.per_column;
  return grid;
}

std::vector<bool> cpuOnlineStatus(const std::vector<int>& present, const std::optional<std::string>& online_text) {
  std::vector<bool> status(present.size(), true);
  if (!online_text) return status;
  const auto online = parseCpuList(trim(*online_text));
  if (!online) return status;
  const std::set<int> on(online->begin(), online->end());
  for (size_t i = 0; i < present.size(); ++i) status[i] = on.contains(present[i]);
  return status;
}

cpu_sample_t totalCpuSample(const std::vector<cpu_sample_t>& cpus) {
  cpu_sample_t total;
  double mhz_sum = 0.0;
  int known = 0;
  for (const auto& cpu : cpus) {
    total.totalSystemTime += cpu.totalSystemTime;
    total.totalUserTime += cpu.totalUserTime;
    total.totalIdleTime += cpu.totalIdleTime;
    if (cpu.frequency > 0.0) {
      mhz_sum += cpu.frequency;
      ++known;
    }
  }
  total.frequency = known == 0 ? 0.0 : mhz_sum / known;
  return total;
}

QPalette themePalette(const GraphSwitches& switches, const QPalette& default_palette) {
  if (switches.radio_dark) return DesktopScheme::darkPalette();
  if (switches.radio_light) {
    QPalette light(QColor(236, 236, 236), QColor(236, 236, 236));
    light.setColor(QPalette::Base, Qt::white);
    light.setColor(QPalette::Text, Qt::black);
    light.setColor(QPalette::WindowText, Qt::black);
    light.setColor(QPalette::ButtonText, Qt::black);
    return light;
  }
  return default_palette;
}

SystemStatsWindow::SystemStatsWindow(SystemStats& sampler, DefaultSettings& store, SysRoot root, QWidget* parent)
    : QMainWindow(parent), m_sampler(sampler), m_store(store), m_root(std::move(root)) {
  setWindowTitle(pelmoraTitle(tr("Statistics")));
  // Normally none of its own: the window then follows the application palette, and so the desktop's
  // colour scheme, whenever it changes.
  m_default_appearance = testAttribute(Qt::WA_SetPalette) ? palette() : QPalette();
  m_present = CpuCollector::presentCpus(m_root);
  m_ncpu = m_present.size();
  m_cpu_status = cpuOnlineStatus(m_present, m_root.readSys("devices/system/cpu/online"));
  m_cpu.resize(m_ncpu);

  QFont font = defaultLabelFont();
  const std::string stored_font = keys::kGraphLabelFont.load(m_store);
  if (!stored_font.empty()) font.fromString(qs(stored_font));
  m_font = font;

  buildLayout();
  setShowDataIO(keys::kGraphShowDataIO.load(m_store));
  rebuildCpuGraphs();
  applyAppearance();

  resize(1100, 760);
  installWindowConventions(this, &m_store, &keys::kSystemStatsWindowFrame);

  // The link outlives the window inside the sampler's client list until it is removed; cut() below
  // makes any delivery after that a no-op.
  m_link = std::make_shared<SamplerClientLink>([this] { samplerRestarted(); },
                                               [this](const SampleSet& sample) { statsUpdated(sample); });
}

SystemStatsWindow::~SystemStatsWindow() {
  release();
  m_link->cut();
  if (sharedSlot() == this) sharedSlot() = nullptr;
}

SystemStatsWindow* SystemStatsWindow::instance() { return sharedSlot().data(); }

SystemStatsWindow* SystemStatsWindow::openShared(SystemStats& sampler, DefaultSettings& store) {
  auto& slot = sharedSlot();
  if (!slot) {
    slot = new SystemStatsWindow(sampler, store, sampler.root());
    slot->setAttribute(Qt::WA_DeleteOnClose);
  }
  slot->show();
  slot->raise();
  slot->activateWindow();
  return slot.data();
}

QSplitter* SystemStatsWindow::makeSplitter(Qt::Orientation orientation, QWidget* parent) {
  auto* splitter = new QSplitter(orientation, parent);
  splitter->setChildrenCollapsible(false);
  splitter->setOpaqueResize(true);
  return splitter;
}

void SystemStatsWindow::addGraph(QSplitter* splitter, GraphView* view, const QString& label) {
  view->setLabel(label);
  view->setAccessibleName(label);  // the caption is drawn, so a screen reader has no text to read
  view->setLabelFont(m_font);
  // The height is the graph's own: room for its caption (minimumSizeHint).
  view->setMinimumWidth(120);
  splitter->addWidget(view);
}

void SystemStatsWindow::buildLayout() {
  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);
  layout->setContentsMargins(4, 4, 4, 4);
  layout->setSpacing(4);

  auto* bar = new QHBoxLayout;
  m_data_io = new QComboBox(central);
  m_data_io->addItems({tr("Data"), tr("Operations")});
  connect(m_data_io, &QComboBox::currentIndexChanged, this, [this] {
    keys::kGraphShowDataIO.save(m_store, showDataIO());
    updateGraphs();
  });
  bar->addWidget(new QLabel(tr("Disk I/O:"), central));
  bar->addWidget(m_data_io);
  bar->addStretch(1);
  auto* labels = new QToolButton(central);
  labels->setText(tr("Labels"));
  labels->setPopupMode(QToolButton::InstantPopup);
  m_font_menu = new QMenu(labels);
  connect(m_font_menu->addAction(tr("Font…")), &QAction::triggered, this, [this] { changeFont(); });
  connect(m_font_menu->addAction(tr("Default Font")), &QAction::triggered, this, [this] { defaultFont(); });
  labels->setMenu(m_font_menu);
  bar->addWidget(labels);
  layout->addLayout(bar);

  // Each graph keeps room for its caption: where the screen is too small for all of them at once
  // (a laptop at twice the scale) the graphs scroll, as in the desktop's own system monitor, rather
  // than cut their text.
  auto* scroll = new QScrollArea(central);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  m_split_horiz = makeSplitter(Qt::Horizontal);
  m_split_left = makeSplitter(Qt::Vertical);
  m_split_right = makeSplitter(Qt::Vertical);
  m_split_horiz->addWidget(m_split_left);
  m_split_horiz->addWidget(m_split_right);
  scroll->setWidget(m_split_horiz);
  layout->addWidget(scroll, 1);
  setCentralWidget(central);

  m_cpu_controller = makeSplitter(Qt::Horizontal);
  m_split_left->addWidget(m_cpu_controller);
  addGraph(m_split_left, m_total_cpu_view = new GraphViewCPU, tr("System CPU:(%)"));
  m_gfx_views = makeSplitter(Qt::Vertical);
  m_split_left->addWidget(m_gfx_views);
  m_fan_views = makeSplitter(Qt::Vertical);
  m_split_left->addWidget(m_fan_views);
  addGraph(m_split_left, m_temp_view = new GraphViewTemperature, tr("Temperature:"));
  addGraph(m_split_left, m_battery_view = new GraphViewBattery, tr("Battery:"));
  // The processor columns take most of the height; the total and the device graphs share the rest.
  m_split_left->setSizes({600, 200, 150, 150, 150, 150});

  addGraph(m_split_right, m_mem_view = new GraphViewMEM, tr("System Memory:"));
  m_mem_view->setToolTip(tr("Gigabytes (base 1024)"));
  addGraph(m_split_right, m_io_view = new GraphViewIO, tr("Total Disk I/O:"));
  m_dsk_views = makeSplitter(Qt::Vertical);
  m_split_right->addWidget(m_dsk_views);
  m_net_views = makeSplitter(Qt::Vertical);
  m_split_right->addWidget(m_net_views);
  addGraph(m_split_right, m_proc_view = new GraphViewProc, tr("Processes:"));
  addGraph(m_split_right, m_load_view = new GraphViewLoad, tr("Load Average:"));
  addGraph(m_split_right, m_power_view = new GraphViewPower, tr("Power"));
  // Room for the disk and interface graphs once they appear.
  m_split_right->setSizes({110, 110, 220, 220, 100, 110, 100});

  for (QWidget* device : std::initializer_list<QWidget*>{m_gfx_views, m_fan_views, m_dsk_views, m_net_views,
                                                        m_temp_view, m_battery_view})
    device->hide();
  // The GPU dividers are put back once the GPU graphs exist (restoring an empty splitter does nothing).
  m_gfx_state = QByteArray::fromBase64(QByteArray::fromStdString(keys::kSystemStatsGfxSplit.load(m_store)));
}

void SystemStatsWindow::rebuildCpuGraphs() {
  while (m_cpu_controller->count() > 0) delete m_cpu_controller->widget(0);
  m_cpu_views.clear();
  m_cpu_view_index.clear();

  const GraphSwitches& switches = GraphSwitches::current();
  const CpuGrid grid = cpuGrid(m_cpu_status, switches.show_offline_cpus, switches.max_cpu_rows);
  const auto& types = m_sampler.cpuTypes();
  size_t k = 0;
  for (int64_t column = 0; column < grid.columns; ++column) {
    QSplitter* cells = makeSplitter(Qt::Vertical);
    cells->setHandleWidth(switches.thin_dividers ? kThinHandle_px : kThickHandle_px);
    m_cpu_controller->addWidget(cells);
    for (int64_t row = 0; row < grid.per_column; ++row, ++k) {
      if (k < grid.shown.size()) {
        const size_t index = grid.shown[k];
        const QString type = index < types.size() ? qs(types[index]) : QString();
        // The cluster as one letter (P, E) keeps the caption within a narrow column.
        const QString cluster = type.isEmpty() ? QString() : " (" + type.left(1) + ")";
        const QString label = tr("Util(%):") + tr(" CPU") + " " + QString::number(m_present[index]) + cluster;
        auto* view = new GraphViewCPU;
        addGraph(cells, view, label);
        view->setMinimumWidth(60);  // many narrow columns on a machine with many processors
        m_cpu_views.push_back(view);
        m_cpu_view_index.push_back(index);
      } else {
        auto* filler = new QWidget;
        filler->setBackgroundRole(QPalette::Base);
        filler->setAutoFillBackground(true);
        filler->setMinimumHeight(40);
        filler->resize(cells->width(), kFillerHeight_px);
        cells->addWidget(filler);
      }
    }
    cells->setSizes(QList<int>(grid.per_column, kFillerHeight_px));
  }
  m_cpu_controller->setSizes(QList<int>(grid.columns, 200));
  updateGraphs();
}

void SystemStatsWindow::applyAppearance() {
  const GraphSwitches& switches = GraphSwitches::current();
  setPalette(themePalette(switches, m_default_appearance));
  const int handle = switches.thin_dividers ? kThinHandle_px : kThickHandle_px;
  m_split_horiz->setHandleWidth(handle);
  for (auto* splitter : m_split_horiz->findChildren<QSplitter*>()) splitter->setHandleWidth(handle);
}

void SystemStatsWindow::processorSetChanged() {
  m_cpu_status = cpuOnlineStatus(m_present, m_root.readSys("devices/system/cpu/online"));
  rebuildCpuGraphs();
}

void SystemStatsWindow::graphSettingsChanged() {
  applyAppearance();
  rebuildCpuGraphs();
  redraw();
}

void SystemStatsWindow::setLabelFont(const QFont& font) {
  m_font = font;
  for (auto* view : findChildren<GraphView*>()) view->setLabelFont(font);
  keys::kGraphLabelFont.save(m_store, font.toString().toStdString());
}

QFont SystemStatsWindow::defaultLabelFont() { return QFontDatabase::systemFont(QFontDatabase::SmallestReadableFont); }

// Not a nested loop: the window may close (and be deleted) while the dialog is up.
void SystemStatsWindow::changeFont() {
  auto* dialog = new QFontDialog(m_font, this);
  dialog->setWindowTitle(tr("Graph Label Font"));
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  connect(dialog, &QFontDialog::fontSelected, this, [this](const QFont& font) { setLabelFont(font); });
  dialog->open();
}

void SystemStatsWindow::defaultFont() { setLabelFont(defaultLabelFont()); }

bool SystemStatsWindow::showDataIO() const { return m_data_io->currentIndex() == 0; }

void SystemStatsWindow::setShowDataIO(bool bytes) { m_data_io->setCurrentIndex(bytes ? 0 : 1); }

void SystemStatsWindow::statsUpdated(const SampleSet& sample) {
  // The kernel tells udev, not us, when a processor goes on- or offline: the online list is read
  // again with each sample (one small sysfs read a second) and the grid rebuilt when it differs.
  if (cpuOnlineStatus(m_present, m_root.readSys("devices/system/cpu/online")) != m_cpu_status) processorSetChanged();
  appendSample(sample);
  if (m_lastupdate.elapsed() >= GraphSwitches::current().updateInterval_us()) redraw();
}

void SystemStatsWindow::samplerRestarted() {
  for (auto& cpu : m_cpu) cpu.clear();
  m_total_cpu.clear();
  m_fan.clear();
  m_dsk.clear();
  m_net.clear();
  m_gfx.clear();
  m_gfx_missed.clear();
  m_mem.clear();
  m_io.clear();
  m_proc.clear();
  m_load.clear();
  m_power.clear();
  m_temp.clear();
  m_battery.clear();
}

void SystemStatsWindow::appendSample(const SampleSet& sample) {
  // A processor count that differs from the one at load is a sample taken mid-hotplug; the sampler
  // keeps one entry per present processor, so only the overlap is kept.
  const size_t n = std::min(m_cpu.size(), sample.cpu_stats.size());
  for (size_t i = 0; i < n; ++i) appendCapped(m_cpu[i], sample.cpu_stats[i], kHistoryLimit);
  appendCapped(m_total_cpu, totalCpuSample(sample.cpu_stats), kHistoryLimit);
  m_fan.resize(sample.fan_stats.size());
  for (size_t i = 0; i < sample.fan_stats.size(); ++i) appendCapped(m_fan[i], sample.fan_stats[i], kHistoryLimit);
  for (const auto& disk : sample.dsk_stats) {
    appendCapped(m_dsk[disk.bsdname], disk.stats, kHistoryLimit);
    m_disk_names[disk.bsdname] = disk.name;
  }
  for (const auto& intf : sample.net_stats) appendCapped(m_net[intf.intf], intf.stats, kHistoryLimit);
  for (const auto& card : sample.gfx_cards) appendCapped(m_gfx[card.name], card.stats, kHistoryLimit);
  appendCapped(m_mem, sample.mem_stats, kHistoryLimit);
  appendCapped(m_io, sample.io_stats, kHistoryLimit);
  appendCapped(m_proc, sample.proc_stats, kHistoryLimit);
  appendCapped(m_load, sample.load_avg, kHistoryLimit);
  appendCapped(m_power, sample.power_stats, kHistoryLimit);
  // A machine whose sensors or battery went away (a battery taken out) loses the graph with them.
  if (sample.temp_stats.empty()) m_temp.clear();
  else appendCapped(m_temp, sample.temp_stats, kHistoryLimit);
  if (sample.battery_stats.empty()) m_battery.clear();
  else appendCapped(m_battery, sample.battery_stats.front(), kHistoryLimit);
  dropVanishedDevices(sample);
}

void SystemStatsWindow::dropVanishedDevices(const SampleSet& sample) {
  std::set<std::string> disks, intfs, cards;
  for (const auto& disk : sample.dsk_stats) disks.insert(disk.bsdname);
  for (const auto& intf : sample.net_stats) intfs.insert(intf.intf);
  for (const auto& card : sample.gfx_cards) cards.insert(card.name);
  keepOnly(m_dsk, disks);
  keepOnly(m_disk_names, disks);
  keepOnly(m_net, intfs);
  for (const auto& name : cards) m_gfx_missed[name] = 0;
  std::erase_if(m_gfx, [&](const auto& entry) {
    return !cards.contains(entry.first) && ++m_gfx_missed[entry.first] > kGpuMissedSamplesKept;
  });
  std::erase_if(m_gfx_missed, [&](const auto& entry) { return !m_gfx.contains(entry.first); });
}

size_t SystemStatsWindow::heldSamples() const {
  size_t held = m_total_cpu.size() + m_mem.size() + m_io.size() + m_proc.size() + m_load.size() + m_power.size();
  for (const auto& cpu : m_cpu) held += cpu.size();
  for (const auto& fan : m_fan) held += fan.size();
  held += m_temp.size() + m_battery.size();
  for (const auto& [name, history] : m_dsk) held += history.size();
  for (const auto& [name, history] : m_net) held += history.size();
  for (const auto& [name, history] : m_gfx) held += history.size();
  return held;
}

void SystemStatsWindow::redraw() {
  m_lastupdate = Timeval::now();
  ++m_redraw_count;
  syncDeviceViews();
  updateGraphs();
}

void SystemStatsWindow::updateGraphs() {
  m_total_cpu_view->update(m_total_cpu, true);
  for (size_t i = 0; i < m_cpu_views.size(); ++i) m_cpu_views[i]->update(m_cpu[m_cpu_view_index[i]], false);
  for (size_t i = 0; i < m_fan_views_list.size() && i < m_fan.size(); ++i) m_fan_views_list[i]->update(m_fan[i]);
  for (auto& [name, view] : m_disk_views) {
    if (auto it = m_dsk.find(name); it != m_dsk.end()) view->update(it->second, showDataIO());
  }
  for (auto& [name, view] : m_intf_views) {
    if (auto it = m_net.find(name); it != m_net.end()) view->update(it->second);
  }
  for (auto& [name, view] : m_gpu_views) {
    if (auto it = m_gfx.find(name); it != m_gfx.end()) view->update(it->second);
  }
  m_mem_view->update(m_mem, m_sampler.pageSize());
  m_io_view->update(m_io, showDataIO());
  m_proc_view->update(m_proc);
  m_load_view->update(m_load);
  m_power_view->update(m_power);
  m_temp_view->update(m_temp);
  m_battery_view->update(m_battery);
}

// Inserts a graph for every key of histories without one, in key order, and deletes the graphs of keys
// that are gone. A new graph shows the device named by its key, under label(key) in the window's font.
template <typename View, typename History, typename Label>
static void syncKeyed(QSplitter* splitter, std::map<std::string, View*>& views, const History& histories,
                      const QFont& font, Label label) {
  for (auto it = views.begin(); it != views.end();) {
    if (histories.contains(it->first)) {
      ++it;
    } else {
      delete it->second;
      it = views.erase(it);
    }
  }
  for (const auto& [name, history] : histories) {
    if (views.contains(name)) continue;
    auto* view = new View;
    view->setLabel(label(name));
    view->setLabelFont(font);
    view->setMinimumWidth(120);
    view->setDevice(qs(name));
    auto [pos, inserted] = views.emplace(name, view);
    splitter->insertWidget(static_cast<int>(std::distance(views.begin(), pos)), view);
  }
  splitter->setVisible(!views.empty());
}

void SystemStatsWindow::syncDeviceViews() {
  const auto handle = GraphSwitches::current().thin_dividers ? kThinHandle_px : kThickHandle_px;
  syncFans();
  syncThermal();
  syncDisks();
  syncInterfaces();
  syncGpus();
  for (auto* splitter : {m_fan_views, m_dsk_views, m_net_views, m_gfx_views}) splitter->setHandleWidth(handle);
}

void SystemStatsWindow::syncDisks() {
  syncKeyed(m_dsk_views, m_disk_views, m_dsk, m_font, [this](const std::string& bsdname) {
    const std::string& model = m_disk_names[bsdname];
    return tr("Disk I/O: %1").arg(model.empty() ? qs(bsdname) : qs(model) + " (" + qs(bsdname) + ")");
  });
}

void SystemStatsWindow::syncInterfaces() {
  syncKeyed(m_net_views, m_intf_views, m_net, m_font,
            [](const std::string& name) { return tr("Network: %1").arg(qs(name)); });
}

void SystemStatsWindow::syncGpus() {
  syncKeyed(m_gfx_views, m_gpu_views, m_gfx, m_font,
            [](const std::string& name) { return tr("GPU:") + " " + qs(name); });
  if (!m_gfx_state.isEmpty() && m_gfx_views->count() > 0) {
    m_gfx_views->restoreState(m_gfx_state);
    m_gfx_state.clear();
  }
}

// No graph where the machine has nothing to show: the temperature graph needs a processor, GPU or
// disk sensor (or one the user chose), the battery graph a battery of the machine's own.
void SystemStatsWindow::syncThermal() {
  bool sensors = false;
  if (!m_temp.empty())
    for (const auto* sensor : chosenSensors(m_temp.back(), keys::kGraphTempSensors.load(m_store)))
      sensors = sensors || sensor != nullptr;
  m_temp_view->setVisible(sensors);
  m_battery_view->setVisible(!m_battery.empty());
}

void SystemStatsWindow::syncFans() {
  while (m_fan_views_list.size() > m_fan.size()) {
    delete m_fan_views_list.back();
    m_fan_views_list.pop_back();
  }
  while (m_fan_views_list.size() < m_fan.size()) {
    auto* view = new GraphViewFan;
    const QString number = m_fan.size() > 1 ? QString::number(m_fan_views_list.size() + 1) + ":" : QString();
    addGraph(m_fan_views, view, number.isEmpty() ? tr("Fan:") : tr("Fan") + " " + number);
    m_fan_views_list.push_back(view);
  }
  m_fan_views->setVisible(!m_fan_views_list.empty());
}

void SystemStatsWindow::register_() {
  if (m_registered) return;
  m_lastupdate = Timeval::now();
  m_sampler.addClient(m_link);
  m_registered = true;
}

void SystemStatsWindow::release() {
  if (!m_registered) return;
  m_sampler.removeClient(m_link);
  m_registered = false;
}

void SystemStatsWindow::saveSettings() {
  keys::kGraphShowDataIO.save(m_store, showDataIO());
  keys::kGraphLabelFont.save(m_store, m_font.toString().toStdString());
  if (m_gfx_views->count() > 0)
    keys::kSystemStatsGfxSplit.save(m_store, m_gfx_views->saveState().toBase64().toStdString());
  saveWindowFrame(this);
}

void SystemStatsWindow::showEvent(QShowEvent* event) {
  QMainWindow::showEvent(event);
  register_();
}

void SystemStatsWindow::closeEvent(QCloseEvent* event) {
  release();
  if (sharedSlot() == this) sharedSlot() = nullptr;
  saveSettings();
  QMainWindow::closeEvent(event);
}

}  // namespace pelmora
