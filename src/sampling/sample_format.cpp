#include "sampling/sample_format.h"

#include <cinttypes>
#include <cstdio>
#include <iterator>

#include "sampling/temperature_collector.h"

namespace pelmora {
namespace {

constexpr double kMicrosecondsPerSecond = 1e6;

std::string printf_string(const char* format, double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

template <typename Record, typename Key>
const Record* findBy(const std::vector<Record>* list, const Key& key, Key Record::*field) {
  if (!list) return nullptr;
  for (const auto& r : *list)
    if (r.*field == key) return &r;
  return nullptr;
}

std::string rate(const SampleSet* previous, int64_t prev_value, int64_t value, int64_t interval_us) {
  if (!previous || interval_us <= 0) return "--";
  return SampleFormat::bytes(SampleFormat::ratePerSecond(prev_value, value, interval_us)) + "/s";
}

std::string cpuPart(const SampleSet* previous, const SampleSet& current) {
  std::string out = "cpu";
  const auto busy = SampleFormat::cpuBusyPercent(previous ? previous->cpu_stats : current.cpu_stats, current.cpu_stats);
  for (size_t i = 0; i < busy.size(); ++i)
    out += (previous && busy[i]) ? printf_string(" %.0f%%", *busy[i]) : std::string(" --");
  return out;
}

// One " | name a RATE b RATE" part per device of `current` (disks, interfaces), each rate against the
// same device in `previous`; "--" where it has none.
template <typename Device, typename Counters>
std::string devicePart(const std::vector<Device>* previous_devices, const SampleSet* previous,
                       const std::vector<Device>& devices, std::string Device::*name, Counters Device::*counters,
                       const std::pair<const char*, int64_t Counters::*> (&rates)[2], int64_t interval_us) {
  std::string out;
  for (const auto& device : devices) {
    const Device* before = findBy(previous_devices, device.*name, name);
    out += " | " + device.*name;
    for (const auto& [label, counter] : rates)
      out += std::string(" ") + label + " " +
             rate(before ? previous : nullptr, before ? (before->*counters).*counter : 0, (device.*counters).*counter,
                  interval_us);
  }
  return out;
}

std::string diskPart(const SampleSet* previous, const SampleSet& current, int64_t interval_us) {
  static constexpr std::pair<const char*, int64_t ioStats::*> kRates[2] = {{"r", &ioStats::bytes_read},
                                                                           {"w", &ioStats::bytes_write}};
  return devicePart(previous ? &previous->dsk_stats : nullptr, previous, current.dsk_stats, &diskstat::bsdname,
                    &diskstat::stats, kRates, interval_us);
}

std::string netPart(const SampleSet* previous, const SampleSet& current, int64_t interval_us) {
  static constexpr std::pair<const char*, int64_t netStats::*> kRates[2] = {{"in", &netStats::bytes_in},
                                                                            {"out", &netStats::bytes_out}};
  return devicePart(previous ? &previous->net_stats : nullptr, previous, current.net_stats, &interfaceStats::intf,
                    &interfaceStats::stats, kRates, interval_us);
}

std::string fanPart(const SampleSet& current) {
  if (current.fan_stats.empty()) return " | fans none";
  std::string out = " | fans";
  for (const auto& fan : current.fan_stats)
    out += " " + std::to_string(fan.speed) + " rpm" + (fan.forced ? " (forced)" : "");
  return out;
}

// The sensors a graph shows by default; nothing on a machine without them.
std::string temperaturePart(const SampleSet& current) {
  std::string out;
  for (size_t i : TemperatureCollector::defaultChoice(current.temp_stats)) {
    const auto& sensor = current.temp_stats[i];
    out += (out.empty() ? " | temp " : ", ") + sensor.name + " " + SampleFormat::celsius(sensor.temp_mC);
  }
  return out;
}

std::string batteryPart(const SampleSet& current) {
  std::string out;
  for (const auto& battery : current.battery_stats) {
    out += " | " + battery.name + printf_string(" %.0f%% ", battery.charge_pct) + battery.status;
    if (battery.power_w > 0) out += printf_string(" %.1f W", battery.power_w);
    if (battery.time_to_empty_s > 0) out += " " + SampleFormat::duration(battery.time_to_empty_s) + " to empty";
    if (battery.time_to_full_s > 0) out += " " + SampleFormat::duration(battery.time_to_full_s) + " to full";
  }
  for (const auto& battery : current.device_batteries)
    out += " | " + (battery.model.empty() ? battery.name : battery.model) + printf_string(" %.0f%%", battery.charge_pct);
  return out;
}

}  // namespace

std::string SampleFormat::celsius(int64_t mC) { return printf_string("%.1f \u00b0C", static_cast<double>(mC) / 1000.0); }

std::string SampleFormat::duration(int64_t seconds) {
  const int64_t minutes = (seconds + 30) / 60;
  char text[32];
  std::snprintf(text, sizeof text, "%" PRId64 ":%02" PRId64, minutes / 60, minutes % 60);
  return text;
}

std::vector<std::optional<double>> SampleFormat::cpuBusyPercent(const std::vector<cpu_sample_t>& previous,
                                                                const std::vector<cpu_sample_t>& current) {
  std::vector<std::optional<double>> busy(current.size());
  for (size_t i = 0; i < current.size() && i < previous.size(); ++i) {
    const auto& a = previous[i];
    const auto& b = current[i];
    if (b.totalUserTime < a.totalUserTime || b.totalSystemTime < a.totalSystemTime || b.totalIdleTime < a.totalIdleTime)
      continue;
    const uint64_t work = (b.totalUserTime - a.totalUserTime) + (b.totalSystemTime - a.totalSystemTime);
    const uint64_t total = work + (b.totalIdleTime - a.totalIdleTime);
    if (total == 0) continue;
    busy[i] = 100.0 * static_cast<double>(work) / static_cast<double>(total);
  }
  return busy;
}

double SampleFormat::ratePerSecond(int64_t previous, int64_t current, int64_t interval_us) {
  if (interval_us <= 0 || current < previous) return 0.0;
  return static_cast<double>(current - previous) * kMicrosecondsPerSecond / static_cast<double>(interval_us);
}

std::string SampleFormat::bytes(double value) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
    value /= 1024.0;
    ++unit;
  }
  if (unit == 0) return printf_string("%.0f", value) + " B";
  return printf_string("%.1f", value) + " " + kUnits[unit];
}

