#include "nettop/exit_watch.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "support/pidfd.h"

namespace pelmora {

void ExitWatch::watch(const std::set<pid_t>& pids) {
  std::erase_if(m_fds, [&](const auto& entry) { return !pids.count(entry.first); });
  for (pid_t pid : pids) {
    if (m_fds.count(pid)) continue;
    UniqueFd fd = pidfdOpen(pid);
    // Without pidfds (ENOSYS, before 5.3) a process counts as alive while kill(pid, 0) finds it.
    if (!fd && errno != ESRCH && (::kill(pid, 0) == 0 || errno == EPERM)) continue;
    m_fds.emplace(pid, std::move(fd));
  }
}

std::set<pid_t> ExitWatch::exited() {
  std::set<pid_t> gone;
  std::vector<pollfd> fds;
  std::vector<pid_t> pids;
  for (const auto& [pid, fd] : m_fds) {
    if (!fd) {
      gone.insert(pid);
      continue;
    }
    fds.push_back({fd.get(), POLLIN, 0});
    pids.push_back(pid);
  }
  if (!fds.empty() && ::poll(fds.data(), fds.size(), 0) > 0) {
    for (size_t i = 0; i < fds.size(); ++i)
      if (fds[i].revents) gone.insert(pids[i]);
  }
  for (pid_t pid : gone) m_fds.erase(pid);
  return gone;
}

}  // namespace pelmora
