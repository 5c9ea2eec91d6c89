#include "helper/request_handler.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <vector>

#include "helper/frequency_sampler.h"
#include "helper/nettop_child.h"
#include "support/paths.h"
#include "support/pidfd.h"
#include "support/rapl_zones.h"
#include "support/text.h"
#include "support/xpc_codec.h"

namespace pelmora {
namespace {

// Reads an integer field and checks its range; none (with the reason) when absent, mistyped or out
// of range.
std::optional<int64_t> intField(const XPCDict& request, const char* key, int64_t min, int64_t max,
                                std::string* error) {
  auto it = request.find(key);
  if (it == request.end()) {
    *error = std::string("missing \"") + key + "\"";
    return std::nullopt;
  }
  const int64_t* v = it->second.asInt();
  if (!v) {
    *error = std::string("\"") + key + "\" must be an integer";
    return std::nullopt;
  }
  if (*v < min || *v > max) {
    *error = std::string("\"") + key + "\" out of range (" + std::to_string(*v) + ")";
    return std::nullopt;
  }
  return *v;
}

const std::string* stringField(const XPCDict& request, const char* key, std::string* error) {
  const std::string* s = xpcString(request, key);
  if (!s) *error = std::string("\"") + key + "\" must be a string";
  return s;
}

// The reply of a record query: the marker, "result" = 1 + errno, and the record or the error text.
XPCDict queryReply(const char* marker, int error, const std::string& text = {}) {
  XPCDict reply{{std::string("reply_") + marker, XPCValue(marker)}, {"result", XPCValue(int64_t{1} + error)}};
  if (error) reply["error"] = text.empty() ? std::string(std::strerror(error)) : text;
  return reply;
}


// "pids" of a "tasklist": an array of 1 to kTaskListMaxPids integers, each a pid (1 to INT32_MAX).
// Checked whole before anything is read; none, with the reason, when any part is wrong.
std::optional<std::vector<pid_t>> pidListField(const XPCDict& request, std::string* error) {
  const XPCArray* list = xpcArray(request, "pids");
  if (!list) {
    *error = "\"pids\" must be an array of process identifiers";
    return std::nullopt;
  }
  if (list->empty() || list->size() > kTaskListMaxPids) {
    *error = "\"pids\" must hold 1 to " + std::to_string(kTaskListMaxPids) + " entries (" +
             std::to_string(list->size()) + ")";
    return std::nullopt;
  }
  std::vector<pid_t> pids;
  pids.reserve(list->size());
  for (const XPCValue& value : *list) {
    const int64_t* pid = value.asInt();
    if (!pid) {
      *error = "\"pids\" entries must be integers";
      return std::nullopt;
    }
    if (*pid < 1 || *pid > INT32_MAX) {
      *error = "\"pids\" entry out of range (" + std::to_string(*pid) + ")";
      return std::nullopt;
    }
    pids.push_back(static_cast<pid_t>(*pid));
  }
  return pids;
}

template <typename Record>
XPCData bytesOf(const Record& record) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
  return XPCData(bytes, bytes + sizeof(Record));
}

template <typename Record>
XPCDict recordReply(const char* key, const Record& record) {
  XPCDict reply = queryReply(key, 0);
  reply[key] = bytesOf(record);
  return reply;
}

bool allowedSignal(int64_t signal) {
  return signal == SIGSTOP || signal == SIGCONT || signal == SIGTERM || signal == SIGKILL;
}

}  // namespace

const RequestHandler::Route RequestHandler::kRoutes[] = {
    {"requestcpuinfo", &RequestHandler::requestCpuInfo},
    {"isrunning", &RequestHandler::isRunning},
    {"setcpucount", &RequestHandler::setCpuCount},
    {"throttle", &RequestHandler::throttle},
    {"setpriority", &RequestHandler::setPriority},
    {"kill", &RequestHandler::kill},
    {"taskinfo", &RequestHandler::taskInfo},
    {"taskallinfo", &RequestHandler::taskAllInfo},
    {"rusage", &RequestHandler::rusage},
    {"tasklist", &RequestHandler::taskList},
    {"pidname", &RequestHandler::pidName},
    {"pidfiles", &RequestHandler::pidFiles},
    {"powermetrics", &RequestHandler::powerMetrics},
    {"nettop", &RequestHandler::nettop},
    {"energy", &RequestHandler::energy},
    {"applyboot", &RequestHandler::applyBoot},
    {"authorize", &RequestHandler::authorize},
    {"deauthorize", &RequestHandler::deauthorize},
    {"quit", &RequestHandler::quit},
};

