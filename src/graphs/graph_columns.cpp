#include "graphs/graph_columns.h"

#include <algorithm>
#include <cmath>

#include "graphs/graph_geometry.h"

namespace pelmora {
namespace {

// A tick counter that did not grow (or went backwards after a CPU came back) counts as no change.
double grown(uint64_t older, uint64_t newer) { return newer > older ? static_cast<double>(newer - older) : 0.0; }

template <typename T>
std::vector<T> newest(const std::vector<T>& all, double width) {
  const size_t keep = std::min(visibleColumns(width), all.size());
  return std::vector<T>(all.end() - static_cast<std::ptrdiff_t>(keep), all.end());
}

// Divides the listed members of every column by the peak that `peak_of` reports; nothing is left
// when the peak is 0.
template <typename Column, typename PeakOf, typename... Members>
PeakColumns<Column> scaleMembers(std::vector<Column> columns, PeakOf peak_of, Members... members) {
  PeakColumns<Column> out;
  for (const auto& c : columns) out.max = std::max(out.max, peak_of(c));
  if (out.max <= 0.0) {
    out.max = 0.0;
    return out;
  }
  for (auto& c : columns) ((c.*members /= out.max), ...);
  out.columns = std::move(columns);
  return out;
}

// The same, against the highest listed member of any column.
template <typename Column, typename... Members>
PeakColumns<Column> scaleToHighestMember(std::vector<Column> columns, Members... members) {
  return scaleMembers(
      std::move(columns), [=](const Column& c) { return std::max({(c.*members)...}); }, members...);
}

}  // namespace

int64_t counterDelta(int64_t older, int64_t newer) {
  // Subtract in unsigned arithmetic: counters far apart must not overflow.
  return newer >= older ? static_cast<int64_t>(static_cast<uint64_t>(newer) - static_cast<uint64_t>(older)) : 0;
}

std::vector<cpu_util> cpuColumns(const std::vector<cpu_sample_t>& history) {
  std::vector<cpu_util> columns;
  for (size_t k = 0; k + 1 < history.size(); ++k) {
    const auto& older = history[k];
    const auto& newer = history[k + 1];
    const double system = grown(older.totalSystemTime, newer.totalSystemTime);
    const double user = grown(older.totalUserTime, newer.totalUserTime);
    const double idle = grown(older.totalIdleTime, newer.totalIdleTime);
    const double total = system + user + idle;
    cpu_util u;
    if (total > 0.0) u = {idle / total, user / total, system / total, 0.0};
    u.frequency = older.frequency;  // one sample behind the utilisation, on purpose
    columns.push_back(u);
  }
  return columns;
}

std::vector<mem_stats> memColumns(const std::vector<memoryStats>& history) {
  std::vector<mem_stats> columns;
  columns.reserve(history.size());
  for (const auto& m : history) {
    const double sum = static_cast<double>(m.free_count) + static_cast<double>(m.active_count) +
                       static_cast<double>(m.inactive_count) + static_cast<double>(m.wire_count);
    if (sum < 1.0) {
      columns.push_back({});
      continue;
    }
    columns.push_back({static_cast<double>(m.free_count) / sum, static_cast<double>(m.active_count) / sum,
                       static_cast<double>(m.inactive_count) / sum, static_cast<double>(m.wire_count) / sum});
  }
  return columns;
}

double vramUsedFraction(const graphicsCardStats& stats) {
  return stats.totalVRAM > 0 ? static_cast<double>(stats.usedVRAM) / static_cast<double>(stats.totalVRAM) : 0.0;
}

double utilisationFraction(const graphicsCardStats& stats) { return static_cast<double>(stats.pctUtil) / 100.0; }

PeakColumns<io_rate> ioColumns(const std::vector<ioStats>& history, bool data_rate, double width) {
  std::vector<io_rate> rates;
  for (size_t k = 0; k + 1 < history.size(); ++k) {
    const auto& a = history[k];
    const auto& b = history[k + 1];
    if (data_rate)
      rates.push_back({static_cast<double>(counterDelta(a.bytes_read, b.bytes_read)),
                       static_cast<double>(counterDelta(a.bytes_write, b.bytes_write))});
    else
      rates.push_back({static_cast<double>(counterDelta(a.count_read, b.count_read)),
                       static_cast<double>(counterDelta(a.count_write, b.count_write))});
  }
  return scaleToHighestMember(newest(rates, width), &io_rate::reads, &io_rate::writes);
}

PeakColumns<load_column> loadColumns(const std::vector<loadAverage>& history, double width) {
  std::vector<load_column> columns;
  for (const auto& l : newest(history, width)) columns.push_back({l.oneMin, l.fiveMin, l.fifteenMin});
  return scaleToHighestMember(std::move(columns), &load_column::one, &load_column::five, &load_column::fifteen);
}

PeakColumns<procStat> procColumns(const std::vector<procstat>& history, double width) {
  std::vector<procStat> columns;
  for (const auto& p : newest(history, width))
    columns.push_back({static_cast<double>(p.user), static_cast<double>(p.system), static_cast<double>(p.other),
                       static_cast<double>(p.translated)});
  return scaleMembers(
      std::move(columns), [](const procStat& c) { return std::max(c.user + c.system + c.other, c.translated); },
      &procStat::user, &procStat::system, &procStat::other, &procStat::translated);
}

PeakColumns<power_column> powerColumns(const std::vector<powerStats>& history, double width) {
  std::vector<power_column> columns;
  for (const auto& p : newest(history, width)) columns.push_back({p.total, p.cpu, p.gpu});
  return scaleToHighestMember(std::move(columns), &power_column::total, &power_column::cpu, &power_column::gpu);
}

FanColumns fanColumns(const std::vector<fanStats>& history, double width) {
  FanColumns out;
  const auto visible = newest(history, width);
  for (const auto& f : visible) {
    out.max_speed = std::max({out.max_speed, f.speed, f.max});
    out.min_speed = std::min(out.min_speed, f.min);
  }
  if (out.max_speed <= 0) return out;
  const double max = static_cast<double>(out.max_speed);
  for (const auto& f : visible)
    out.columns.push_back({f.forced, static_cast<double>(f.speed) / max, static_cast<double>(f.max) / max,
                           static_cast<double>(f.min) / max});
  return out;
}

int networkAveragingLength(int64_t menu_index) {
  if (menu_index == 0) return 5;
  if (menu_index == 1) return 10;
  return 60;
}

std::vector<bit_rate> networkRates(const std::vector<netStats>& history, const NetworkAveraging& averaging) {
  std::vector<bit_rate> rates;
  if (history.size() < 2) return rates;
  const int n = std::max(1, averaging.length);
  const double alpha = 1.0 - std::exp(-1.0 / n);
  double avg_in = 0.0, avg_out = 0.0;
  for (size_t i = 1; i < history.size(); ++i) {
    const double d_in = static_cast<double>(counterDelta(history[i - 1].bytes_in, history[i].bytes_in));
    const double d_out = static_cast<double>(counterDelta(history[i - 1].bytes_out, history[i].bytes_out));
    if (averaging.exponential) {
      avg_in += alpha * (d_in - avg_in);
      avg_out += alpha * (d_out - avg_out);
      rates.push_back({d_in, d_out, avg_in, avg_out});
      continue;
    }
    // The sum of the last N steps (a reset inside the window counts 0), divided by N even while
    // fewer than N earlier samples exist: the first averages read low.
    avg_in = d_in / n;
    avg_out = d_out / n;
    for (size_t k = rates.size(); k > 0 && rates.size() - k + 1 < static_cast<size_t>(n); --k) {
      avg_in += rates[k - 1].bps_in / n;
      avg_out += rates[k - 1].bps_out / n;
    }
    rates.push_back({d_in, d_out, avg_in, avg_out});
  }
  return rates;
}

PeakColumns<bit_rate> netColumns(const std::vector<netStats>& history, const NetworkAveraging& averaging,
                                 double width) {
  return scaleToHighestMember(newest(networkRates(history, averaging), width), &bit_rate::bps_in, &bit_rate::bps_out,
                              &bit_rate::avg_bps_in, &bit_rate::avg_bps_out);
}

}  // namespace pelmora
