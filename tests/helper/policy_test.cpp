#include "helper/policy.h"

#include <gtest/gtest.h>

#include "support/proc_task_reader.h"

namespace pelmora {
namespace {

TargetProcess ownedBy(uint32_t real, uint32_t effective, uint32_t saved) {
  TargetProcess t;
  t.pid = 500;
  t.uid_real = real;
  t.uid_effective = effective;
  t.uid_saved = saved;
  t.ppid = 400;
  return t;
}

TEST(HelperPolicy, ProtectedTargets) {
  TargetProcess kthread = ownedBy(0, 0, 0);
  kthread.flags = kPFKthread;
  TargetProcess no_exe_child_of_kthreadd = ownedBy(0, 0, 0);
  no_exe_child_of_kthreadd.has_exe = false;
  no_exe_child_of_kthreadd.ppid = 2;
  TargetProcess no_exe_elsewhere = ownedBy(1000, 1000, 1000);  // e.g. a zombie: not a kernel thread
  no_exe_elsewhere.has_exe = false;
  TargetProcess ordinary = ownedBy(1000, 1000, 1000);
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
  for (const auto& c : cases) {
    auto why = protectedTarget(c.pid, 777, c.target);
    if (!c.reason) {
      EXPECT_FALSE(why) << c.name << ": " << why.value_or("");
    } else {
      ASSERT_TRUE(why) << c.name;
      EXPECT_NE(why->find(c.reason), std::string::npos) << c.name << ": " << *why;
    }
  }
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
    auto why = checkAccess(c.need, user, c.authorised, c.privileged, c.target);
    if (!c.refusal) {
      EXPECT_FALSE(why) << c.name << ": " << why.value_or("");
    } else {
      ASSERT_TRUE(why) << c.name;
      EXPECT_NE(why->find(c.refusal), std::string::npos) << c.name << ": " << *why;
    }
  }
}

}  // namespace
}  // namespace pelmora
