#include "graphs/views/graph_kind.h"

#include <cmath>

#include "graphs/graph_switches.h"
#include "graphs/views/graph_view.h"
#include "sampling/sample_format.h"

namespace pelmora {
namespace {

constexpr double kBitsPerByte = 8.0;
const QString kDegrees = QStringLiteral(" \u00b0C");

QString tr(const char* text) { return GraphView::tr(text); }
// "Label: value", as every caption names its figures.
QString field(const char* label, const QString& value) { return tr(label) + " " + value; }
QString number(double value, int decimals) { return GraphView::number(value, decimals); }
QString bytes(double value) { return GraphView::formatted(value, 1024, 1, QStringLiteral("B")); }
QString hoursMinutes(int64_t seconds) { return QString::fromStdString(SampleFormat::duration(seconds)); }
QString fullScale(bool known) { return known ? QStringLiteral("100 %") : QString(); }

// Byte rates in binary units like the memory graph; operation counts in plain thousands.
QString ioRate(const IoModel& m, double fraction) {
  return m.data_rate ? GraphView::formatted(fraction * m.max, 1024, 1, QStringLiteral("B/s"))
                     : GraphView::formatted(fraction * m.max, 1000, 1, tr("IO/s"));
}

QString bitRate(const PeakColumns<bit_rate>& m, double fraction) {
  return GraphView::formatted(fraction * m.max * kBitsPerByte, 1000, 1, QStringLiteral("bit/s"));
}

QString cpuCurrent(const CpuModel& m, bool) {
  const bool none = m.columns.empty();
  const double busy = none ? 0.0 : m.columns.back().pctUser + m.columns.back().pctSystem;
  QString text = "\n" + field("Current:", none ? GraphView::pending() : number(busy * 100.0, 1) + " %");
  if (!GraphSwitches::current().show_cpu_frequency || m.total_system) return text;
  // The frequency reader reports nothing on machines without cpufreq or MSRs: 0 means unknown.
  const double mhz = none ? 0.0 : m.columns.back().frequency;
  return text + "\n" + field("Frequency:", mhz > 0.0 ? number(mhz, 0) + " MHz" : GraphView::pending());
}

QString memCurrent(const MemModel& m, bool) {
  return "\n" +
         field("Free:", m.columns.empty() ? GraphView::pending() : bytes(m.columns.back().free_count * m.total_bytes));
}

QString ioCurrent(const IoModel& m, bool) {
  if (m.columns.empty())
    return "\n" + field("Read:", GraphView::pending()) + "\n" + field("Write:", GraphView::pending());
  return "\n" + field("Read:", ioRate(m, m.columns.back().reads)) + "\n" +
         field("Write:", ioRate(m, m.columns.back().writes)) + "\n" + field("Peak:", ioRate(m, 1.0));
}

QString netCurrent(const PeakColumns<bit_rate>& m, bool) {
  if (m.columns.empty()) return "\n" + field("In:", GraphView::pending()) + "\n" + field("Out:", GraphView::pending());
  return "\n" + field("In:", bitRate(m, m.columns.back().bps_in)) + "\n" +
         field("Out:", bitRate(m, m.columns.back().bps_out)) + "\n" +
         field("Peak:", bitRate(m, m.max > 0.0 ? 1.0 : 0.0));
}

QString loadCurrent(const PeakColumns<load_column>& m, bool) {
  if (m.columns.empty()) return "\n" + field("1 Min:", GraphView::pending());
  const load_column newest = m.columns.back();
  auto value = [&](double fraction) { return number(fraction * m.max, 2); };
  return "\n" + field("1 Min:", value(newest.one)) + "  " + field("5 Min:", value(newest.five)) + "  " +
         field("15 Min:", value(newest.fifteen)) + "\n" + field("Peak:", number(m.max, 2));
}

// Counts are whole: the peak is rounded before it scales the fractions back.
double procPeak(const PeakColumns<procStat>& m) { return static_cast<double>(std::llround(m.max)); }

QString procCurrent(const PeakColumns<procStat>& m, bool) {
  if (m.columns.empty()) return "\n" + field("My Procs:", GraphView::pending());
  const procStat newest = m.columns.back();
  auto count = [&](double fraction) { return number(std::round(fraction * procPeak(m)), 0); };
  return "\n" + field("My Procs:", count(newest.user)) + "  " + field("System:", count(newest.system)) + "\n" +
         field("Other:", count(newest.other)) + "  " + field("Translated:", count(newest.translated));
}

QString powerCurrent(const PowerModel& m, bool) {
  if (!m.sampled) return "\n" + field("Total:", GraphView::pending());
  // Without a sensor the figure would read "0.0 W", which no machine draws. Checked before the
  // columns, which stay empty when every sample is zero.
  if (!m.sensor) return "\n" + tr("no power sensor");
  if (m.columns.empty()) return "\n" + field("Total:", GraphView::pending());
  return "\n" + field("Total:", number(m.columns.back().total * m.max, 1) + " W") + "\n" +
         field("Peak:", number(m.max, 1) + " W");
}

QString fanCurrent(const FanColumns& m, bool) {
  if (m.columns.empty()) return "\n" + field("Current:", GraphView::pending());
  const fan_column newest = m.columns.back();
  auto rpm = [&](double fraction) { return number(fraction * static_cast<double>(m.max_speed), 0); };
  return "\n" + field("Current:", rpm(newest.speed)) + " " + (newest.forced ? tr("forced") : tr("auto")) + "\n" +
         field("Maximum:", rpm(newest.max)) + "\n" + field("Minimum:", rpm(newest.min));
}

QString gfxCurrent(const GfxModel& m, bool) {
  if (m.columns.empty())
    return "\n" + field("Free:", GraphView::pending()) + "\n" + field("Utilisation:", GraphView::pending());
  const graphicsCardStats& newest = m.columns.back();
  return "\n" + field("Free:", bytes(static_cast<double>(newest.freeVRAM))) + "\n" +
         field("Utilisation:", number(static_cast<double>(newest.pctUtil), 1) + " %");
}

// "63% discharging", "80% charging": what the live icon and the caption say first.
QString chargeState(const batteryStats& battery) {
  return QString::number(battery.charge_pct, 'f', 0) + "% " + QString::fromStdString(battery.status);
}

QString batteryCurrent(const BatteryModel& m, bool dock) {
  // The live icon is 128 pixels wide: the rate gets a line of its own, and the health stays out.
  const batteryStats& b = m.newest;
  QString text = "\n" + chargeState(b);
  if (b.power_w > 0) text += (dock ? "\n" : "  ") + number(b.power_w, 1) + " W";
  if (b.time_to_empty_s > 0) text += "\n" + field("Empty in", hoursMinutes(b.time_to_empty_s));
  if (b.time_to_full_s > 0) text += "\n" + field("Full in", hoursMinutes(b.time_to_full_s));
  if (b.health_pct > 0 && !dock) text += "\n" + field("Health:", number(b.health_pct, 0) + "%");
  return text;
}

QString temperatureCurrent(const TemperatureColumns& m, bool dock) {
  QString text;
  for (size_t role = 0; role < kTemperatureRoles; ++role) {
    if (!m.present(static_cast<TemperatureRole>(role))) continue;
    const QString value = number(m.newest_C[role], 1) + kDegrees;
    // The live icon's label already says which sensor: its caption is the figure alone.
    if (dock) {
      text += "\n" + value;
      continue;
    }
    text += "\n" + QString::fromStdString(m.names[role]) + ": " + value;
    if (m.crit_C[role] > 0) text += " (" + field("critical", number(m.crit_C[role], 0)) + ")";
  }
  return text;
}

template <TemperatureRole role>
bool present(const TemperatureColumns& m) {
  return m.present(role);
}

template <size_t role>
double temperature(const temperature_column& c) {
  return c.value[role];
}

bool netAveragesShown(const PeakColumns<bit_rate>&) { return GraphSwitches::current().show_net_avg; }

GraphDetails diskVolumes(const QString& disk) {
  QStringList args = {"--output", "NAME,SIZE,TYPE,FSTYPE,LABEL,MOUNTPOINTS"};
  if (!disk.isEmpty()) args << "/dev/" + disk;
  return {tr("Volumes"), QStringLiteral("lsblk"), args};
}

GraphDetails interfaceAddresses(const QString& interface) {
  QStringList args = {"addr", "show"};
  if (!interface.isEmpty()) args << "dev" << interface;
  return {tr("ifconfig"), QStringLiteral("ip"), args};
}

}  // namespace

const GraphKind<CpuModel, const std::vector<cpu_sample_t>&, bool> kCpuGraph{
    GraphClass::cpu,
    "CPU Utilisation (%)",
    {{"User:", 0.5, [](const cpu_util& u) { return u.pctUser + u.pctSystem; }},
     {"System:", 0.5, [](const cpu_util& u) { return u.pctSystem; }}},
    [](double, const std::vector<cpu_sample_t>& history, bool total) {
      return CpuModel{cpuColumns(history), total};
    },
    cpuCurrent,
    [](const CpuModel&) { return fullScale(true); }};

const GraphKind<MemModel, const std::vector<memoryStats>&, int64_t> kMemGraph{
    GraphClass::mem,
    "Memory Usage",
    {{"Inactive:", 0.75, [](const mem_stats& m) { return m.inactive_count + m.active_count + m.wire_count; }},
     {"Active:", 0.75, [](const mem_stats& m) { return m.active_count + m.wire_count; }},
     {"Wired:", 0.75, [](const mem_stats& m) { return m.wire_count; }}},
    [](double, const std::vector<memoryStats>& history, int64_t page_size_bytes) {
      if (history.empty()) return MemModel{};
      const auto& m = history.back();
      const int64_t pages = m.free_count + m.active_count + m.inactive_count + m.wire_count;
      return MemModel{memColumns(history), static_cast<double>(pages) * static_cast<double>(page_size_bytes)};
    },
    memCurrent,
    [](const MemModel& m) { return m.total_bytes > 0.0 ? bytes(m.total_bytes) : QString(); }};

const GraphKind<IoModel, const std::vector<ioStats>&, bool> kIoGraph{
    GraphClass::io,
    "Disk I/O",
    {{"Read/sec:", 0.5, [](const io_rate& r) { return r.reads; }},
     {"Write/sec:", 0.0, [](const io_rate& r) { return r.writes; }}},
    [](double width_px, const std::vector<ioStats>& history, bool data_rate) {
      return IoModel{ioColumns(history, data_rate, width_px), data_rate};
    },
    ioCurrent,
    [](const IoModel& m) { return m.max > 0.0 ? ioRate(m, 1.0) : QString(); },
    diskVolumes};

const GraphKind<PeakColumns<bit_rate>, const std::vector<netStats>&> kNetGraph{
    GraphClass::net,
    "Network I/O",
    {{"bps in:", 0.5, [](const bit_rate& r) { return r.bps_in; }},
     {"bps out:", 0.5, [](const bit_rate& r) { return r.bps_out; }},
     {"avg bps in:", 0.0, [](const bit_rate& r) { return r.avg_bps_in; }, netAveragesShown},
     {"avg bps out:", 0.0, [](const bit_rate& r) { return r.avg_bps_out; }, netAveragesShown}},
    [](double width_px, const std::vector<netStats>& history) {
      const auto& s = GraphSwitches::current();
      return netColumns(history, {networkAveragingLength(s.net_avg), s.net_avg_exp}, width_px);
    },
    netCurrent,
    [](const PeakColumns<bit_rate>& m) { return m.max > 0.0 ? bitRate(m, 1.0) : QString(); },
    interfaceAddresses};

const GraphKind<PeakColumns<load_column>, const std::vector<loadAverage>&> kLoadGraph{
    GraphClass::load,
    "Load Average",
    {{"1 Minute:", 0.4, [](const load_column& l) { return l.one; }},
     {"5 Minutes:", 0.0, [](const load_column& l) { return l.five; }},
     {"15 Minutes:", 0.0, [](const load_column& l) { return l.fifteen; }}},
    [](double width_px, const std::vector<loadAverage>& history) { return loadColumns(history, width_px); },
    loadCurrent,
    [](const PeakColumns<load_column>& m) { return m.max > 0.0 ? number(m.max, 2) : QString(); }};

// Back to front: each band is the sum of its own count and those drawn after it.
const GraphKind<PeakColumns<procStat>, const std::vector<procstat>&> kProcGraph{
    GraphClass::proc,
    "Process Counts",
    {{"Owned by me:", 0.75, [](const procStat& p) { return p.user + p.system + p.other; }},
     {"System:", 0.75, [](const procStat& p) { return p.system + p.other; }},
     {"Other:", 0.75, [](const procStat& p) { return p.other; }},
     {"Translated:", 0.5, [](const procStat& p) { return p.translated; }}},
    [](double width_px, const std::vector<procstat>& history) { return procColumns(history, width_px); },
    procCurrent,
    [](const PeakColumns<procStat>& m) { return procPeak(m) > 0 ? number(procPeak(m), 0) : QString(); }};

const GraphKind<PowerModel, const std::vector<powerStats>&> kPowerGraph{
    GraphClass::power,
    "Power (W)",
    {{"Total:", 0.75, [](const power_column& p) { return p.total; }},
     {"CPU:", 0.0, [](const power_column& p) { return p.cpu; }},
     {"GPU:", 0.0, [](const power_column& p) { return p.gpu; }}},
    [](double width_px, const std::vector<powerStats>& history) {
      const bool sampled = !history.empty();
      return PowerModel{powerColumns(history, width_px), sampled, sampled && history.back().sensor};
    },
    powerCurrent,
    [](const PowerModel& m) { return m.max > 0.0 ? number(m.max, 1) + " W" : QString(); }};

const GraphKind<FanColumns, const std::vector<fanStats>&> kFanGraph{
    GraphClass::fan,
    "Fan Speed(rpm)",
    {{"RPM:", 0.5, [](const fan_column& f) { return f.speed; }},
     {"Max RPM:", 0.0, [](const fan_column& f) { return f.max; }},
     {"Min RPM:", 0.0, [](const fan_column& f) { return f.min; }}},
    [](double width_px, const std::vector<fanStats>& history) { return fanColumns(history, width_px); },
    fanCurrent,
    [](const FanColumns& m) {
      return m.max_speed > 0 ? number(static_cast<double>(m.max_speed), 0) + " rpm" : QString();
    }};

const GraphKind<GfxModel, const std::vector<graphicsCardStats>&> kGfxGraph{
    GraphClass::gfx,
    "GPU Usage",
    {{"VRAM Used:", 0.75, vramUsedFraction}, {"Utilisation(%):", 0.0, utilisationFraction}},
    [](double, const std::vector<graphicsCardStats>& history) { return GfxModel{history}; },
    gfxCurrent,
    [](const GfxModel&) { return fullScale(true); }};

const GraphKind<BatteryModel, const std::vector<batteryStats>&> kBatteryGraph{
    GraphClass::battery,
    "Battery",
    {{"Charge (%):", 0.75, [](const battery_column& b) { return b.charge; }},
     {"Rate (W):", 0.0, [](const battery_column& b) { return b.rate; },
      [](const BatteryModel& m) { return m.peak_rate_w > 0; }}},
    [](double width_px, const std::vector<batteryStats>& history) {
      return BatteryModel{batteryColumns(history, width_px), history.empty() ? batteryStats{} : history.back()};
    },
    batteryCurrent,
    [](const BatteryModel& m) { return fullScale(!m.columns.empty()); }};

// The default lines are named by their role (GraphViewTemperature names chosen ones by their sensor).
const GraphKind<TemperatureColumns, const std::vector<std::vector<temperatureStats>>&, const std::vector<std::string>&>
    kTemperatureGraph{GraphClass::temp,
                      "Temperature (\u00b0C)",
                      {{"Processor:", 0.75, temperature<0>, present<TemperatureRole::processor>},
                       {"GPU:", 0.0, temperature<1>, present<TemperatureRole::gpu>},
                       {"Disk:", 0.0, temperature<2>, present<TemperatureRole::disk>}},
                      [](double width_px, const std::vector<std::vector<temperatureStats>>& visible,
                         const std::vector<std::string>& choice) {
                        return temperatureColumns(visible, width_px, choice);
                      },
                      temperatureCurrent,
                      [](const TemperatureColumns& m) {
                        return m.scale_C > 0 ? number(m.scale_C, 0) + kDegrees : QString();
                      }};

}  // namespace pelmora
