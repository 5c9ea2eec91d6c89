#include "support/child_process.h"

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace pelmora {

SpawnAttributes::SpawnAttributes(short extra_flags) {
  posix_spawnattr_init(&m_attr);
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&m_attr, &all);
  posix_spawnattr_setsigmask(&m_attr, &none);
  posix_spawnattr_setflags(&m_attr, static_cast<short>(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | extra_flags));
}

SpawnAttributes::~SpawnAttributes() { posix_spawnattr_destroy(&m_attr); }

void reapNow(pid_t pid) {
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

bool reapInBackground(pid_t pid) {
  try {
    std::thread([pid] { reapNow(pid); }).detach();
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace pelmora
