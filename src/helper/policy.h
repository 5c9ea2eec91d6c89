#pragma once
// Who may do what in the helper. Pure decisions over the caller and the target process, so each
// refusal can be checked on its own; the request handler gathers the facts. Runs as root in the
// daemon.
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "helper/connection.h"

namespace pelmora {

enum class Access {
  kAnyone,
  kOwnerOrAuthorised,  // the target process's owner, or an authorised connection
  kAuthorised,
};

// What the handler learned about a target process from /proc.
struct TargetProcess {
  pid_t pid = 0;
  uint32_t uid_real = 0;
  uint32_t uid_effective = 0;
  uint32_t uid_saved = 0;
  uint32_t flags = 0;  // PF_* of /proc/PID/stat
  int ppid = 0;
  int64_t nice = 0;
  bool has_exe = true;  // /proc/PID/exe names a file
};

// A kernel thread has PF_KTHREAD, or no executable and kthreadd (pid 2) as parent.
bool isKernelThread(const TargetProcess& target);

// Processes nobody may act on: pid <= 1, the helper itself, kernel threads. The reason, or none.
std::optional<std::string> protectedTarget(pid_t pid, pid_t self_pid, const TargetProcess* target);

// None when allowed, else the refusal naming what the caller lacks. `privileged` is false when the
// handler runs in-process with the user's own rights, where authorisation cannot be had.
std::optional<std::string> checkAccess(Access need, const CallerIdentity& caller, bool authorised,
                                       bool privileged, const TargetProcess* target);

inline constexpr const char* kHelperNotRunning = "the privileged helper is not running";

}  // namespace pelmora