RequestHandler::RequestHandler(HelperOptions options)
    : m_options(std::move(options)),
      m_reader(m_options.root),
      m_cpus(m_options.root),
      m_throttle(m_options.root),
      m_boot(m_options.boot),
      m_renicer(m_options.root) {}

HelperOptions RequestHandler::inProcessOptions() {
  HelperOptions options;
  options.privileged = false;
  return options;
}

void RequestHandler::connectionEnded(const Connection& caller) { m_children.endAll(caller); }

XPCDict RequestHandler::handle(const XPCDict& request, Connection& caller) {
  // The operation is named by the presence of its key, whatever that key's value.
  for (const Route& route : kRoutes) {
    if (xpcHas(request, route.key)) return (this->*route.method)(request, caller);
  }
  return {{"error", "unknown request"}};
}

// --- checks ----------------------------------------------------------------------------------------

std::optional<TargetProcess> RequestHandler::readTarget(pid_t pid, bool need_owner, Admission& files,
                                                       const RecentProcess* recent) const {
  auto stat = recent ? std::optional<ProcPidStat>(recent->stat) : m_reader.readStat(pid);
  if (!stat) return std::nullopt;
  files.stat = *stat;
  TargetProcess t;
  t.pid = pid;
  t.flags = stat->flags;
  t.ppid = stat->ppid;
  t.nice = stat->nice;
  // The executable only matters for telling a kernel thread without the flag from a user process.
  if (t.ppid == 2 && !(t.flags & kPFKthread)) t.has_exe = !m_reader.exeName(pid).empty();
  if (need_owner) {
    auto status = recent ? std::optional<ProcStatus>(recent->status) : m_reader.readStatus(pid);
    if (!status) return std::nullopt;
    t.uid_real = status->uid[0];
    t.uid_effective = status->uid[1];
    t.uid_saved = status->uid[2];
    files.status = std::move(status);
  }
  return t;
}

RequestHandler::Admission RequestHandler::locate(const XPCDict& request, Act act, bool need_owner,
                                                 const RecentProcess* recent) {
  Admission a;
  auto pid = intField(request, "pid", INT32_MIN, INT32_MAX, &a.refusal);
  if (!pid) {
    a.error = EINVAL;
    return a;
  }
  a.pid = static_cast<pid_t>(*pid);
  const bool changes = act == Act::kChange;
  if (auto why = changes ? protectedTarget(a.pid, m_options.self_pid, nullptr) : std::nullopt) {
    a.error = EPERM;
    a.refusal = *why;
    return a;
  }
  if (a.pid <= 0) {
    // 0 and the negative numbers name process groups, never one process.
    a.error = ESRCH;
    a.refusal = "no process " + std::to_string(a.pid);
    return a;
  }
  auto target = readTarget(a.pid, need_owner, a, recent && recent->pid == a.pid ? recent : nullptr);
  if (!target) {
    a.error = ESRCH;
    a.refusal = "no process " + std::to_string(a.pid);
    return a;
  }
  a.target = *target;
  if (auto why = changes ? protectedTarget(a.pid, m_options.self_pid, &a.target) : std::nullopt) {
    a.error = EPERM;
    a.refusal = *why;
  }
  return a;
}

void RequestHandler::checkCaller(Admission& a, const Connection& caller, Access need) const {
  if (!a.refusal.empty()) return;
  if (auto why = checkAccess(need, caller.caller(), authorised(caller), m_options.privileged, &a.target)) {
    a.error = EPERM;
    a.refusal = *why;
  }
}

RequestHandler::Admission RequestHandler::admit(const XPCDict& request, const Connection& caller, Act act,
                                                Access need, const RecentProcess* recent) {
  Admission a = locate(request, act, need != Access::kAnyone, recent);
  checkCaller(a, caller, need);
  return a;
}

