#include "support/pidfd.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif
#ifndef SYS_pidfd_send_signal
#define SYS_pidfd_send_signal 424
#endif

namespace pelmora {

UniqueFd pidfdOpen(pid_t pid) {
  // pidfds are close-on-exec by default.
  return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)));
}

int pidfdSignal(int pidfd, int signal) {
  if (::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0u) == 0) return 0;
  return errno;
}

}  // namespace pelmora
