// pelmora top [--json]: the process table once, with rates over the second (or a little more)
// between two refreshes, and network rates over one second of the network tool, as a table sorted
// by processor share or as JSON.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli/cli_limiter.h"
#include "cli/commands.h"

namespace pelmora::cli {
namespace {

// `interval_us`: the time between this row's two reads, over which its rates are measured; none
// for a process that appeared between them (its rates are 0).
nlohmann::json rowJson(const procinfo& p, std::optional<int64_t> interval_us) {
  return {{"pid", p.pid},
          {"interval_us", interval_us ? nlohmann::json(*interval_us) : nlohmann::json(nullptr)},
          {"uid", p.uid},
          {"user", p.user},
          {"name", p.name},
          {"kind", p.kind},
          {"path", p.bundlePath},
          {"start_time_ns", p.startTime},
          {"cpu_us", p.totalCPU},
          {"cpu_share", p.pctCPU},
          {"stopped_us", p.totalTimeStopped},
          {"waiting_share", p.pctWaiting},
          {"threads", p.threads},
          {"resident_bytes", p.memRes},
          {"virtual_bytes", p.memVirtual},
          {"idle_wakeups_per_s", p.idleWakeupsPerSec},
          {"disk_read_bytes_per_s", p.readPerSec.current()},
          {"disk_write_bytes_per_s", p.writePerSec.current()},
          {"net_in_bits_per_s", p.netReadPerSec},
          {"net_out_bits_per_s", p.netWritePerSec},
          {"energy_impact", p.energyImpact},
          {"prevents_sleep", p.preventSleep}};
}

std::string human(double value) {
  const char* units[] = {"", "k", "M", "G", "T"};
  int u = 0;
  while (value >= 1000 && u < 4) {
    value /= 1000;
    ++u;
  }
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, u == 0 ? "%.0f%s" : "%.1f%s", value, units[u]);
  return buffer;
}

void printTable(std::vector<procinfo> rows, const usageInfo& usage, const rwInfo& disk, int translated) {
  std::sort(rows.begin(), rows.end(), [](const procinfo& a, const procinfo& b) {
    return a.pctCPU != b.pctCPU ? a.pctCPU > b.pctCPU : a.pid < b.pid;
  });
  std::printf("%zu processes, %d translated; processors %.1f%% user, %.1f%% system, %.1f%% idle; disk %sB/s read, %sB/s written\n",
              rows.size(), translated, usage.user * 100, usage.system * 100, usage.idle * 100,
              human(disk.readPerSec).c_str(), human(disk.writePerSec).c_str());
  std::printf("%7s %-10s %-7s %6s %5s %4s %7s %7s %7s %7s %7s %6s %s\n", "PID", "USER", "KIND", "CPU%", "WAIT%",
              "THR", "RES", "READ/s", "WRITE/s", "NETIN", "NETOUT", "ENERGY", "NAME");
  for (const auto& p : rows) {
    std::printf("%7d %-10.10s %-7.7s %6.1f %5.1f %4lld %7s %7s %7s %7s %7s %6.1f %s\n", p.pid, p.user.c_str(),
                p.kind.c_str(), p.pctCPU * 100, p.pctWaiting * 100, static_cast<long long>(p.threads),
                human(static_cast<double>(p.memRes)).c_str(), human(p.readPerSec.current()).c_str(),
                human(p.writePerSec.current()).c_str(), human(p.netReadPerSec).c_str(),
                human(p.netWritePerSec).c_str(), p.energyImpact, p.name.c_str());
  }
}

// The network tool writes once a second, and a process's rate is the bytes between its first two
// lines: waits (a little, as a loaded machine may start the tool late) until some process has one.
void waitForNetworkRates(CPULimiter& limiter) {
  constexpr auto kPoll = std::chrono::milliseconds(50);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  while (limiter.nettopRunning() && std::chrono::steady_clock::now() < deadline) {
    const auto use = limiter.netUse();
    if (std::any_of(use.begin(), use.end(), [](const auto& entry) { return entry.second.rx_rate.seeded; })) return;
    std::this_thread::sleep_for(kPoll);
  }
}

}  // namespace

int runTopCommand(const std::vector<std::string>& args) {
  bool json = false;
  for (const auto& a : args) {
    if (a != "--json") {
      std::fprintf(stderr, "pelmora top: unknown argument '%s'\n%s", a.c_str(), usageText().c_str());
      return kExitUsage;
    }
    json = true;
  }
  CliLimiter limiter;
  limiter->start();  // for the network tool; the table refreshes below
  limiter->refresh();
  const auto first = limiter->processes();
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  waitForNetworkRates(*limiter);
  limiter->refresh();
  limiter->updateMachineSplit();
  std::vector<procinfo> rows;
  for (auto& [pid, row] : limiter->processes()) rows.push_back(row);
  if (rows.empty()) {
    std::fprintf(stderr, "pelmora top: no process could be read\n");
    return kExitFailure;
  }
  if (!json) {
    printTable(std::move(rows), limiter->usage(), limiter->diskRates(), limiter->translatedCount());
    return kExitOk;
  }
  nlohmann::json out;
  const auto usage = limiter->usage();
  const auto disk = limiter->diskRates();
  out["usage"] = {{"system", usage.system}, {"user", usage.user}, {"idle", usage.idle}};
  out["disk"] = {{"read_bytes_per_s", disk.readPerSec}, {"write_bytes_per_s", disk.writePerSec}};
  out["translated"] = limiter->translatedCount();
  out["processes"] = nlohmann::json::array();
  for (const auto& p : rows) {
    const auto before = first.find(p.pid);
    out["processes"].push_back(rowJson(p, before == first.end() ? std::nullopt
                                                                : std::optional(before->second.update.elapsedUntil(p.update))));
  }
  // Process names are bytes, not always UTF-8.
  std::printf("%s\n", out.dump(1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  return kExitOk;
}

}  // namespace pelmora::cli
