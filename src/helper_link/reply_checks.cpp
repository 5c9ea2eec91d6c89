#include "helper_link/reply_checks.h"

#include <fcntl.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "support/logger.h"

namespace pelmora {
namespace {

// A reply integer that must fit 32 bits. The helper is ours: a value outside that range means the
// two sides disagree about the protocol, so the program stops rather than carry a truncated value.
int32_t require32(int64_t value, std::string_view what) {
  if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max()) {
    Log(std::string("Helper reply value out of 32-bit range: ") + std::string(what) + " = " + std::to_string(value));
    std::abort();
  }
  return static_cast<int32_t>(value);
}

// "result" as a status: result - 1, or -1 when the reply carries no usable answer.
int statusFromResult(const XPCDict& reply) {
  const int64_t result = xpcInt(reply, "result").value_or(0);
  if (result < 1) return -1;
  if (result - 1 > INT_MAX) return INT_MAX;
  return static_cast<int>(result - 1);
}

template <class Record>
RecordReply<Record> checkRecordReply(const XPCDict& reply, const char* marker, const char* data_key) {
  RecordReply<Record> out;
  if (!xpcHas(reply, marker)) return out;
  out.status = statusFromResult(reply);
  // A failed query carries no record; its data (if any) is not looked at.
  if (out.status != 0) return out;
  const XPCData* data = xpcData(reply, data_key);
  if (!data) {
    Log(std::string("No ") + data_key + " data present");
    out.status = -1;
    return out;
  }
  if (data->size() != sizeof(Record)) {
    Log("Invalid data size: " + std::to_string(data->size()));
    out.status = -1;
    return out;
  }
  Record record;
  std::memcpy(&record, data->data(), sizeof record);
  out.record = record;
  return out;
}

}  // namespace

CommandOutcome checkCommandReply(const XPCDict& reply, const std::string& key, std::string_view log_prefix) {
  const std::string* text = xpcString(reply, key);
  if (!text) return CommandOutcome::kNoAnswer;
  if (*text == "OK") return CommandOutcome::kOk;
  Log(std::string(log_prefix) + *text + ".");
  return CommandOutcome::kRefused;
}

CommandOutcome checkSetCpuResponse(const XPCDict& reply, const std::string& key) {
  return checkCommandReply(reply, key, "setcpucount response: ");
}

CommandOutcome checkThrottleReply(const XPCDict& reply, bool enable) {
  const CommandOutcome outcome = checkCommandReply(reply, "throttle", "throttle response: ");
  if (outcome == CommandOutcome::kOk) Log(enable ? "Process throttling: enabled" : "Process throttling: disabled");
  return outcome;
}

CommandOutcome checkApplyBootReply(const XPCDict& reply, bool install) {
  const CommandOutcome outcome = checkCommandReply(reply, "applyboot", "applyboot response: ");
  if (outcome == CommandOutcome::kOk) Log(install ? "Set at boot installed" : "Set at boot uninstalled");
  return outcome;
}

cpu_numbers_t checkCpuInfoReply(const XPCDict& reply, cpu_numbers_t current) {
  const XPCDict* info = xpcDict(reply, "cpuinfo");
  if (!info) return current;
  // A count missing inside "cpuinfo" reads as 0, as any missing integer does.
  auto count = [info](const char* key) { return require32(xpcInt(*info, key).value_or(0), key); };
  cpu_numbers_t out;
  out.logical_cpu_max = count("logical_cpu_max");
  out.physical_cpu_max = count("physical_cpu_max");
  out.logical_cpu = count("logical_cpu");
  out.physical_cpu = count("physical_cpu");
  return out;
}

bool checkIsRunningReply(const XPCDict& reply, bool default_value) {
  const int64_t value = xpcInt(reply, "isrunning").value_or(0);
  if (value < 1) return default_value;
  return value > 1;
}

int checkKillReply(const XPCDict& reply) {
  const std::optional<int64_t> value = xpcInt(reply, "kill");
  if (!value || *value < INT_MIN || *value > INT_MAX) return -1;
  return static_cast<int>(*value);
}

std::optional<std::string> checkPidNameReply(const XPCDict& reply) {
  const std::string* name = xpcString(reply, "reply_pidname");
  if (!name || name->empty()) return std::nullopt;
  return *name;
}

RecordReply<proc_taskinfo> checkTaskInfoReply(const XPCDict& reply) {
  return checkRecordReply<proc_taskinfo>(reply, "reply_taskinfo", "taskinfo");
}

RecordReply<proc_taskallinfo> checkTaskAllInfoReply(const XPCDict& reply) {
  return checkRecordReply<proc_taskallinfo>(reply, "reply_taskallinfo", "taskallinfo");
}

