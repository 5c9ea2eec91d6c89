#pragma once
// The child behind the "nettop" request: pelmora-nettop started as root, so that it sees every
// process's sockets, writing to a pipe whose read end goes back to the caller. RUNS AS ROOT in the
// helper daemon; only authorised connections get here. The tool ends by itself as soon as the
// caller closes the read end; the daemon ends it when the caller's connection closes or a new
// "nettop" request from that connection replaces it (ChildRegistry), and the kernel ends it with
// the daemon (its death signal).
#include <sys/types.h>

#include <string>

#include "support/unique_fd.h"

namespace pelmora {

struct NettopChild {
  pid_t pid = -1;
  UniqueFd pidfd;   // the child, for the registry's count
  UniqueFd output;  // read end of its standard output
  int error = 0;    // errno value when it could not be started
  std::string error_text;
};

// Starts `program` (pelmora-nettop) with its output on a new pipe, standard input on /dev/null and
// default signal handling. A thread of our own waits for exactly that child, so it never lingers as
// a zombie and no other child's status is taken.
NettopChild startNettopChild(const std::string& program);

}  // namespace pelmora
