#include "app/dock.h"

#include <QActionGroup>
#include <QApplication>
#include <QEvent>
#include <QMenu>
#include <QPixmap>

#include "app/sampler_client_link.h"
#include "app/system_stats_window.h"
#include "graphs/views/graph_view_temperature.h"
#include "sampling/system_stats.h"
#include "sampling/temperature_collector.h"
#include "support/default_settings.h"
#include "support/settings_keys.h"

namespace pelmora {

Dock::Dock(SystemStats& sampler, DefaultSettings& store, QObject* parent)
    : QObject(parent), m_sampler(sampler), m_store(store), m_app_icon(QApplication::windowIcon()) {
  m_link = std::make_shared<SamplerClientLink>([this] { samplerRestarted(); },
                                               [this](const SampleSet& sample) { statsUpdated(sample); });
  m_display_type = displayFromRaw(keys::kDockDisplay.load(m_store));
  setDisplay(m_display_type);
}

Dock::~Dock() {
  detach();
  m_link->cut();
}

Dock::Display Dock::displayFromRaw(int64_t raw) {
  return raw >= 0 && raw < kDisplayCount ? static_cast<Display>(raw) : Display::Icon;
}

QString Dock::displayName(Display display) {
  switch (display) {
    case Display::Icon: return tr("Application Icon");
    case Display::CPU: return tr("CPU");
    case Display::DiskIO: return tr("Disk I/O");
    case Display::GPU: return tr("GPU");
    case Display::LoadAvg: return tr("Load Average");
    case Display::Memory: return tr("Memory");
    case Display::Network: return tr("Network");
    case Display::Power: return tr("Power");
    case Display::Processes: return tr("Processes");
    case Display::Temperature: return tr("CPU Temperature");
    case Display::Battery: return tr("Battery");
  }
  return {};
}

std::unique_ptr<GraphView> Dock::makeView(Display display) const {
  std::unique_ptr<GraphView> view;
  switch (display) {
    case Display::Icon: return nullptr;
    case Display::CPU: view = std::make_unique<GraphViewCPU>(); view->setLabel(tr("System CPU: (%)")); break;
    case Display::DiskIO: view = std::make_unique<GraphViewIO>(); view->setLabel(tr("Total Disk I/O:") + "\n"); break;
    case Display::GPU: view = std::make_unique<GraphViewGFX>(); view->setLabel(tr("GPU:")); break;
    case Display::LoadAvg: view = std::make_unique<GraphViewLoad>(); view->setLabel(tr("Load Average:")); break;
    case Display::Memory: view = std::make_unique<GraphViewMEM>(); view->setLabel(tr("System Memory:")); break;
    case Display::Network: view = std::make_unique<GraphViewNet>(); view->setLabel(tr("Total Network:")); break;
    case Display::Power: view = std::make_unique<GraphViewPower>(); view->setLabel(tr("Power:")); break;
    case Display::Processes: view = std::make_unique<GraphViewProc>(); view->setLabel(tr("Processes:")); break;
    case Display::Temperature: view = std::make_unique<GraphViewTemperature>(); view->setLabel(tr("CPU Temp:")); break;
    case Display::Battery: view = std::make_unique<GraphViewBattery>(); view->setLabel(tr("Battery:")); break;
  }
  // Never shown on screen: it is only drawn into the icon's pixmap.
  view->setAttribute(Qt::WA_DontShowOnScreen);
  view->resize(kTileSize_px, kTileSize_px);
  return view;
}

void Dock::setDisplay(Display display) {
  const bool changed = display != m_display_type;
  m_view = makeView(display);
  m_tray_view = makeView(display);
  if (m_tray_view) {
    m_tray_view->resize(kTraySize_px, kTraySize_px);
    m_tray_view->setShowsCaption(false);
    m_tray_view->setPalette(QApplication::palette());
  }
  m_display_type = display;
  if (changed && m_view) feedView();
  keys::kDockDisplay.save(m_store, static_cast<int64_t>(display));
  if (display == Display::Icon) {
    detach();
    clearHistories();
  } else {
    attach();
  }
  if (m_view) {
    m_view->setDisplayDock(true);
    m_view->setPalette(QApplication::palette());
  }
  drawIcon(true);
  if (changed) emit displayChanged(display);
}

void Dock::attach() {
  if (!m_attached) {
    m_sampler.addClient(m_link);
    m_attached = true;
  }
  if (!m_theme_observer) {
    qApp->installEventFilter(this);
    m_theme_observer = true;
  }
}

void Dock::detach() {
  if (m_theme_observer) {
    qApp->removeEventFilter(this);
    m_theme_observer = false;
  }
  if (m_attached) {
    m_sampler.removeClient(m_link);
    m_attached = false;
  }
}

bool Dock::eventFilter(QObject* watched, QEvent* event) {
  if (watched == qApp && event->type() == QEvent::ApplicationPaletteChange && m_view) {
    m_view->setPalette(QApplication::palette());
    if (m_tray_view) m_tray_view->setPalette(QApplication::palette());
    drawIcon(true);  // rare, and the old colours should not linger until the next sample
  }
  return QObject::eventFilter(watched, event);
}

void Dock::graphSettingsChanged() {
  if (m_view) drawIcon(true);
}

void Dock::clearHistories() {
  m_total_cpu.clear();
  m_gfx.clear();
  m_io.clear();
  m_load.clear();
  m_mem.clear();
  m_net.clear();
  m_power.clear();
  m_proc.clear();
  m_active_gfx.clear();
  m_cpu_temp.clear();
  m_battery.clear();
}

void Dock::samplerRestarted() { clearHistories(); }

void Dock::statsUpdated(const SampleSet& sample) {
  appendCapped(m_total_cpu, totalCpuSample(sample.cpu_stats), kHistoryLimit);
  m_active_gfx.clear();
  for (const auto& card : sample.gfx_cards) {
    appendCapped(m_gfx[card.name], card.stats, kHistoryLimit);
    m_active_gfx.insert(card.name);
  }
  // A card that is gone keeps no history: the dictionary only ever holds the cards present.
  std::erase_if(m_gfx, [this](const auto& entry) { return !m_active_gfx.contains(entry.first); });
  appendCapped(m_io, sample.io_stats, kHistoryLimit);
  appendCapped(m_load, sample.load_avg, kHistoryLimit);
  appendCapped(m_mem, sample.mem_stats, kHistoryLimit);
  netStats total;
  for (const auto& intf : sample.net_stats) {
    total.bytes_in += intf.stats.bytes_in;
    total.bytes_out += intf.stats.bytes_out;
  }
  appendCapped(m_net, total, kHistoryLimit);
  appendCapped(m_power, sample.power_stats, kHistoryLimit);
  appendCapped(m_proc, sample.proc_stats, kHistoryLimit);
  appendThermal(sample);
  feedView();
  drawIcon(false);
}

// The icon is too small for three lines: its temperature graph gets the processor's sensors alone.
// A battery or sensors that went away take their history with them.
void Dock::appendThermal(const SampleSet& sample) {
  std::vector<temperatureStats> cpu;
  for (const auto& sensor : sample.temp_stats)
    if (sensor.kind == TemperatureCollector::kCpu) cpu.push_back(sensor);
  if (cpu.empty()) m_cpu_temp.clear();
  else appendCapped(m_cpu_temp, cpu, kHistoryLimit);
  if (sample.battery_stats.empty()) m_battery.clear();
  else appendCapped(m_battery, sample.battery_stats.front(), kHistoryLimit);
}

void Dock::feedView() {
  feed(m_view.get());
  feed(m_tray_view.get());
}

void Dock::feed(GraphView* view) {
  if (auto* cpu = dynamic_cast<GraphViewCPU*>(view)) {
    cpu->update(m_total_cpu, true);
  } else if (auto* gfx = dynamic_cast<GraphViewGFX*>(view)) {
    // The first card by name, so the choice stays put from sample to sample.
    const auto history = m_active_gfx.empty() ? m_gfx.end() : m_gfx.find(*m_active_gfx.begin());
    if (history != m_gfx.end()) {
      gfx->setLabel(tr("GPU:") + " " + QString::fromStdString(history->first));
      gfx->update(history->second);
    } else {
      gfx->update(std::vector<graphicsCardStats>{});
    }
  } else if (auto* io = dynamic_cast<GraphViewIO*>(view)) {
    const SystemStatsWindow* window = SystemStatsWindow::instance();
    io->update(m_io, window == nullptr || window->showDataIO());
  } else if (auto* load = dynamic_cast<GraphViewLoad*>(view)) {
    load->update(m_load);
  } else if (auto* mem = dynamic_cast<GraphViewMEM*>(view)) {
    mem->update(m_mem, m_sampler.pageSize());
  } else if (auto* net = dynamic_cast<GraphViewNet*>(view)) {
    net->update(m_net);
  } else if (auto* power = dynamic_cast<GraphViewPower*>(view)) {
    power->update(m_power);
  } else if (auto* proc = dynamic_cast<GraphViewProc*>(view)) {
    proc->update(m_proc);
  } else if (auto* temp = dynamic_cast<GraphViewTemperature*>(view)) {
    temp->update(m_cpu_temp);
  } else if (auto* battery = dynamic_cast<GraphViewBattery*>(view)) {
    battery->update(m_battery);
  }
}

void Dock::drawIcon(bool force) {
  if (!m_view) {
    m_live_icon = QIcon();
    m_live_tray_icon = QIcon();
    m_last_icon.reset();
    QApplication::setWindowIcon(m_app_icon);
    emit iconChanged(m_app_icon);
    emit trayIconChanged(m_app_icon);
    return;
  }
  if (!force && m_last_icon && m_last_icon->elapsed() < kIconInterval_us) return;
  m_last_icon = Timeval::now();
  ++m_icon_draws;
  m_live_icon = QIcon(m_view->grab());
  m_live_tray_icon = QIcon(m_tray_view->grab());
  QApplication::setWindowIcon(m_live_icon);
  emit iconChanged(m_live_icon);
  emit trayIconChanged(m_live_tray_icon);
}

QIcon Dock::icon() const { return m_view ? m_live_icon : m_app_icon; }

QIcon Dock::trayIcon() const { return m_view ? m_live_tray_icon : m_app_icon; }

std::vector<size_t> Dock::historyLengths() const {
  std::vector<size_t> lengths{m_total_cpu.size(), m_io.size(), m_load.size(), m_mem.size(),
                              m_net.size(),       m_power.size(), m_proc.size()};
  for (const auto& [name, history] : m_gfx) lengths.push_back(history.size());
  return lengths;
}

}  // namespace pelmora