const RecentProcess* RequestHandler::recentFor(Connection& caller, const XPCDict& request) {
  // Long enough for the "rusage" a table refresh sends right after "taskallinfo" (well under a
  // millisecond later); short enough that the owner check sees the process as it was moments ago,
  // which is all any check can say by the time its reply is read.
  constexpr auto kRecentValid = std::chrono::milliseconds(5);
  const RecentProcess& recent = caller.recentProcess();
  const auto pid = xpcInt(request, "pid");
  if (!pid || recent.pid <= 0 || *pid != recent.pid || !recent.pidfd) return nullptr;
  if (std::chrono::steady_clock::now() - recent.read_at > kRecentValid) return nullptr;
  // Any answer but "no such process" (EPERM in-process, for another user's) means it is alive.
  return pidfdSignal(recent.pidfd.get(), 0) == ESRCH ? nullptr : &recent;
}

UniqueFd RequestHandler::pidfdFor(const XPCDict& request) {
  // Taken before the checks: if the pid is recycled after them, what follows reaches the process
  // that was checked (and fails, as it is gone), never the newcomer.
  const auto pid = xpcInt(request, "pid");
  return pid && *pid > 0 && *pid <= INT32_MAX ? pidfdOpen(static_cast<pid_t>(*pid)) : UniqueFd();
}

std::optional<std::string> RequestHandler::needAdmin(const Connection& caller) const {
  return checkAccess(Access::kAuthorised, caller.caller(), authorised(caller), m_options.privileged, nullptr);
}

// --- processors and throttling -------------------------------------------------------------------------

XPCDict RequestHandler::requestCpuInfo(const XPCDict&, Connection&) {
  const CpuCounts c = m_cpus.counts();
  return {{"cpuinfo", XPCDict{{"logical_cpu_max", c.logical_present},
                              {"physical_cpu_max", c.physical_present},
                              {"logical_cpu", c.logical_online},
                              {"physical_cpu", c.physical_online}}}};
}

XPCDict RequestHandler::isRunning(const XPCDict& request, Connection&) {
  std::string error;
  auto cpu = intField(request, "cpu", 0, 65535, &error);
  if (!cpu) return {{"error", error}};
  auto running = m_cpus.isRunning(static_cast<int>(*cpu));
  if (!running) return {{"error", "no processor " + std::to_string(*cpu)}};
  return {{"isrunning", *running ? 2 : 1}};
}

XPCDict RequestHandler::setCpuCount(const XPCDict& request, Connection& caller) {
  std::string error;
  auto count = intField(request, "count", 1, 65536, &error);
  auto hyper = count ? intField(request, "hyper", 0, 1, &error) : std::nullopt;
  auto prefer = hyper ? intField(request, "prefer_phys", 0, 1, &error) : std::nullopt;
  if (!prefer) return {{"setcpu", error}};
  if (auto why = needAdmin(caller)) return {{"setcpu", *why}};
  return {{"setcpu", m_cpus.setCpuCount(static_cast<int>(*count), *hyper == 1, *prefer == 1)}};
}

XPCDict RequestHandler::throttle(const XPCDict& request, Connection& caller) {
  std::string error;
  auto enable = intField(request, "enable", 0, 1, &error);
  if (!enable) return {{"throttle", error}};
  if (auto why = needAdmin(caller)) return {{"throttle", *why}};
  return {{"throttle", m_throttle.setThrottle(*enable == 1)}};
}

// --- processes -------------------------------------------------------------------------------------

XPCDict RequestHandler::setPriority(const XPCDict& request, Connection& caller) {
  std::string error;
  auto priority = intField(request, "priority", -20, 19, &error);
  if (!priority) return {{"setpriority", error}};
  // As for "kill": the pidfd taken before the reads names the process they describe.
  UniqueFd pidfd = pidfdFor(request);
  Admission a = locate(request, Act::kChange, true);
  const auto threads = a.refusal.empty() ? m_renicer.threads(a.pid) : std::vector<ThreadNice>{};
  // Lowering the nice value of any thread takes administrator rights; raising is the owner's business.
  const bool lowers = lowersAnyThread(threads, *priority) || *priority < a.target.nice;
  checkCaller(a, caller, lowers ? Access::kAuthorised : Access::kOwnerOrAuthorised);
  if (!a.refusal.empty()) return {{"setpriority", a.refusal}};
  if (!pidfd || pidfdSignal(pidfd.get(), 0) == ESRCH) return {{"setpriority", "no process " + std::to_string(a.pid)}};
  return {{"setpriority", m_renicer.renice(a.pid, threads, static_cast<int>(*priority))}};
}

