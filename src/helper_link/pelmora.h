#pragma once
// Pelmora: the application's single client of the privileged helper. One operation per helper
// request; each is one synchronous exchange made on the calling thread. Replies are checked exactly
// as the wire protocol says, and failures are logged, never thrown. When no daemon answers, the same
// requests are served in-process with the user's own rights.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "helper_link/boot_flags.h"
#include "helper_link/boot_locations.h"
#include "helper_link/reply_checks.h"
#include "support/kernel_records.h"
#include "support/mutex.h"
#include "support/proc_task_reader.h"
#include "support/unique_fd.h"
#include "support/xpc_transport.h"

namespace pelmora {

class XPC;

class Pelmora {
 public:
  static Pelmora& shared();
  // A client over the given transport (tests; tools that talk to a chosen socket); the queries it
  // answers itself read `local_root`. "authorize" goes over auth_transport, a connection of its own,
  // when one is given.
  explicit Pelmora(std::unique_ptr<XPCTransport> transport, SysRoot local_root = SysRoot::current());
  Pelmora(std::unique_ptr<XPCTransport> transport, std::unique_ptr<XPCTransport> auth_transport,
          SysRoot local_root = SysRoot::current());
  ~Pelmora();

  // Fields stay as in `current` when the reply has no "cpuinfo".
  cpu_numbers_t requestCpuInfo(cpu_numbers_t current = {});
  bool isRunning(int cpu, bool default_value);
  // These three log a refusal; each returns true only when the helper said "OK". The helper's
  // reason goes to *refusal when asked for.
  bool setCpuCount(int count, bool hyper, bool prefer_physical, std::string* refusal = nullptr);
  bool setThrottle(bool enable, std::string* refusal = nullptr);
  bool setPriority(int32_t pid, int nice);
  // The helper's "kill" reply: 0 for success; -1 when there was no answer.
  int sendSignal(int32_t pid, int32_t signal);
  std::optional<std::string> pidName(int32_t pid, bool via_helper);
  std::optional<proc_taskinfo> taskInfo(int32_t pid, bool via_helper);
  std::optional<proc_taskallinfo> taskAllInfo(int32_t pid, bool via_helper);
  std::optional<rusage_info_v3> rusage(int32_t pid, bool via_helper);
  std::optional<std::map<int, std::string>> pidFiles(int32_t pid, bool via_helper);
  // What a table refresh needs of many processes, pid -> record, for those that could be read. In
  // this process each process's files are read once; through the daemon the pids go in "tasklist"
  // requests of up to kTaskListMaxPids each, so a refresh is a few round trips.
  std::map<int32_t, ProcessRecord> records(const std::vector<int32_t>& pids, bool via_helper);

  // status 0 is success; pid -1 and an invalid fd (the read end of the tool's output) on failure.
  using PowerMetricsResult = PowerMetricsReply;
  PowerMetricsResult powerMetrics(int sample_interval_ms);
  // "nettop" (authorised connections only): the pid of a pelmora-nettop the daemon runs as root and
  // the read end of its output, in the same shape; closing the read end ends that tool.
  using NettopResult = PowerMetricsReply;
  NettopResult nettop();

  // The RAPL package zones' energy counters as the daemon (root) reads them; none when it cannot.
  std::optional<std::vector<RaplReading>> energy();

  // Installs or removes the boot-time apply. Without controls (no settings window) it stops silently.
  void applyBoot(bool install, const std::optional<BootControls>& controls);
  // The same against chosen locations (tests: an install root and a resources folder).
  void applyBoot(bool install, const std::optional<BootControls>& controls, const BootLocations& where);
  // The settings text for the given controls, e.g. "-h on -p -t off -n 6".
  static std::string bootSettingsText(const BootControls& controls, bool has_hardware_threads) {
    return pelmora::bootSettingsText(controls, has_hardware_threads);
  }

  bool authorised();
  // Stores the flag and broadcasts "net.tandrel.pelmora.authchanged".
  void setAuthorised(bool authorised);
  // Asks the daemon to authorise this process (polkit; the user may be asked for a password, which
  // can take minutes): "OK" or the error text. Blocks the calling thread, on the authorisation
  // connection only. It does not change the flag above.
  std::string authorize();
  // The same from a worker thread of this client's, so that nothing else waits: on "OK" the flag is
  // set; `done` then runs on the main thread with the answer. False (and nothing sent) while one is
  // pending. Every change of the pending state is broadcast like the flag.
  bool requestAuthorization(std::function<void(const std::string& answer)> done);
  bool authorizationPending();
  void deauthorize();
  // One-way "quit" at the end of the program.
  void quit();
  // False when requests are being served in-process because no daemon answered.
  bool viaDaemon();

 private:
  // Every request but "authorize" goes through here. The daemon keeps its grant per client process,
  // but a daemon that was started anew has none: when the flag is set and the transport has
  // connected anew, it asks (without any dialog) whether the grant still holds, and drops the flag
  // when it does not.
  bool send(const std::function<void(XPCDict&)>& builder, const std::function<void(const XPCDict&)>& handler);
  // One process's `request` ("pidname", "taskinfo", ...) to the helper: what `check` makes of the reply.
  template <class Result, class Check>
  std::optional<Result> pidRequest(const char* request, int32_t pid, const Check& check);
  void reauthoriseIfReconnected();
  std::string sendAuthorize(XPC& xpc, bool interactive);
  void joinAuthorization();

  std::unique_ptr<XPC> m_xpc;
  // The queries asked with via_helper false read /proc here, with the user's own rights.
  const ProcTaskReader m_local;
  std::unique_ptr<XPC> m_auth_xpc;  // may be null: "authorize" then shares m_xpc
  bool m_authorised = false;
  uint64_t m_authorised_connection = 0;  // the main connection when the grant was last confirmed
  bool m_auth_pending = false;
  Mutex m_mutex;  // guards m_authorised, m_authorised_connection and m_auth_pending
  std::thread m_auth_thread;  // main thread only
};

}  // namespace pelmora
