#pragma once
// The root children the helper starts for its callers (the "powermetrics" frequency sampler, the
// "nettop" reader). RUNS AS ROOT in the daemon. Without a bound, any local user could make the
// daemon fork root processes at will, so:
//   - a connection has at most one child of each kind: a new request ends the previous one;
//   - one user has at most kMaxChildrenPerUser children, all users together kMaxChildren;
//   - a connection's long-running children (the "nettop" reader) end when the connection does; a
//     one-shot sampler ("powermetrics", at most 10 s) is left to deliver its lines through the
//     pipe it was given, and counts against its user until it exits.
// Children are tracked by pidfd: it cannot name a recycled pid, and it reads as ready once the child
// has exited, so an exited child stops counting without any word from whoever reaps it.
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "support/unique_fd.h"

namespace pelmora {

class Connection;

enum class ChildKind { kPowerMetrics, kNettop };

class ChildRegistry {
 public:
  static constexpr size_t kMaxChildren = 12;
  static constexpr size_t kMaxChildrenPerUser = 4;

  ChildRegistry() = default;
  ChildRegistry(const ChildRegistry&) = delete;
  ChildRegistry& operator=(const ChildRegistry&) = delete;

  // Room for one child, held from reserve() until the child is started (hold) or given up (the
  // slot's destructor), so that two connections racing for the last place cannot both have it.
  class Slot {
   public:
    Slot() = default;
    Slot(Slot&& other) noexcept;
    Slot& operator=(Slot&&) = delete;
    ~Slot();
    explicit operator bool() const { return m_registry != nullptr; }
    // The child now exists: from here on it counts until it exits. pidfd must refer to it.
    void hold(UniqueFd pidfd);

   private:
    friend class ChildRegistry;
    Slot(ChildRegistry* registry, uint64_t token) : m_registry(registry), m_token(token) {}
    ChildRegistry* m_registry = nullptr;
    uint64_t m_token = 0;
  };

  // Ends `owner`'s previous child of this kind (SIGKILL) and reserves room for the next one. An empty
  // slot, with the refusal in *refusal, when the caps are reached.
  Slot reserve(const Connection& owner, ChildKind kind, std::string* refusal);
  // Called when `owner`'s connection closes: ends its long-running children and lets its one-shot
  // ones finish (they still count until they exit).
  void endAll(const Connection& owner);
  // Whether children of this kind run until stopped, rather than ending by themselves.
  static bool runsUntilStopped(ChildKind kind) { return kind == ChildKind::kNettop; }
  // Children still running (and places reserved for children being started).
  size_t liveCount();

 private:
  struct Entry {
    const Connection* owner = nullptr;  // null once the connection has closed
    uid_t uid = 0;
    ChildKind kind = ChildKind::kPowerMetrics;
    uint64_t token = 0;
    UniqueFd pidfd;  // invalid while only reserved
  };
  void pruneExited();  // with m_mutex held
  void release(uint64_t token, UniqueFd pidfd, bool started);

  std::mutex m_mutex;
  std::vector<Entry> m_entries;
  uint64_t m_next_token = 1;
};

}  // namespace pelmora
