#pragma once
// The records of the process table: one row per process, the whole machine's processor split and
// disk rates, and per-process network use. Units: processor and stopped times in microseconds,
// shares as fractions of one processor (1.0 = one processor busy), disk rates in bytes per second,
// network rates in bits per second.
#include <cstdint>
#include <optional>
#include <string>

#include "support/timeval.h"
#include "support/weighted_stats.h"

namespace pelmora {

struct procinfo {
  int32_t pid = -1;
  uint32_t uid = 0;
  std::string kind;
  std::string name;
  std::string user;
  std::string bundlePath;
  std::string command;  // the full command line; empty for kernel threads
  int32_t ppid = 0;     // the parent, for the process tree
  uint64_t startTime = 0;  // ns since the epoch
  int64_t totalCPU = 0;    // us, user + system
  int64_t totalTimeStopped = 0;  // us held stopped by the limiter
  uint64_t totalIdleWakeups = 0;
  uint64_t totalBytesRead = 0;
  uint64_t totalBytesWrite = 0;
  int64_t memVirtual = 0;  // bytes
  int64_t memRes = 0;      // bytes
  int64_t threads = 0;
  double pctCPU = 0.0;
  double pctWaiting = 0.0;
  double idleWakeupsPerSec = 0.0;
  WeightedStats readPerSec;
  WeightedStats writePerSec;
  double netReadPerSec = 0.0;   // bits per second
  double netWritePerSec = 0.0;  // bits per second
  double energyImpact = 0.0;
  bool preventSleep = false;
  Timeval update;
};

// The whole machine's processor split over the last refresh interval, each a fraction of all time.
struct usageInfo {
  double system = 0.0;
  double user = 0.0;
  double idle = 0.0;
};

// Disk rates summed over all processes, bytes per second.
struct rwInfo {
  double readPerSec = 0.0;
  double writePerSec = 0.0;
};

// Per-process network use from pelmora-nettop.
struct netUsage {
  int64_t rx_bytes = 0;
  WeightedStats rx_rate;  // bits per second
  int64_t tx_bytes = 0;
  WeightedStats tx_rate;  // bits per second
  std::optional<double> time_s;  // the time of day of the tool's last line, when it gave one
};

}  // namespace pelmora
