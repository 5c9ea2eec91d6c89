#pragma once
// What every program of ours that starts children needs (linked into the daemon, which runs as
// root): spawn attributes that give the child default signal dispositions and an empty mask,
// whatever the starting thread blocks or ignores, and reaping, so that no child lingers as a zombie.
#include <spawn.h>
#include <sys/types.h>

namespace pelmora {

class SpawnAttributes {
 public:
  // `extra_flags`: more POSIX_SPAWN_* flags (for example a process group of its own).
  explicit SpawnAttributes(short extra_flags = 0);
  ~SpawnAttributes();
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  posix_spawnattr_t* get() { return &m_attr; }

 private:
  posix_spawnattr_t m_attr;
};

// Waits for `pid` to exit, through interruptions.
void reapNow(pid_t pid);
// Waits for `pid` on a detached thread. False when no thread could be started: the caller then
// waits itself (after ending the child, when it may run for long).
bool reapInBackground(pid_t pid);

}  // namespace pelmora
