#pragma once
// Process file descriptors: a signal sent through one reaches the process it was opened for, never
// a later process that happens to get the same pid. glibc 2.36 has wrappers; the raw system calls
// are used so that older C libraries build too.
#include <sys/types.h>

#include "support/unique_fd.h"

namespace pelmora {

// Invalid (errno set) when the process does not exist.
UniqueFd pidfdOpen(pid_t pid);
// 0 on success, else the errno value.
int pidfdSignal(int pidfd, int signal);

}  // namespace pelmora
