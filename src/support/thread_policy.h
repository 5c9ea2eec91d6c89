#pragma once
// Scheduling of our own threads. "Quality of service" maps to nice levels of the calling thread;
// time-constraint threads use SCHED_DEADLINE (runtime 5 ms within a 10 ms deadline and period).
// Without CAP_SYS_NICE the kernel refuses SCHED_DEADLINE with EPERM; callers ignore that.
// A deadline thread cannot fork and rejects sched_setaffinity: never fork from one.
#include <string>

namespace pelmora {

enum class QoS { userInteractive, utility, defaultQoS };

// Applies the QoS to the calling thread. Returns false when the kernel refused.
bool applyQoSToCurrentThread(QoS qos);
// Makes the calling thread a time-constraint (deadline) thread. Returns false when refused.
bool makeCurrentThreadTimeConstraint();
// How late the kernel may fire the calling thread's timers so it can fold wake-ups together
// (PR_SET_TIMERSLACK); 0 restores the default (50 µs). Real-time and deadline threads get none.
void setCurrentThreadTimerSlack_ns(unsigned long slack_ns);
// Names the calling thread after the tail of a label (the kernel keeps 15 characters).
void nameCurrentThread(const std::string& label);

}  // namespace pelmora
