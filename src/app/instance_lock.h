#pragma once
// One running pelmora-app per user. The first instance holds a lock and listens on a socket; a
// second start finds the lock taken, asks the first to bring its windows forward, and exits.
//
// Both live in $XDG_RUNTIME_DIR, which only its user can enter (0700), so no other user can take
// the name first and keep a user's application from starting. The lock is an flock, which the
// kernel drops with the process, so a crashed run never blocks the next start. Without a private
// runtime folder the name is an abstract socket, trusted only when its holder is the same user
// (SO_PEERCRED); held by anyone else, the application starts without the check.
#include <string>

#include "support/unique_fd.h"

namespace pelmora {

class InstanceLock {
 public:
  enum class Outcome {
    kFirst,         // this is the instance: listenFd() receives the later starts' requests
    kOtherRunning,  // another instance of ours runs and was asked to show itself
    kUnchecked,     // no trustworthy name could be had: run without the check
  };

  // runtime_dir: $XDG_RUNTIME_DIR, or empty when it is not set.
  static InstanceLock claim(const std::string& runtime_dir);

  Outcome outcome() const { return m_outcome; }
  // Readable when a later start asks us to show ourselves; accept and close each such connection.
  int listenFd() const { return m_listen.get(); }

 private:
  static InstanceLock claimInRuntimeDir(const std::string& dir);
  static InstanceLock claimAbstract();

  Outcome m_outcome = Outcome::kUnchecked;
  UniqueFd m_lock;
  UniqueFd m_listen;
};

// Whether dir is a folder of ours that no one else may enter (owner us, no group or other bits).
bool isPrivateRuntimeDir(const std::string& dir);

}  // namespace pelmora