XPCDict RequestHandler::kill(const XPCDict& request, Connection& caller) {
  std::string error;
  auto signal = intField(request, "signal", 1, 64, &error);
  if (signal && !allowedSignal(*signal)) error = "signal " + std::to_string(*signal) + " is not allowed";
  if (!signal || !error.empty()) return {{"kill", EINVAL}, {"error", error}};
  // The duty cycle stops and continues a process many times a second. A process this connection
  // stopped passed every check then, its pidfd still names it, and a stopped process cannot change
  // owner: continuing it through that pidfd needs no /proc reads (the connection's end would do the
  // same). Where the checks cannot come out otherwise while the process lives, its pidfd is kept
  // after the first signal and later stops and continues go through it too (see reusesAdmission).
  const auto pid = xpcInt(request, "pid");
  if (pid && *pid > 0 && *pid <= INT32_MAX) {
    if (auto failure = signalKept(static_cast<pid_t>(*pid), static_cast<int>(*signal), caller)) {
      if (*failure) return {{"kill", *failure}, {"error", std::strerror(*failure)}};
      return {{"kill", 0}};
    }
  }
  UniqueFd pidfd = pidfdFor(request);
  Admission a = admit(request, caller, Act::kChange, Access::kOwnerOrAuthorised);
  if (!a.refusal.empty()) return {{"kill", a.error}, {"error", a.refusal}};
  if (!pidfd) return {{"kill", ESRCH}, {"error", "no process " + std::to_string(a.pid)}};
  if (int failure = pidfdSignal(pidfd.get(), static_cast<int>(*signal))) {
    return {{"kill", failure}, {"error", std::strerror(failure)}};
  }
  if (*signal == SIGSTOP) {
    caller.noteStopped(a.pid, std::move(pidfd));
  } else if (*signal == SIGCONT) {
    caller.noteContinued(a.pid);
    if (reusesAdmission(caller)) caller.keepAdmitted(a.pid, std::move(pidfd));
  }
  return {{"kill", 0}};
}

std::optional<int> RequestHandler::signalKept(pid_t pid, int signal, Connection& caller) {
  if (signal != SIGSTOP && signal != SIGCONT) return std::nullopt;
  const bool reuse = reusesAdmission(caller);
  auto failure = signal == SIGCONT ? caller.continueNoted(pid, reuse) : std::nullopt;
  if (!failure && reuse) failure = caller.signalAdmitted(pid, signal);
  return failure;
}

// Whether a pidfd that passed the checks once may carry later stops and continues unchecked.
// Without privileges (served in-process) the kernel checks every signal against the caller's own
// rights anyway. An authorised connection may signal every process but pid 1, kernel threads and
// this daemon, which a process never stops being; whether it is still authorised is asked here,
// at every signal. A connection allowed only its owner's processes is checked in full each time:
// a process can change owner (a set-user-ID program it executes).
bool RequestHandler::reusesAdmission(const Connection& caller) const {
  return !m_options.privileged || authorised(caller);
}

XPCDict RequestHandler::taskInfo(const XPCDict& request, Connection& caller) {
  Admission a = admit(request, caller, Act::kRead, Access::kAnyone);
  if (!a.refusal.empty()) return queryReply("taskinfo", a.error, a.refusal);
  int error = 0;
  auto record = m_reader.taskInfo(a.pid, &error, known(a));
  return record ? recordReply("taskinfo", *record) : queryReply("taskinfo", error);
}

XPCDict RequestHandler::taskAllInfo(const XPCDict& request, Connection& caller) {
  // Opened before the files are read: while it names a live process, the pid was not recycled
  // after the reads, so a following "rusage" may use them (see recentFor).
  UniqueFd pidfd = pidfdFor(request);
  // The record needs status anyway, so the owner's ids come with the checks.
  Admission a = locate(request, Act::kRead, true);
  checkCaller(a, caller, Access::kAnyone);
  if (!a.refusal.empty()) return queryReply("taskallinfo", a.error, a.refusal);
  int error = 0;
  auto record = m_reader.taskAllInfo(a.pid, &error, known(a));
  if (!record) return queryReply("taskallinfo", error);
  caller.recentProcess() = {a.pid, std::move(pidfd), std::chrono::steady_clock::now(), a.stat, *a.status};
  return recordReply("taskallinfo", *record);
}

