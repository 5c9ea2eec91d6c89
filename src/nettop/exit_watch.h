#pragma once
// Tells which of a set of processes have exited, through a pidfd per process: a pidfd becomes
// readable when its process exits, and it never refers to a later process that reuses the number.
// One poll() over all of them answers for the whole set.
#include <sys/types.h>

#include <map>
#include <set>

#include "support/unique_fd.h"

namespace pelmora {

class ExitWatch {
 public:
  // Keeps watching exactly `pids`: opens pidfds for new ones, closes those no longer asked for.
  // A process that is already gone is reported by the next exited().
  void watch(const std::set<pid_t>& pids);
  // The watched processes that have exited since watch(); they are no longer watched.
  std::set<pid_t> exited();

 private:
  std::map<pid_t, UniqueFd> m_fds;  // an invalid fd: pidfd_open failed because the process is gone
};

}  // namespace pelmora
