#pragma once
// The administrator grants the daemon holds: one per client process, named by its pid and start time,
// so every connection of that process is authorised once "authorize" succeeded on any of them, until
// "deauthorize" or until the process ends (a recycled pid has another start time and matches nothing).
// Shared by every connection thread. Runs as root in the daemon.
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>
#include <utility>

#include "helper/connection.h"
#include "support/mutex.h"

namespace pelmora {

class GrantTable {
 public:
  // start_ticks(pid): the start time of the process now holding pid, 0 when there is none. Used to
  // forget the grants of processes that ended.
  using StartTicks = std::function<uint64_t(pid_t)>;
  GrantTable();
  explicit GrantTable(StartTicks start_ticks);

  // False, and nothing held, for a caller whose start time is unknown: its pid alone could be recycled.
  bool grant(const CallerIdentity& caller);
  void revoke(const CallerIdentity& caller);
  bool granted(const CallerIdentity& caller) const;
  size_t size() const;

 private:
  void pruneLocked();

  StartTicks m_start_ticks;
  mutable Mutex m_mutex;  // guards m_grants
  std::set<std::pair<pid_t, uint64_t>> m_grants;
};

}  // namespace pelmora