RecordReply<rusage_info_v3> checkRusageReply(const XPCDict& reply) {
  return checkRecordReply<rusage_info_v3>(reply, "reply_rusage", "rusage");
}

namespace {

template <class Record>
std::optional<Record> recordFromData(const XPCValue& value) {
  const XPCData* data = value.asData();
  if (!data || data->size() != sizeof(Record)) return std::nullopt;
  Record record;
  std::memcpy(&record, data->data(), sizeof record);
  return record;
}

}  // namespace

std::optional<std::map<int32_t, ProcessRecord>> checkTaskListReply(const XPCDict& reply) {
  if (!xpcHas(reply, "reply_tasklist")) return std::nullopt;
  if (const int status = statusFromResult(reply); status != 0) {
    const std::string* error = xpcString(reply, "error");
    Log("tasklist failed: " + (error ? *error : std::to_string(status)) + ".");
    return std::nullopt;
  }
  const XPCArray* pids = xpcArray(reply, "pids");
  const XPCArray* infos = xpcArray(reply, "taskallinfo");
  const XPCArray* usages = xpcArray(reply, "rusage");
  const XPCArray* names = xpcArray(reply, "names");
  const XPCArray* times = xpcArray(reply, "times");
  if (!pids || !infos || !usages || !names || !times || infos->size() != pids->size() ||
      usages->size() != pids->size() || names->size() != pids->size() || times->size() != pids->size()) {
    Log("tasklist reply malformed.");
    return std::nullopt;
  }
  std::map<int32_t, ProcessRecord> out;
  for (size_t i = 0; i < pids->size(); ++i) {
    const int64_t* pid = (*pids)[i].asInt();
    const std::string* name = (*names)[i].asString();
    const int64_t* read_at_us = (*times)[i].asInt();
    auto all = recordFromData<proc_taskallinfo>((*infos)[i]);
    if (!pid || !name || !read_at_us || !all) {
      Log("tasklist reply malformed.");
      return std::nullopt;
    }
    ProcessRecord record{*all, recordFromData<rusage_info_v3>((*usages)[i]), *name, *read_at_us};
    out[require32(*pid, "tasklist pid")] = std::move(record);
  }
  return out;
}

PidFilesReply checkPidFilesReply(const XPCDict& reply) {
  PidFilesReply out;
  if (!xpcHas(reply, "reply_pidfiles")) return out;
  out.status = statusFromResult(reply);
  if (out.status != 0) return out;
  const XPCArray* fds = xpcArray(reply, "pidfds");
  const XPCArray* paths = xpcArray(reply, "pidfiles");
  if (!fds || !paths) {
    Log("pidfiles error");
    out.status = -1;
    return out;
  }
  if (fds->size() != paths->size()) {
    Log("pidfiles arrays are different sizes");
    out.status = -1;
    return out;
  }
  std::map<int, std::string> files;
  for (size_t i = 0; i < fds->size(); ++i) {
    const int64_t* fd = (*fds)[i].asInt();
    const std::string* path = (*paths)[i].asString();
    // A null path (or a descriptor number that is not one) is skipped; a later duplicate wins.
    if (!fd || !path || *fd < 0 || *fd > INT_MAX) continue;
    files[static_cast<int>(*fd)] = *path;
  }
  out.files = std::move(files);
  return out;
}

PowerMetricsReply checkPowerMetricsReply(const XPCDict& reply) {
  PowerMetricsReply out;
  out.status = statusFromResult(reply);
  if (xpcInt(reply, "result").value_or(0) != 1) return out;
  // A missing "pid" leaves -1 rather than reading as 0: pid 0 would name our own process group.
  if (const auto pid = xpcInt(reply, "pid")) out.pid = require32(*pid, "pid");
  if (const XPCDescriptor* fd = xpcDescriptor(reply, "fd"); fd && fd->get() >= 0)
    out.fd = UniqueFd(::fcntl(fd->get(), F_DUPFD_CLOEXEC, 0));
  return out;
}

std::optional<std::vector<RaplReading>> checkEnergyReply(const XPCDict& reply) {
  const XPCArray* zones = xpcArray(reply, "energy");
  if (!zones || xpcHas(reply, "error")) return std::nullopt;
  std::vector<RaplReading> readings;
  for (const XPCValue& entry : *zones) {
    const XPCDict* zone = entry.asDict();
    const std::string* name = zone ? xpcString(*zone, "zone") : nullptr;
    const auto energy = zone ? xpcInt(*zone, "energy_uj") : std::nullopt;
    const auto range = zone ? xpcInt(*zone, "max_energy_range_uj") : std::nullopt;
    if (!name || !energy || !range || *energy < 0 || *range < 0) return std::nullopt;
    readings.push_back({*name, static_cast<uint64_t>(*energy), static_cast<uint64_t>(*range)});
  }
  return readings;
}

}  // namespace pelmora
