#include "helper/child_registry.h"

#include <poll.h>

#include <algorithm>
#include <csignal>

#include "helper/connection.h"
#include "support/pidfd.h"

namespace pelmora {

namespace {
// A pidfd polls readable once its process has exited.
bool exited(const UniqueFd& pidfd) {
  pollfd p{pidfd.get(), POLLIN, 0};
  return ::poll(&p, 1, 0) == 1;
}
}  // namespace

ChildRegistry::Slot::Slot(Slot&& other) noexcept : m_registry(other.m_registry), m_token(other.m_token) {
  other.m_registry = nullptr;
}

ChildRegistry::Slot::~Slot() {
  if (m_registry) m_registry->release(m_token, UniqueFd(), false);
}

void ChildRegistry::Slot::hold(UniqueFd pidfd) {
  if (!m_registry) return;
  m_registry->release(m_token, std::move(pidfd), true);
  m_registry = nullptr;
}

void ChildRegistry::pruneExited() {
  std::erase_if(m_entries, [](const Entry& e) { return e.pidfd && exited(e.pidfd); });
}

ChildRegistry::Slot ChildRegistry::reserve(const Connection& owner, ChildKind kind, std::string* refusal) {
  std::lock_guard lock(m_mutex);
  pruneExited();
  std::erase_if(m_entries, [&](const Entry& e) {
    const bool previous = e.owner == &owner && e.kind == kind;
    if (previous && e.pidfd) pidfdSignal(e.pidfd.get(), SIGKILL);
    return previous;
  });
  const uid_t uid = owner.caller().uid;
  const auto same_user = std::count_if(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.uid == uid; });
  if (m_entries.size() >= kMaxChildren || static_cast<size_t>(same_user) >= kMaxChildrenPerUser) {
    *refusal = "too many helper tools are running; try again when one has finished";
    return {};
  }
  const uint64_t token = m_next_token++;
  m_entries.push_back(Entry{&owner, uid, kind, token, UniqueFd()});
  return Slot(this, token);
}

void ChildRegistry::release(uint64_t token, UniqueFd pidfd, bool started) {
  std::lock_guard lock(m_mutex);
  auto it = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.token == token; });
  if (it == m_entries.end()) {
    // The connection ended (or replaced this request) while the child was being started.
    if (started && pidfd) pidfdSignal(pidfd.get(), SIGKILL);
    return;
  }
  if (started && pidfd) {
    it->pidfd = std::move(pidfd);
  } else {
    m_entries.erase(it);
  }
}

void ChildRegistry::endAll(const Connection& owner) {
  std::lock_guard lock(m_mutex);
  std::erase_if(m_entries, [&](Entry& e) {
    if (e.owner != &owner) return false;
    e.owner = nullptr;  // the address may be reused by a later connection
    if (!runsUntilStopped(e.kind)) return false;
    if (e.pidfd) pidfdSignal(e.pidfd.get(), SIGKILL);
    return true;
  });
}

size_t ChildRegistry::liveCount() {
  std::lock_guard lock(m_mutex);
  pruneExited();
  return m_entries.size();
}

}  // namespace pelmora