XPCDict RequestHandler::rusage(const XPCDict& request, Connection& caller) {
  Admission a = admit(request, caller, Act::kRead, Access::kOwnerOrAuthorised, recentFor(caller, request));
  caller.recentProcess() = {};  // used once at most
  if (!a.refusal.empty()) return queryReply("rusage", a.error, a.refusal);
  int error = 0;
  auto record = m_reader.rusage(a.pid, &error, known(a));
  return record ? recordReply("rusage", *record) : queryReply("rusage", error);
}

// A table refresh's records in one exchange. A process that cannot be read is left out; its
// resource usage goes empty to a caller who is neither its owner nor authorised, as "rusage" would
// refuse it.
XPCDict RequestHandler::taskList(const XPCDict& request, Connection& caller) {
  std::string error;
  const auto pids = pidListField(request, &error);
  if (!pids) return queryReply("tasklist", EINVAL, error);
  const bool admin = authorised(caller);
  XPCArray found, infos, usages, names, times;
  for (pid_t pid : *pids) {
    Admission files;
    const auto target = readTarget(pid, true, files, nullptr);
    auto record = target ? m_reader.record(pid, nullptr, known(files)) : std::nullopt;
    if (!record) continue;
    const bool may_usage =
        !checkAccess(Access::kOwnerOrAuthorised, caller.caller(), admin, m_options.privileged, &*target);
    found.emplace_back(int64_t{pid});
    infos.emplace_back(bytesOf(record->all));
    usages.emplace_back(may_usage && record->usage ? bytesOf(*record->usage) : XPCData{});
    names.emplace_back(std::move(record->name));
    times.emplace_back(record->read_at_us);
  }
  XPCDict reply = queryReply("tasklist", 0);
  reply["pids"] = std::move(found);
  reply["taskallinfo"] = std::move(infos);
  reply["rusage"] = std::move(usages);
  reply["names"] = std::move(names);
  reply["times"] = std::move(times);
  return reply;
}

XPCDict RequestHandler::pidName(const XPCDict& request, Connection& caller) {
  Admission a = admit(request, caller, Act::kRead, Access::kAnyone);
  if (!a.refusal.empty()) return {{"reply_pidname", ""}, {"error", a.refusal}};
  return {{"reply_pidname", m_reader.pidName(a.pid).value_or("")}};
}

XPCDict RequestHandler::pidFiles(const XPCDict& request, Connection& caller) {
  Admission a = admit(request, caller, Act::kRead, Access::kOwnerOrAuthorised);
  if (!a.refusal.empty()) return queryReply("pidfiles", a.error, a.refusal);
  int error = 0;
  auto files = m_reader.pidFiles(a.pid, &error);
  if (!files) return queryReply("pidfiles", error);
  XPCArray fds, paths;
  size_t bytes = 0;
  for (const auto& [fd, path] : *files) {
    fds.emplace_back(int64_t{fd});
    paths.emplace_back(path);
    // A frame is at most 1 MiB; leave room for the keys and the CBOR headers of each element.
    bytes += path.size() + 16;
    if (bytes > kXPCMaxFrameBytes - 4096) return queryReply("pidfiles", E2BIG, "too many open files to list");
  }
  XPCDict reply = queryReply("pidfiles", 0);
  reply["pidfds"] = std::move(fds);
  reply["pidfiles"] = std::move(paths);
  return reply;
}

XPCDict RequestHandler::powerMetrics(const XPCDict& request, Connection& caller) {
  std::string error;
  const auto interval_ms = intField(request, "sample_interval", FrequencySampler::kMinInterval_ms,
                                    FrequencySampler::kMaxInterval_ms, &error);
  if (!interval_ms) return {{"result", int64_t{1} + EINVAL}, {"error", error}};
  ChildRegistry::Slot slot = m_children.reserve(caller, ChildKind::kPowerMetrics, &error);
  if (!slot) return {{"result", int64_t{1} + EAGAIN}, {"error", error}};
  auto started = FrequencySampler(m_options.root).start(*interval_ms);
  if (started.error) return {{"result", int64_t{1} + started.error}, {"error", started.error_text}};
  slot.hold(std::move(started.pidfd));
  return {{"result", int64_t{1}},
          {"pid", int64_t{started.pid}},
          {"fd", XPCValue::descriptor(std::move(started.output))}};
}

