#include "helper/policy.h"

#include <gtest/gtest.h>

#include "support/proc_task_reader.h"

namespace pelmora {
namespace {

TargetProcess ownedBy(uint32_t real, uint32_t effective, uint32_t saved) {
  return {.pid = 500, .uid_real = real, .uid_effective = effective, .uid_saved = saved, .ppid = 400};
}

// "" when `why` is what was expected: no refusal (nullptr), or one that mentions `expected`.
std::string verdict(const std::optional<std::string>& why, const char* expected) {
  if (!why) return expected ? std::string("allowed") : "";
  return expected && why->find(expected) != std::string::npos ? "" : *why;
}

TEST(HelperPolicy, ProtectedTargets) {
  const TargetProcess kthread{.pid = 500, .flags = kPFKthread, .ppid = 400};
  const TargetProcess no_exe_child_of_kthreadd{.pid = 500, .ppid = 2, .has_exe = false};
  // E.g. a zombie: not a kernel thread.
  const TargetProcess no_exe_elsewhere{.pid = 500, .uid_real = 1000, .ppid = 400, .has_exe = false};
  const TargetProcess ordinary = ownedBy(1000, 1000, 1000);
  const struct {
    const char* name;
    pid_t pid;
    const TargetProcess* target;
    const char* reason;  // nullptr: not protected
  } cases[] = {
      {"pid 0", 0, nullptr, "not an ordinary process"},
      {"negative", -42, nullptr, "not an ordinary process"},
      {"init", 1, nullptr, "not an ordinary process"},
      {"the helper", 777, nullptr, "the helper itself"},
      {"kernel thread flag", 500, &kthread, "kernel thread"},
      {"no executable under kthreadd", 500, &no_exe_child_of_kthreadd, "kernel thread"},
      {"no executable elsewhere", 500, &no_exe_elsewhere, nullptr},
      {"ordinary", 500, &ordinary, nullptr},
      {"ordinary, not read yet", 500, nullptr, nullptr},
  };
  for (const auto& c : cases) EXPECT_EQ(verdict(protectedTarget(c.pid, 777, c.target), c.reason), "") << c.name;
}

TEST(HelperPolicy, AccessByOwnershipAndAuthorisation) {
  const CallerIdentity user{1000, 321, 5};
  const TargetProcess own = ownedBy(1000, 1000, 1000);
  const TargetProcess others = ownedBy(1001, 1001, 1001);
  const TargetProcess setuid_root = ownedBy(1000, 0, 0);  // a set-uid program the user started
  const TargetProcess dropped = ownedBy(0, 1000, 1000);
  const struct {
    const char* name;
    Access need;
    bool authorised, privileged;
    const TargetProcess* target;
    const char* refusal;  // nullptr: allowed
  } cases[] = {
      {"anyone", Access::kAnyone, false, true, &others, nullptr},
      {"owner", Access::kOwnerOrAuthorised, false, true, &own, nullptr},
      {"other user's process", Access::kOwnerOrAuthorised, false, true, &others, "belongs to another user"},
      {"set-uid program", Access::kOwnerOrAuthorised, false, true, &setuid_root, "belongs to another user"},
      {"real uid root", Access::kOwnerOrAuthorised, false, true, &dropped, "belongs to another user"},
      {"authorised, other user's", Access::kOwnerOrAuthorised, true, true, &others, nullptr},
      {"admin only", Access::kAuthorised, false, true, nullptr, "administrator rights"},
      {"admin only, own process", Access::kAuthorised, false, true, &own, "administrator rights"},
      {"admin only, authorised", Access::kAuthorised, true, true, nullptr, nullptr},
      {"in-process, other user's", Access::kOwnerOrAuthorised, false, false, &others, kHelperNotRunning},
      {"in-process, own", Access::kOwnerOrAuthorised, false, false, &own, nullptr},
      {"in-process, admin only", Access::kAuthorised, false, false, nullptr, kHelperNotRunning},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(verdict(checkAccess(c.need, user, c.authorised, c.privileged, c.target), c.refusal), "") << c.name;
  }
}

}  // namespace
}  // namespace pelmora
