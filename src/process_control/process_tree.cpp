#include "process_control/process_tree.h"

#include <dirent.h>

#include <climits>
#include <cstdlib>
#include <vector>

#include "support/proc_pid_stat.h"

namespace pelmora {

std::set<int32_t> treeMembers(const std::set<int32_t>& members, const ProcessLinks& links) {
  std::multimap<int32_t, int32_t> children;
  for (const auto& [pid, link] : links) children.emplace(link.ppid, pid);
  std::set<int32_t> out;
  std::vector<int32_t> todo;
  for (int32_t pid : members)
    if (links.count(pid) && out.insert(pid).second) todo.push_back(pid);
  while (!todo.empty()) {
    const int32_t parent = todo.back();
    todo.pop_back();
    const auto [first, last] = children.equal_range(parent);
    for (auto it = first; it != last; ++it)
      if (out.insert(it->second).second) todo.push_back(it->second);
  }
  return out;
}

ProcessTree::ProcessTree(SysRoot root) : m_root(std::move(root)) {}

std::optional<ProcessLink> ProcessTree::read(int32_t pid) const {
  const auto text = m_root.readProc(std::to_string(pid) + "/stat");
  const auto stat = text ? parseProcPidStat(*text) : std::nullopt;
  if (!stat) return std::nullopt;
  return ProcessLink{stat->ppid, stat->starttime_ticks};
}

std::optional<ProcessLink> ProcessTree::link(int32_t pid) {
  if (auto it = m_links.find(pid); it != m_links.end()) return it->second;
  return read(pid);
}

bool ProcessTree::refresh() {
  // readdir rather than a sorted list of names: this runs at every limiter tick while a tree is held.
  DIR* dir = ::opendir(m_root.procRoot().c_str());
  if (!dir) return false;
  ProcessLinks next;
  while (const dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (*name < '1' || *name > '9') continue;
    char* end = nullptr;
    const long pid = std::strtol(name, &end, 10);
    if (*end != '\0' || pid <= 0 || pid > INT32_MAX) continue;
    const auto pid32 = static_cast<int32_t>(pid);
    if (auto old = m_links.find(pid32); old != m_links.end())
      next.insert(*old);
    else if (auto link = read(pid32))
      next.emplace(pid32, *link);
  }
  ::closedir(dir);
  m_links = std::move(next);
  return true;
}

}  // namespace pelmora
