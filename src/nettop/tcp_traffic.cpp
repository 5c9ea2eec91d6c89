#include "nettop/tcp_traffic.h"

#include <algorithm>

namespace pelmora {

TcpTraffic::TcpTraffic(std::optional<uint32_t> readable_uid) : m_readable_uid(readable_uid) {}

bool TcpTraffic::wanted(const TcpSocketRecord& socket) const {
  if (socket.inode == 0 || !socket.has_counts || m_ownerless.count(socket.inode)) return false;
  if (m_readable_uid && socket.uid != *m_readable_uid) return false;
  const auto it = m_sockets.find(socket.cookie);
  return it == m_sockets.end() || it->second.pid == 0;
}

void TcpTraffic::lookUpOwners(const std::vector<TcpSocketRecord>& sockets, const OwnerLookup& lookup) {
  std::set<uint64_t> inodes;
  for (const auto& s : sockets)
    if (wanted(s)) inodes.insert(s.inode);
  if (inodes.empty()) return;
  std::set<int32_t> likely;
  for (const auto& [pid, traffic] : m_processes) likely.insert(pid);
  const auto owners = lookup(inodes, likely);
  for (const auto& s : sockets) {
    if (!inodes.count(s.inode)) continue;
    const auto owner = owners.find(s.inode);
    if (owner == owners.end()) {
      m_ownerless.insert(s.inode);
      m_sockets.erase(s.cookie);
      continue;
    }
    // A socket seen before whose owner exited keeps its counts: only what it moves from now on
    // belongs to the new holder.
    auto [it, fresh] = m_sockets.try_emplace(s.cookie);
    it->second.pid = owner->second.pid;
    it->second.inode = s.inode;
    m_names[owner->second.pid] = owner->second.name;
  }
}

// Adds what the socket moved since it was last seen to its owner. Counters only grow while a
// socket lives; a smaller count (not seen from the kernel) is taken as no movement.
void TcpTraffic::charge(Tracked& tracked, const TcpSocketRecord& now) {
  if (tracked.pid != 0) {
    auto [it, fresh] = m_processes.try_emplace(tracked.pid);
    if (fresh || it->second.name.empty()) it->second.name = m_names.count(tracked.pid) ? m_names[tracked.pid] : "?";
    it->second.received_bytes += now.received_bytes - std::min(now.received_bytes, tracked.received_bytes);
    it->second.sent_bytes += now.sent_bytes - std::min(now.sent_bytes, tracked.sent_bytes);
  }
  tracked.received_bytes = std::max(tracked.received_bytes, now.received_bytes);
  tracked.sent_bytes = std::max(tracked.sent_bytes, now.sent_bytes);
  tracked.state = now.state;
}

void TcpTraffic::applyDump(const std::vector<TcpSocketRecord>& sockets, const OwnerLookup& lookup) {
  lookUpOwners(sockets, lookup);
  std::set<uint64_t> present_inodes;
  for (const auto& s : sockets) {
    present_inodes.insert(s.inode);
    auto it = m_sockets.find(s.cookie);
    if (it == m_sockets.end() || !s.has_counts) continue;
    charge(it->second, s);
    it->second.seen = true;
  }
  // Inodes are reused once their socket is gone: forget the misses of sockets no longer listed.
  std::erase_if(m_ownerless, [&](uint64_t inode) { return !present_inodes.count(inode); });
  m_names.clear();
}

void TcpTraffic::applyClosed(const TcpSocketRecord& socket) {
  auto it = m_sockets.find(socket.cookie);
  if (it == m_sockets.end() || !socket.has_counts) return;
  TcpSocketRecord last = socket;
  // The notification's state is always "closed"; whether the peer's FIN is inside the received count
  // shows in the state the socket had when it was last listed.
  if (peerFinCounted(it->second.state) && last.received_bytes > 0) --last.received_bytes;
  charge(it->second, last);
  m_sockets.erase(it);
}

void TcpTraffic::endRound() {
  std::erase_if(m_sockets, [](const auto& entry) { return !entry.second.seen; });
  for (auto& [cookie, tracked] : m_sockets) tracked.seen = false;
}

void TcpTraffic::forgetProcesses(const std::set<int32_t>& exited) {
  for (int32_t pid : exited) m_processes.erase(pid);
  for (auto& [cookie, tracked] : m_sockets)
    if (exited.count(tracked.pid)) tracked.pid = 0;
}

}  // namespace pelmora
