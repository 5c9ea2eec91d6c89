#include "helper/grant_table.h"

#include "support/proc_task_reader.h"

namespace pelmora {

GrantTable::GrantTable()
    : GrantTable([](pid_t pid) -> uint64_t {
        auto stat = ProcTaskReader().readStat(pid);
        return stat ? stat->starttime_ticks : 0;
      }) {}

GrantTable::GrantTable(StartTicks start_ticks) : m_start_ticks(std::move(start_ticks)) {}

bool GrantTable::grant(const CallerIdentity& caller) {
  if (caller.start_ticks == 0) return false;
  MutexLock lock(m_mutex);
  pruneLocked();
  m_grants.emplace(caller.pid, caller.start_ticks);
  return true;
}

void GrantTable::revoke(const CallerIdentity& caller) {
  MutexLock lock(m_mutex);
  m_grants.erase({caller.pid, caller.start_ticks});
}

bool GrantTable::granted(const CallerIdentity& caller) const {
  MutexLock lock(m_mutex);
  return m_grants.contains({caller.pid, caller.start_ticks});
}

size_t GrantTable::size() const {
  MutexLock lock(m_mutex);
  return m_grants.size();
}

// Only when a grant is added: the table stays as small as the number of live authorised clients.
void GrantTable::pruneLocked() {
  std::erase_if(m_grants, [this](const auto& g) { return m_start_ticks(g.first) != g.second; });
}

}  // namespace pelmora
