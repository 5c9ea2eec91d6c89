#pragma once
// "setpriority" for a whole process. RUNS AS ROOT in the daemon. setpriority(PRIO_PROCESS) reaches
// one thread on Linux, and each thread keeps a nice value of its own, so a process's threads are
// reniced one by one, and each thread's own value decides whether the change lowers it (which takes
// administrator rights): checking only the main thread would let a user lower a worker thread.
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/sys_root.h"

namespace pelmora {

struct ThreadNice {
  pid_t tid = 0;
  int64_t nice = 0;
};

// Whether setting `nice` on these threads lowers any of them.
bool lowersAnyThread(const std::vector<ThreadNice>& threads, int64_t nice);

class ThreadRenicer {
 public:
  explicit ThreadRenicer(SysRoot root);
  // Every thread of the process with its nice value, from /proc/PID/task/TID/stat; empty when the
  // process is gone.
  std::vector<ThreadNice> threads(pid_t pid) const;
  // Sets `nice` on each of these threads. "OK", or the error of the first thread that refused;
  // a thread that exited meanwhile is no error.
  std::string renice(pid_t pid, const std::vector<ThreadNice>& threads, int nice) const;

 private:
  SysRoot m_root;
};

}  // namespace pelmora
