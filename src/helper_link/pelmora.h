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
  // answers itself read `local_root`.
  explicit Pelmora(std::unique_ptr<XPCTransport> transport, SysRoot local_root = SysRoot::current());
  ~Pelmora();

  // Fields stay as in `current` when the reply has no "cpuinfo".
  cpu_numbers_t requestCpuInfo(cpu_numbers_t current = {});
  bool isRunning(int cpu, bool default_value);
  // These three log a refusal; each returns true only when the helper said "OK".
  bool setCpuCount(int count, bool hyper, bool prefer_physical);
  bool setThrottle(bool enable);
  bool setPriority(int32_t pid, int nice);
  // The helper's "kill" reply: 0 for success; -1 when there was no answer.
  int sendSignal(int32_t pid, int32_t signal);
  std::optional<std::string> pidName(int32_t pid, bool via_helper = true);
  std::optional<proc_taskinfo> taskInfo(int32_t pid, bool via_helper);
  std::optional<proc_taskallinfo> taskAllInfo(int32_t pid, bool via_helper);
  std::optional<rusage_info_v3> rusage(int32_t pid, bool via_helper);
  std::optional<std::map<int, std::string>> pidFiles(int32_t pid, bool via_helper);

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
  // Asks the daemon to authorise this connection (polkit); "OK" or the error text. It does not
  // change the flag above: the caller does that with setAuthorised.
  std::string authorize();
  void deauthorize();
  // One-way "quit" at the end of the program.
  void quit();
  // False when requests are being served in-process because no daemon answered.
  bool viaDaemon();

 private:
  // Every request but "authorize" goes through here: the daemon's authorisation belongs to one
  // connection, so when the flag is set and the transport has connected anew since "authorize" was
  // answered, it asks again first (polkit's auth_admin_keep spares the user a second prompt).
  bool send(const std::function<void(XPCDict&)>& builder, const std::function<void(const XPCDict&)>& handler);
  void reauthoriseIfReconnected();
  std::string sendAuthorize();

  std::unique_ptr<XPC> m_xpc;
  // The queries asked with via_helper false read /proc here, with the user's own rights.
  const ProcTaskReader m_local;
  bool m_authorised = false;
  uint64_t m_authorised_connection = 0;  // the connection "authorize" was last answered on
  Mutex m_mutex;  // guards m_authorised and m_authorised_connection
};

}  // namespace pelmora
