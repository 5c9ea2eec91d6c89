#pragma once
// The helper's request dispatcher: one request dictionary in, one reply dictionary out. The daemon
// runs it as root for each socket connection; the application runs the same code in-process, with
// its user's own rights, when no daemon answers (see inProcessOptions()).
//
// Nothing in a request is trusted: every field's type and range is checked, every process target
// is checked against the caller (owner, authorisation), and signals and priority changes against
// the processes nobody may touch (pid <= 1, the helper itself, kernel threads); the read-only
// queries answer for every process. A request that fails a check is answered with an error text
// (and an errno-based status for the queries), never acted on.
#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "helper/authorizer.h"
#include "helper/boot_installer.h"
#include "helper/child_registry.h"
#include "helper/connection.h"
#include "helper/cpu_control.h"
#include "helper/grant_table.h"
#include "helper/policy.h"
#include "helper/thread_renicer.h"
#include "helper/throttle_writer.h"
#include "support/proc_task_reader.h"
#include "support/sys_root.h"
#include "support/xpc_value.h"

namespace pelmora {

struct HelperOptions {
  SysRoot root = SysRoot::current();
  BootPaths boot;
  // Decides "authorize"; none means only uid 0 is ever authorised.
  std::shared_ptr<Authorizer> authorizer;
  // False when serving in-process: operations that need administrator rights then fail with
  // "the privileged helper is not running".
  bool privileged = true;
  // The process that must never be signalled or reniced through this handler.
  pid_t self_pid = ::getpid();
  // The program behind "nettop"; empty: pelmora-nettop beside the daemon or in the libexec folder.
  std::string nettop_program;
};

class RequestHandler {
 public:
  explicit RequestHandler(HelperOptions options = {});
  // For the application without a daemon: the real /proc and /sys, no authorisation, not privileged.
  static HelperOptions inProcessOptions();

  // Answers one request from `caller`. A "quit" request answers an empty dictionary and marks the
  // connection for closing (caller.closeRequested()); nothing is to be sent back for it.
  XPCDict handle(const XPCDict& request, Connection& caller);
  // The part of "kill" that needs no checks: a stop or continue of a process this connection was
  // already admitted to signal, through the pidfd kept then (see kill()). 0 or the errno of the
  // signal; none when the request needs its full checks.
  std::optional<int> signalKept(pid_t pid, int signal, Connection& caller);
  // The connection is closing: the children it started end with it.
  void connectionEnded(const Connection& caller);
  // The tools started for callers, one per connection and kind ("powermetrics", "nettop").
  ChildRegistry& children() { return m_children; }

 private:
  using Method = XPCDict (RequestHandler::*)(const XPCDict&, Connection&);
  struct Route {
    const char* key;
    Method method;
  };
  static const Route kRoutes[];

  XPCDict requestCpuInfo(const XPCDict& request, Connection& caller);
  XPCDict isRunning(const XPCDict& request, Connection& caller);
  XPCDict setCpuCount(const XPCDict& request, Connection& caller);
  XPCDict throttle(const XPCDict& request, Connection& caller);
  XPCDict setPriority(const XPCDict& request, Connection& caller);
  XPCDict kill(const XPCDict& request, Connection& caller);
  XPCDict taskInfo(const XPCDict& request, Connection& caller);
  XPCDict taskAllInfo(const XPCDict& request, Connection& caller);
  XPCDict rusage(const XPCDict& request, Connection& caller);
  XPCDict taskList(const XPCDict& request, Connection& caller);
  XPCDict pidName(const XPCDict& request, Connection& caller);
  XPCDict pidFiles(const XPCDict& request, Connection& caller);
  XPCDict powerMetrics(const XPCDict& request, Connection& caller);
  XPCDict nettop(const XPCDict& request, Connection& caller);
  XPCDict energy(const XPCDict& request, Connection& caller);
  XPCDict applyBoot(const XPCDict& request, Connection& caller);
  XPCDict authorize(const XPCDict& request, Connection& caller);
  XPCDict deauthorize(const XPCDict& request, Connection& caller);
  XPCDict quit(const XPCDict& request, Connection& caller);

  // The checked target of a per-process request.
  struct Admission {
    pid_t pid = 0;
    TargetProcess target;
    ProcPidStat stat;                  // as read for the checks
    std::optional<ProcStatus> status;  // read only when the owner was checked
    int error = 0;                     // errno value when refused
    std::string refusal;               // empty when admitted
  };
  // What a request does to its target: reading it is allowed for every process, changing it
  // (signals, priorities) is refused for the protected ones.
  enum class Act { kRead, kChange };
  // Reads and checks "pid" and finds the process; for a change, refuses the protected ones. The
  // owner's ids are read only when the access check needs them.
  // With `recent`, the files a previous request read for the same live process stand in for reading.
  Admission locate(const XPCDict& request, Act act, bool need_owner, const RecentProcess* recent = nullptr);
  // Adds the caller's right to act on the located target.
  void checkCaller(Admission& admission, const Connection& caller, Access need) const;
  Admission admit(const XPCDict& request, const Connection& caller, Act act, Access need,
                  const RecentProcess* recent = nullptr);
  std::optional<TargetProcess> readTarget(pid_t pid, bool need_owner, Admission& files,
                                          const RecentProcess* recent) const;
  // The connection's recent files when they are for the requested pid, a few milliseconds old and
  // that process is still alive (so the pid was not recycled); else null.
  static const RecentProcess* recentFor(Connection& caller, const XPCDict& request);
  // The files the checks read, for the record reader to use again.
  static KnownProcFiles known(const Admission& a) { return {&a.stat, a.status ? &*a.status : nullptr}; }
  std::optional<std::string> needAdmin(const Connection& caller) const;
  // A pidfd for the request's "pid", invalid when there is no such process.
  static UniqueFd pidfdFor(const XPCDict& request);
  // uid 0, or a process that holds a grant.
  bool authorised(const Connection& caller) const;
  bool reusesAdmission(const Connection& caller) const;

  HelperOptions m_options;
  ProcTaskReader m_reader;
  CpuControl m_cpus;
  ThrottleWriter m_throttle;
  BootInstaller m_boot;
  ThreadRenicer m_renicer;
  ChildRegistry m_children;
  GrantTable m_grants;  // per client process, shared by all its connections
};

}  // namespace pelmora
