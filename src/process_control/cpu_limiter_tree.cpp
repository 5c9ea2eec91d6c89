// Limits that hold a process together with its descendants: membership from the parent links, one
// pass per tick; the group's summed processor time; every member stopped and continued together,
// each through the helper's pidfd-checked "kill".
#include <csignal>

#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/limiter_math.h"
#include "support/logger.h"

namespace pelmora {

std::optional<int32_t> CPULimiter::treeOfLocked(int32_t pid) const {
  for (const auto& [root, tree] : m_trees)
    if (tree.members.count(pid)) return root;
  return std::nullopt;
}

std::optional<int32_t> CPULimiter::treeOf(int32_t pid) {
  MutexLock lock(m_mutex);
  return treeOfLocked(pid);
}

std::map<int32_t, std::set<int32_t>> CPULimiter::trees() {
  MutexLock lock(m_mutex);
  std::map<int32_t, std::set<int32_t>> out;
  for (const auto& [root, tree] : m_trees)
    for (const auto& [pid, cpu_us] : tree.members) out[root].insert(pid);
  return out;
}

void CPULimiter::forgetMemberLocked(int32_t pid) {
  m_cpu_clocks.erase(pid);
  m_journal.forget(pid);
}

bool CPULimiter::signalLocked(int32_t pid, int signal) {
  auto tree = m_trees.find(pid);
  if (tree == m_trees.end()) return sendSignalLocked(pid, signal);
  // A member that cannot be signalled (gone, or out of our reach) leaves; the rest stay together.
  bool any = false;
  for (auto it = tree->second.members.begin(); it != tree->second.members.end();) {
    if (sendSignalLocked(it->first, signal)) {
      any = true;
      ++it;
    } else {
      forgetMemberLocked(it->first);
      if (it->first != pid) tree->second.refused.insert(it->first);
      it = tree->second.members.erase(it);
    }
  }
  return any;
}

void CPULimiter::startTreeLocked(int32_t root, pidInfo& record) {
  treeInfo tree;
  // Links kept from an earlier hold may belong to pids reused since: start from a fresh pass.
  m_process_tree = ProcessTree(m_root);
  m_process_tree.refresh();
  std::set<int32_t> found = treeMembers({root}, m_process_tree.links());
  found.insert(root);  // read even when the pass missed it: measuring it tells whether it is there
  for (const auto& [pid, link] : m_process_tree.links())
    tree.since_ticks = std::max(tree.since_ticks, link.start_ticks);
  int64_t total = 0;
  for (int32_t pid : found) {
    const auto cpu_us = measureCPU_us(pid);
    if (!cpu_us) continue;
    // A process already held, or heading a tree, inside this one is held by this one from now.
    if (pid != root && m_pids.count(pid)) {
      if (m_trees.count(pid)) endTreeLocked(pid);
      if (m_pids[pid].stopped) sendSignalLocked(pid, SIGCONT);
      m_pids.erase(pid);
      m_adjustments.erase(pid);
    }
    m_journal.hold(pid);
    tree.members[pid] = *cpu_us;
    total = checkedAdd(total, *cpu_us);
  }
  record.totalCPU = total;
  m_trees[root] = std::move(tree);
}

void CPULimiter::endTreeLocked(int32_t root) {
  auto tree = m_trees.find(root);
  if (tree == m_trees.end()) return;
  for (const auto& [pid, cpu_us] : tree->second.members) {
    if (pid == root) continue;
    sendSignalLocked(pid, SIGCONT);  // whether or not we think it is stopped
    forgetMemberLocked(pid);
  }
  m_trees.erase(tree);
}

std::map<int32_t, std::set<int32_t>> CPULimiter::growTreesLocked(std::set<int32_t>& released) {
  std::map<int32_t, std::set<int32_t>> found;
  if (m_trees.empty()) return found;
  if (!m_process_tree.refresh()) Log("The process folder could not be read; held trees keep their members.");
  for (const auto& [root, tree] : m_trees) {
    std::set<int32_t> known;
    for (const auto& [pid, cpu_us] : tree.members) known.insert(pid);
    found[root] = treeMembers(known, m_process_tree.links());
    for (int32_t pid : tree.refused) found[root].erase(pid);
  }
  // A tree found inside another (its first process forked by a member) folds into the outer one,
  // as does the single limit of a process that joins a tree.
  for (const auto& [root, members] : found) {
    for (int32_t pid : members) {
      if (pid == root || !m_pids.count(pid) || !m_trees.count(root)) continue;
      if (auto inner = m_trees.find(pid); inner != m_trees.end()) {
        for (const auto& [member, cpu_us] : inner->second.members) {
          m_journal.forget(member);
          if (m_pids[pid].stopped) released.insert(member);
        }
        m_trees.erase(inner);
      }
      if (m_pids[pid].stopped) released.insert(pid);
      m_journal.forget(pid);
      m_pids.erase(pid);
      m_adjustments.erase(pid);
    }
  }
  std::erase_if(found, [&](const auto& entry) { return !m_trees.count(entry.first); });
  return found;
}

std::optional<int64_t> CPULimiter::measureTreeLocked(int32_t root, const pidInfo& record,
                                                     const std::set<int32_t>& found,
                                                     const std::set<int32_t>& released) {
  treeInfo& tree = m_trees.at(root);
  std::map<int32_t, std::optional<int64_t>> now;
  std::set<int32_t> born;
  for (int32_t pid : found) {
    const bool joining = !tree.members.count(pid);
    if (joining) {
      const auto link = m_process_tree.link(pid);
      if (link && link->start_ticks >= tree.since_ticks) born.insert(pid);
      // Recorded before it is stopped, so that a crash of ours never leaves it stopped.
      m_journal.hold(pid);
      const bool took = record.stopped ? sendSignalLocked(pid, SIGSTOP)
                                       : !released.count(pid) || sendSignalLocked(pid, SIGCONT);
      if (!took) {
        tree.refused.insert(pid);
        m_journal.forget(pid);
        continue;
      }
      if (tree.nice) m_helper.setPriority(pid, *tree.nice);
    }
    now[pid] = measureCPU_us(pid);
  }
  const GroupTally tally = tallyGroup(tree.members, now, born);
  for (int32_t pid : tally.left) forgetMemberLocked(pid);
  for (const auto& [pid, cpu_us] : now)
    if (!cpu_us && !tree.members.count(pid)) m_journal.forget(pid);  // joined and left within the tick
  tree.members = tally.member_cpu_us;
  if (tree.members.empty()) {
    m_trees.erase(root);  // the group ends with its last member
    return std::nullopt;
  }
  return checkedAdd(record.totalCPU, tally.used_us);
}

}  // namespace pelmora
