#include "helper_link/pelmora.h"

#include "helper_link/fallback_transport.h"
#include "helper_link/helper_transport.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/main_queue.h"
#include "support/xpc.h"
#include "support/xpc_codec.h"

namespace pelmora {
namespace {

constexpr const char* kServiceLabel = "net.tandrel.pelmorahelper";

int64_t flag(bool value) { return value ? 1 : 0; }

template <class Record>
std::optional<Record> recordOf(const RecordReply<Record>& reply) {
  return reply.status == 0 ? reply.record : std::nullopt;
}

// The record a reply carries, checked by `checkReply`; nullopt where the helper had none.
template <auto checkReply>
auto checkedRecord(const XPCDict& reply) {
  return recordOf(checkReply(reply));
}

}  // namespace

Pelmora::Pelmora(std::unique_ptr<XPCTransport> transport, SysRoot local_root)
    : Pelmora(std::move(transport), nullptr, std::move(local_root)) {}

Pelmora::Pelmora(std::unique_ptr<XPCTransport> transport, std::unique_ptr<XPCTransport> auth_transport,
                 SysRoot local_root)
    : m_xpc(std::make_unique<XPC>(kServiceLabel, std::move(transport))), m_local(std::move(local_root)) {
  if (auth_transport) m_auth_xpc = std::make_unique<XPC>(kServiceLabel, std::move(auth_transport));
}

Pelmora::~Pelmora() {
  if (!m_auth_thread.joinable()) return;
  // A password dialog may still be open: end the wait instead of waiting for the user.
  (m_auth_xpc ? *m_auth_xpc : *m_xpc).transport().interrupt();
  m_auth_thread.join();
}

Pelmora& Pelmora::shared() {
  // Never destroyed: threads may call late. "authorize" has a connection of its own, with a reply
  // timeout long enough for the user to type a password.
  static Pelmora* instance = new Pelmora(makeHelperTransport(), makeHelperTransport(kAuthorizeTimeout_ms));
  return *instance;
}

cpu_numbers_t Pelmora::requestCpuInfo(cpu_numbers_t current) {
  cpu_numbers_t result = current;
  send([](XPCDict& r) { r["requestcpuinfo"] = ""; },
                       [&](const XPCDict& reply) { result = checkCpuInfoReply(reply, current); });
  return result;
}

bool Pelmora::isRunning(int cpu, bool default_value) {
  bool result = default_value;
  send(
      [cpu](XPCDict& r) {
        r["isrunning"] = "";
        r["cpu"] = int64_t{cpu};
      },
      [&](const XPCDict& reply) { result = checkIsRunningReply(reply, default_value); });
  return result;
}

namespace {
// The helper's words for a refused command, or that it did not answer.
void noteRefusal(const XPCDict* reply, const std::string& key, std::string* refusal) {
  if (!refusal) return;
  const std::string* text = reply ? xpcString(*reply, key) : nullptr;
  *refusal = text ? *text : "no answer from the privileged helper";
}
}  // namespace

bool Pelmora::setCpuCount(int count, bool hyper, bool prefer_physical, std::string* refusal) {
  CommandOutcome outcome = CommandOutcome::kNoAnswer;
  std::optional<XPCDict> answer;
  send(
      [=](XPCDict& r) {
        r["setcpucount"] = "";
        r["count"] = int64_t{count};
        r["hyper"] = flag(hyper);
        r["prefer_phys"] = flag(prefer_physical);
      },
      // The status comes back under "setcpu", not under the request's key.
      [&](const XPCDict& reply) {
        outcome = checkSetCpuResponse(reply, "setcpu");
        answer = reply;
      });
  if (outcome != CommandOutcome::kOk) noteRefusal(answer ? &*answer : nullptr, "setcpu", refusal);
  return outcome == CommandOutcome::kOk;
}

bool Pelmora::setThrottle(bool enable, std::string* refusal) {
  CommandOutcome outcome = CommandOutcome::kNoAnswer;
  std::optional<XPCDict> answer;
  send(
      [=](XPCDict& r) {
        r["throttle"] = "";
        r["enable"] = flag(enable);
      },
      [&](const XPCDict& reply) {
        outcome = checkThrottleReply(reply, enable);
        answer = reply;
      });
  if (outcome != CommandOutcome::kOk) noteRefusal(answer ? &*answer : nullptr, "throttle", refusal);
  return outcome == CommandOutcome::kOk;
}

bool Pelmora::setPriority(int32_t pid, int nice) {
  CommandOutcome outcome = CommandOutcome::kNoAnswer;
  send(
      [=](XPCDict& r) {
        r["setpriority"] = "";
        r["pid"] = int64_t{pid};
        r["priority"] = int64_t{nice};
      },
      // Shares the "setcpucount response: " routine on purpose.
      [&](const XPCDict& reply) { outcome = checkSetCpuResponse(reply, "setpriority"); });
  return outcome == CommandOutcome::kOk;
}

int Pelmora::sendSignal(int32_t pid, int32_t signal) {
  // The duty cycle stops and continues a process many times a second: once admitted, served
  // in-process, those skip the request and reply dictionaries (same pidfd, same bookkeeping).
  if (auto kept = m_xpc->signalAdmitted(pid, signal)) return *kept;
  int result = -1;
  send(
      [=](XPCDict& r) {
        r["kill"] = "kill";
        r["pid"] = int64_t{pid};
        r["signal"] = int64_t{signal};
      },
      [&](const XPCDict& reply) { result = checkKillReply(reply); });
  return result;
}

template <class Result, class Check>
std::optional<Result> Pelmora::pidRequest(const char* request, int32_t pid, const Check& check) {
  std::optional<Result> result;
  send(
      [=](XPCDict& r) {
        r[request] = request;
        r["pid"] = int64_t{pid};
      },
      [&](const XPCDict& reply) { result = check(reply); });
  return result;
}

std::optional<std::string> Pelmora::pidName(int32_t pid, bool via_helper) {
  if (!via_helper) return pid < 0 ? std::nullopt : m_local.pidName(pid);
  return pidRequest<std::string>("pidname", pid, checkPidNameReply);
}

std::optional<proc_taskinfo> Pelmora::taskInfo(int32_t pid, bool via_helper) {
  if (pid < 0) return std::nullopt;
  if (!via_helper) return m_local.taskInfo(pid);
  return pidRequest<proc_taskinfo>("taskinfo", pid, checkedRecord<checkTaskInfoReply>);
}

std::optional<proc_taskallinfo> Pelmora::taskAllInfo(int32_t pid, bool via_helper) {
  if (pid < 0) return std::nullopt;
  if (!via_helper) return m_local.taskAllInfo(pid);
  return pidRequest<proc_taskallinfo>("taskallinfo", pid, checkedRecord<checkTaskAllInfoReply>);
}

std::optional<rusage_info_v3> Pelmora::rusage(int32_t pid, bool via_helper) {
  if (pid < 0) return std::nullopt;
  if (!via_helper) return m_local.rusage(pid);
  return pidRequest<rusage_info_v3>("rusage", pid, checkedRecord<checkRusageReply>);
}

std::map<int32_t, ProcessRecord> Pelmora::records(const std::vector<int32_t>& pids, bool via_helper) {
  std::map<int32_t, ProcessRecord> out;
  if (!via_helper) {
    for (int32_t pid : pids)
      if (auto record = pid > 0 ? m_local.record(pid) : std::nullopt) out[pid] = std::move(*record);
    return out;
  }
  for (size_t first = 0; first < pids.size(); first += kTaskListMaxPids) {
    XPCArray batch;
    for (size_t i = first; i < std::min(pids.size(), first + kTaskListMaxPids); ++i)
      if (pids[i] > 0) batch.emplace_back(int64_t{pids[i]});
    if (batch.empty()) continue;
    send(
        [&](XPCDict& r) {
          r["tasklist"] = "tasklist";
          r["pids"] = std::move(batch);
        },
        [&](const XPCDict& reply) {
          if (auto records = checkTaskListReply(reply)) out.merge(*records);
        });
  }
  return out;
}

std::optional<std::map<int, std::string>> Pelmora::pidFiles(int32_t pid, bool via_helper) {
  if (pid < 0) return std::nullopt;
  std::optional<std::map<int, std::string>> result;
  if (!via_helper) {
    result = m_local.pidFiles(pid);
  } else {
    send(
        [=](XPCDict& r) {
          r["pidfiles"] = "pidfiles";
          r["pid"] = int64_t{pid};
        },
        [&](const XPCDict& reply) {
          PidFilesReply checked = checkPidFilesReply(reply);
          if (checked.status == 0) result = std::move(checked.files);
        });
  }
  if (result && result->empty()) return std::nullopt;
  return result;
}

Pelmora::PowerMetricsResult Pelmora::powerMetrics(int sample_interval_ms) {
  PowerMetricsResult result;
  send(
      [=](XPCDict& r) {
        r["powermetrics"] = "powermetrics";
        r["sample_interval"] = int64_t{sample_interval_ms};
      },
      [&](const XPCDict& reply) { result = checkPowerMetricsReply(reply); });
  return result;
}

Pelmora::NettopResult Pelmora::nettop() {
  NettopResult result;
  send([](XPCDict& r) { r["nettop"] = "nettop"; },
       [&](const XPCDict& reply) { result = checkPowerMetricsReply(reply); });
  return result;
}

std::optional<std::vector<RaplReading>> Pelmora::energy() {
  std::optional<std::vector<RaplReading>> result;
  send([](XPCDict& r) { r["energy"] = "energy"; }, [&](const XPCDict& reply) { result = checkEnergyReply(reply); });
  return result;
}

void Pelmora::applyBoot(bool install, const std::optional<BootControls>& controls) {
  applyBoot(install, controls, BootLocations::standard());
}

void Pelmora::applyBoot(bool install, const std::optional<BootControls>& controls, const BootLocations& where) {
  if (!install && !where.installed()) return;
  const auto resources = where.resources();
  if (!resources || !controls) return;
  const std::string settings = bootSettingsText(*controls, hasHardwareThreads(SysRoot::current()));
  send(
      [&](XPCDict& r) {
        r["applyboot"] = "";
        r["install"] = install ? "install" : "uninstall";
        r["script"] = resources->script.string();
        r["pelmora"] = resources->pelmora.string();
        r["plist"] = resources->unit.string();
        r["settings"] = settings;
      },
      [&](const XPCDict& reply) { checkApplyBootReply(reply, install); });
}

bool Pelmora::authorised() { return lockedCopy(m_mutex, m_authorised); }

void Pelmora::setAuthorised(bool authorised) {
  // The broadcast is posted with the lock held, so listeners see the flags in the order they were set.
  MutexLock lock(m_mutex);
  m_authorised = authorised;
  Broadcast("net.tandrel.pelmora.authchanged", true);
}

std::string Pelmora::authorize() {
  const std::string answer = sendAuthorize(m_auth_xpc ? *m_auth_xpc : *m_xpc, true);
  // The grant is the process's: the main connection has it from now on.
  const uint64_t connection = m_xpc->transport().connection();
  MutexLock lock(m_mutex);
  m_authorised_connection = connection;
  return answer;
}

bool Pelmora::requestAuthorization(std::function<void(const std::string& answer)> done) {
  {
    MutexLock lock(m_mutex);
    if (m_auth_pending) return false;
    m_auth_pending = true;
    Broadcast("net.tandrel.pelmora.authchanged", true);
  }
  joinAuthorization();
  m_auth_thread = std::thread([this, done = std::move(done)] {
    const std::string answer = authorize();
    if (answer == "OK") setAuthorised(true);
    {
      MutexLock lock(m_mutex);
      m_auth_pending = false;
      Broadcast("net.tandrel.pelmora.authchanged", true);
    }
    if (done) MainQueue::post([done, answer] { done(answer); });
  });
  return true;
}

bool Pelmora::authorizationPending() { return lockedCopy(m_mutex, m_auth_pending); }

// Called only when no request is pending, so the thread has finished or is about to.
void Pelmora::joinAuthorization() {
  if (m_auth_thread.joinable()) m_auth_thread.join();
}

std::string Pelmora::sendAuthorize(XPC& xpc, bool interactive) {
  std::string result = "no answer from the privileged helper";
  xpc.sendWithReply(
      [interactive](XPCDict& r) {
        r["authorize"] = "";
        r["interactive"] = int64_t{interactive ? 1 : 0};
      },
      [&](const XPCDict& reply) {
        if (const std::string* text = xpcString(reply, "authorize")) result = *text;
      });
  return result;
}

void Pelmora::reauthoriseIfReconnected() {
  {
    MutexLock lock(m_mutex);
    if (!m_authorised) return;
  }
  const uint64_t connection = m_xpc->transport().connection();
  {
    MutexLock lock(m_mutex);
    if (connection == m_authorised_connection) return;
  }
  const std::string answer = sendAuthorize(*m_xpc, false);
  if (answer != "OK") {
    Log("Authorisation lost with the helper connection: " + answer);
    setAuthorised(false);
    return;
  }
  MutexLock lock(m_mutex);
  m_authorised_connection = connection;
}

bool Pelmora::send(const std::function<void(XPCDict&)>& builder, const std::function<void(const XPCDict&)>& handler) {
  reauthoriseIfReconnected();
  return m_xpc->sendWithReply(builder, handler);
}

void Pelmora::deauthorize() {
  m_xpc->sendWithReply([](XPCDict& r) { r["deauthorize"] = ""; }, [](const XPCDict&) {});
}

void Pelmora::quit() {
  m_xpc->command([](XPCDict& r) { r["quit"] = ""; });
}

bool Pelmora::viaDaemon() {
  auto* fallback = dynamic_cast<FallbackTransport*>(&m_xpc->transport());
  return fallback ? fallback->viaDaemon() : true;
}

}  // namespace pelmora
