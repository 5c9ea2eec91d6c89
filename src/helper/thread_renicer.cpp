#include "helper/thread_renicer.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/proc_task_reader.h"
#include "support/text.h"

namespace pelmora {

bool lowersAnyThread(const std::vector<ThreadNice>& threads, int64_t nice) {
  return std::any_of(threads.begin(), threads.end(), [nice](const ThreadNice& t) { return nice < t.nice; });
}

ThreadRenicer::ThreadRenicer(SysRoot root) : m_root(std::move(root)) {}

std::vector<ThreadNice> ThreadRenicer::threads(pid_t pid) const {
  std::vector<ThreadNice> out;
  const std::string task = std::to_string(pid) + "/task/";
  for (const std::string& name : m_root.listProc(task)) {
    const auto tid = parseInt64(name);
    if (!tid || *tid <= 0 || *tid > INT32_MAX) continue;
    // A thread that exits between the listing and the read has nothing left to change.
    auto stat = parseProcPidStat(m_root.readProc(task + name + "/stat").value_or(""));
    if (stat) out.push_back({static_cast<pid_t>(*tid), stat->nice});
  }
  return out;
}

std::string ThreadRenicer::renice(pid_t pid, const std::vector<ThreadNice>& threads, int nice) const {
  for (const ThreadNice& t : threads) {
    if (::setpriority(PRIO_PROCESS, static_cast<id_t>(t.tid), nice) == 0 || errno == ESRCH) continue;
    return "could not renice process " + std::to_string(pid) + ": " + std::strerror(errno);
  }
  return "OK";
}

}  // namespace pelmora
