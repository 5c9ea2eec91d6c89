#include "helper/policy.h"

#include "support/proc_task_reader.h"

namespace pelmora {

bool isKernelThread(const TargetProcess& t) { return (t.flags & kPFKthread) != 0 || (!t.has_exe && t.ppid == 2); }

std::optional<std::string> protectedTarget(pid_t pid, pid_t self_pid, const TargetProcess* target) {
  const std::string name = "process " + std::to_string(pid);
  if (pid <= 1) return "refused: " + name + " is not an ordinary process";
  if (pid == self_pid) return "refused: " + name + " is the helper itself";
  if (target && isKernelThread(*target)) return "refused: " + name + " is a kernel thread";
  return std::nullopt;
}

std::optional<std::string> checkAccess(Access need, const CallerIdentity& caller, bool authorised, bool privileged,
                                       const TargetProcess* target) {
  if (need == Access::kAnyone || authorised) return std::nullopt;
  if (need == Access::kOwnerOrAuthorised && target) {
    // All three ids must be the caller's: a set-uid program run by the user is not the user's.
    const uint32_t uid = caller.uid;
    if (target->uid_real == uid && target->uid_effective == uid && target->uid_saved == uid) return std::nullopt;
    if (!privileged) return std::string(kHelperNotRunning);
    return "not authorised: process " + std::to_string(target->pid) +
           " belongs to another user and this connection has no administrator rights";
  }
  if (!privileged) return std::string(kHelperNotRunning);
  return std::string("not authorised: this needs administrator rights");
}

}  // namespace pelmora
