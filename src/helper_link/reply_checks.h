#pragma once
// Readers of the helper's replies. Each takes one reply dictionary and returns what the calling
// operation hands back, writing any failure to the shared log. They are pure apart from the log
// (and std::abort for an out-of-range 32-bit value, which is a programming error on one side or the
// other, not a recoverable failure), so each can be fed hand-made replies.
//
// Integer replies are offset by one so that a missing key (which reads as 0) means "no answer":
// 1 is success or false, more than 1 is an error status (value - 1) or true, less than 1 is ignored.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/kernel_records.h"
#include "support/proc_task_reader.h"
#include "support/rapl_zones.h"
#include "support/unique_fd.h"
#include "support/xpc_value.h"

namespace pelmora {

// How a command reply ("OK" or an error text under an agreed key) turned out.
enum class CommandOutcome {
  kNoAnswer,  // the key is missing or not a string: nothing is logged
  kOk,
  kRefused,   // the helper's text was logged as prefix + text + "."
};

// Reads the command status under `key`; a text other than "OK" is logged as prefix + text + ".".
CommandOutcome checkCommandReply(const XPCDict& reply, const std::string& key, std::string_view log_prefix);

// The one routine behind both "setcpucount" (status under "setcpu") and "setpriority" (status
// under "setpriority"): both failures are logged as "setcpucount response: " + text + ".".
CommandOutcome checkSetCpuResponse(const XPCDict& reply, const std::string& key);

// "throttle": logs "Process throttling: enabled"/"disabled" (per the request) on "OK".
CommandOutcome checkThrottleReply(const XPCDict& reply, bool enable);

// "applyboot": logs "Set at boot installed"/"uninstalled" (per the request) on "OK".
CommandOutcome checkApplyBootReply(const XPCDict& reply, bool install);

// "cpuinfo": the four counts, or `current` unchanged without "cpuinfo". A count that does not fit
// 32 bits stops the program.
cpu_numbers_t checkCpuInfoReply(const XPCDict& reply, cpu_numbers_t current);

// "isrunning": 1 = not running, 2 or more = running, below 1 or missing = `default_value`.
bool checkIsRunningReply(const XPCDict& reply, bool default_value);

// "kill": the helper's value as is; -1 without an answer (or one that does not fit an int).
int checkKillReply(const XPCDict& reply);

// "pidname": none for a missing or empty name.
std::optional<std::string> checkPidNameReply(const XPCDict& reply);

// A record query ("taskinfo", "taskallinfo", "rusage"). `status` is result - 1 (-1 without an
// answer); `record` is present only when the status is 0 and the data has the record's exact size.
template <class Record>
struct RecordReply {
  int status = -1;
  std::optional<Record> record;
};

RecordReply<proc_taskinfo> checkTaskInfoReply(const XPCDict& reply);
RecordReply<proc_taskallinfo> checkTaskAllInfoReply(const XPCDict& reply);
RecordReply<rusage_info_v3> checkRusageReply(const XPCDict& reply);

// "tasklist": pid -> record, for the processes the helper could read. None (logged) when the reply
// is not a success or its five arrays ("pids", "taskallinfo", "rusage", "names", "times") disagree
// in length or type, or a record has the wrong size; an empty "rusage" entry (refused) gives a record
// without usage.
std::optional<std::map<int32_t, ProcessRecord>> checkTaskListReply(const XPCDict& reply);

// "pidfiles": descriptor number -> path. `files` is present only when the status is 0 and both
// arrays are there with the same count.
struct PidFilesReply {
  int status = -1;
  std::optional<std::map<int, std::string>> files;
};
PidFilesReply checkPidFilesReply(const XPCDict& reply);

// "powermetrics": pid and descriptor are read only when "result" is exactly 1; the descriptor is
// duplicated so the reply can be dropped. A pid that does not fit 32 bits stops the program.
struct PowerMetricsReply {
  int status = -1;  // 0 is success
  int32_t pid = -1;
  UniqueFd fd;
};
PowerMetricsReply checkPowerMetricsReply(const XPCDict& reply);

// "energy": one reading per RAPL package zone (an empty list on a machine without RAPL); none when
// the reply says "error", is missing or holds a malformed reading.
std::optional<std::vector<RaplReading>> checkEnergyReply(const XPCDict& reply);

}  // namespace pelmora