std::string SampleFormat::line(const SampleSet* previous, const SampleSet& current, int64_t interval_us,
                               int64_t page_size_bytes, int64_t memory_total_bytes) {
  std::string out = cpuPart(previous, current);
  const int64_t free_bytes = current.mem_stats.free_count * page_size_bytes;
  out += " | mem " + bytes(static_cast<double>(memory_total_bytes - free_bytes)) + " / " +
         bytes(static_cast<double>(memory_total_bytes));
  out += diskPart(previous, current, interval_us);
  out += netPart(previous, current, interval_us);
  for (const auto& card : current.gfx_cards)
    out += " | " + card.name + " " + std::to_string(card.stats.pctUtil) + "%";
  const auto& load = current.load_avg;
  char tail[96];
  std::snprintf(tail, sizeof tail, " | load %.2f %.2f %.2f", load.oneMin, load.fiveMin, load.fifteenMin);
  out += tail;
  out += current.power_stats.sensor ? printf_string(" | power %.1f W", current.power_stats.total)
                                    : std::string(" | no power sensor");
  out += fanPart(current);
  out += temperaturePart(current);
  out += batteryPart(current);
  return out;
}

nlohmann::ordered_json SampleFormat::toJson(const SampleSet& s) {
  using json = nlohmann::ordered_json;
  json cpus = json::array(), disks = json::array(), cards = json::array(), nets = json::array(), fans = json::array();
  for (const auto& c : s.cpu_stats)
    cpus.push_back({{"totalSystemTime", c.totalSystemTime}, {"totalUserTime", c.totalUserTime},
                    {"totalIdleTime", c.totalIdleTime}, {"frequency", c.frequency}});
  auto io = [](const ioStats& i) {
    return json{{"bytes_read", i.bytes_read}, {"bytes_write", i.bytes_write}, {"count_read", i.count_read},
                {"count_write", i.count_write}};
  };
  for (const auto& d : s.dsk_stats)
    disks.push_back({{"diskno", d.diskno}, {"bsdname", d.bsdname}, {"name", d.name}, {"stats", io(d.stats)}});
  for (const auto& g : s.gfx_cards)
    cards.push_back({{"name", g.name}, {"active", g.active},
                     {"stats", {{"totalVRAM", g.stats.totalVRAM}, {"usedVRAM", g.stats.usedVRAM}, {"freeVRAM", g.stats.freeVRAM},
                                {"cpuWait", g.stats.cpuWait}, {"pctUtil", g.stats.pctUtil}}}});
  for (const auto& n : s.net_stats)
    nets.push_back({{"intf", n.intf}, {"stats", {{"bytes_in", n.stats.bytes_in}, {"bytes_out", n.stats.bytes_out}}}});
  for (const auto& f : s.fan_stats)
    fans.push_back({{"forced", f.forced}, {"speed", f.speed}, {"max", f.max}, {"min", f.min}});
  json temps = json::array(), batteries = json::array(), devices = json::array();
  for (const auto& t : s.temp_stats)
    temps.push_back({{"name", t.name}, {"kind", t.kind}, {"temp_mC", t.temp_mC}, {"crit_mC", t.crit_mC}, {"max_mC", t.max_mC}});
  auto battery = [](const batteryStats& b) {
    return json{{"name", b.name}, {"model", b.model}, {"status", b.status}, {"charge_pct", b.charge_pct},
                {"power_w", b.power_w}, {"time_to_empty_s", b.time_to_empty_s}, {"time_to_full_s", b.time_to_full_s},
                {"health_pct", b.health_pct}, {"cycle_count", b.cycle_count}};
  };
  for (const auto& b : s.battery_stats) batteries.push_back(battery(b));
  for (const auto& b : s.device_batteries) devices.push_back(battery(b));
  const auto& m = s.mem_stats;
  const auto& p = s.proc_stats;
  return json{{"cpu_stats", cpus},
              {"dsk_stats", disks},
              {"gfx_cards", cards},
              {"mem_stats", {{"free_count", m.free_count}, {"active_count", m.active_count},
                             {"inactive_count", m.inactive_count}, {"wire_count", m.wire_count}}},
              {"io_stats", io(s.io_stats)},
              {"proc_stats", {{"user", p.user}, {"system", p.system}, {"other", p.other}, {"translated", p.translated}}},
              {"net_stats", nets},
              {"load_avg", {{"oneMin", s.load_avg.oneMin}, {"fiveMin", s.load_avg.fiveMin}, {"fifteenMin", s.load_avg.fifteenMin}}},
              {"power_stats", {{"total", s.power_stats.sensor ? json(s.power_stats.total) : json(nullptr)},
                               {"cpu", s.power_stats.cpu}, {"gpu", s.power_stats.gpu},
                               {"sensor", s.power_stats.sensor}}},
              {"fan_stats", fans},
              {"temp_stats", temps},
              {"battery_stats", batteries},
              {"device_batteries", devices}};
}

}  // namespace pelmora
