#include "support/thread_policy.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace pelmora {
namespace {

// glibc 2.36 has no wrapper for sched_setattr, nor this structure.
struct sched_attr_v1 {
  uint32_t size;
  uint32_t sched_policy;
  uint64_t sched_flags;
  int32_t sched_nice;
  uint32_t sched_priority;
  uint64_t sched_runtime;
  uint64_t sched_deadline;
  uint64_t sched_period;
};

constexpr uint32_t kSchedDeadline = 6;
constexpr uint64_t kRuntime_ns = 5'000'000;
constexpr uint64_t kDeadline_ns = 10'000'000;
constexpr uint64_t kPeriod_ns = 10'000'000;
constexpr int kUtilityNiceOffset = 5;

}  // namespace

bool applyQoSToCurrentThread(QoS qos) {
  const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  errno = 0;
  const int process_nice = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
  if (errno != 0) return false;
  switch (qos) {
    case QoS::userInteractive:
      return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), process_nice) == 0;
    case QoS::utility:
      return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), process_nice + kUtilityNiceOffset) == 0;
    case QoS::defaultQoS:
      return true;
  }
  return false;
}

bool makeCurrentThreadTimeConstraint() {
  sched_attr_v1 attr{};
  attr.size = sizeof attr;
  attr.sched_policy = kSchedDeadline;
  attr.sched_runtime = kRuntime_ns;
  attr.sched_deadline = kDeadline_ns;
  attr.sched_period = kPeriod_ns;
  return syscall(SYS_sched_setattr, 0, &attr, 0) == 0;
}

void nameCurrentThread(const std::string& label) {
  std::string name = label;
  const auto dot = name.rfind('.');
  if (dot != std::string::npos && dot + 1 < name.size()) name = "pelmora." + name.substr(dot + 1);
  if (name.size() > 15) name.resize(15);
  pthread_setname_np(pthread_self(), name.c_str());
}

void setCurrentThreadTimerSlack_ns(unsigned long slack_ns) { ::prctl(PR_SET_TIMERSLACK, slack_ns); }

}  // namespace pelmora