// Only for authorised connections: the tool runs as root and reports every user's traffic.
XPCDict RequestHandler::nettop(const XPCDict&, Connection& caller) {
  if (auto why = needAdmin(caller)) return {{"result", int64_t{1} + EPERM}, {"error", *why}};
  std::string error;
  ChildRegistry::Slot slot = m_children.reserve(caller, ChildKind::kNettop, &error);
  if (!slot) return {{"result", int64_t{1} + EAGAIN}, {"error", error}};
  const std::string program =
      m_options.nettop_program.empty() ? paths::siblingProgram("pelmora-nettop", "nettop") : m_options.nettop_program;
  auto started = startNettopChild(program);
  if (started.error) return {{"result", int64_t{1} + started.error}, {"error", started.error_text}};
  slot.hold(std::move(started.pidfd));
  return {{"result", int64_t{1}},
          {"pid", int64_t{started.pid}},
          {"fd", XPCValue::descriptor(std::move(started.output))}};
}

XPCDict RequestHandler::energy(const XPCDict&, Connection&) {
  // Anyone may ask: the counters say how much the whole machine uses, nothing about a process.
  const RaplZones zones = RaplZones::read(m_options.root);
  XPCArray readings;
  for (const RaplReading& r : zones.readings) {
    readings.emplace_back(XPCDict{{"zone", r.zone},
                                  {"energy_uj", static_cast<int64_t>(r.energy_uj)},
                                  {"max_energy_range_uj", static_cast<int64_t>(r.max_energy_range_uj)}});
  }
  XPCDict reply{{"energy", std::move(readings)}};
  if (zones.denied) reply["error"] = m_options.privileged ? "the energy counters cannot be read" : kHelperNotRunning;
  return reply;
}

// --- boot-time apply, authorisation, quit ----------------------------------------------------------

XPCDict RequestHandler::applyBoot(const XPCDict& request, Connection& caller) {
  std::string error;
  const std::string* mode = stringField(request, "install", &error);
  if (!mode) return {{"applyboot", error}};
  if (*mode != "install" && *mode != "uninstall") return {{"applyboot", "\"install\" must be install or uninstall"}};
  if (auto why = needAdmin(caller)) return {{"applyboot", *why}};
  if (*mode == "uninstall") return {{"applyboot", m_boot.uninstall()}};
  const std::string* script = stringField(request, "script", &error);
  const std::string* tool = script ? stringField(request, "pelmora", &error) : nullptr;
  const std::string* unit = tool ? stringField(request, "plist", &error) : nullptr;
  const std::string* settings = unit ? stringField(request, "settings", &error) : nullptr;
  if (!settings) return {{"applyboot", error}};
  return {{"applyboot", m_boot.install({*script, *tool, *unit, *settings})}};
}

bool RequestHandler::authorised(const Connection& caller) const {
  return caller.caller().uid == 0 || m_grants.granted(caller.caller());
}

// May wait minutes for the user's password: only this connection's thread waits, and the grant then
// holds for every connection of the calling process. With "interactive" 0 the daemon only says
// whether the process holds a grant already (a client that reconnected asks this way).
XPCDict RequestHandler::authorize(const XPCDict& request, Connection& caller) {
  if (authorised(caller)) return {{"authorize", "OK"}};
  if (!m_options.privileged) return {{"authorize", kHelperNotRunning}};
  if (xpcInt(request, "interactive") == int64_t{0}) return {{"authorize", "not authorised: no grant held"}};
  if (!m_options.authorizer) return {{"authorize", "not authorised: only root is an administrator here"}};
  const std::string answer = m_options.authorizer->authorize(caller.caller());
  if (answer != "OK") return {{"authorize", answer}};
  if (!m_grants.grant(caller.caller())) return {{"authorize", "not authorised: the caller's start time is unknown"}};
  return {{"authorize", "OK"}};
}

XPCDict RequestHandler::deauthorize(const XPCDict&, Connection& caller) {
  m_grants.revoke(caller.caller());
  return {{"deauthorize", "OK"}};
}

XPCDict RequestHandler::quit(const XPCDict&, Connection& caller) {
  caller.requestClose();
  return {};
}

}  // namespace pelmora
