#pragma once
// polkit's text authentication agent (pkttyagent) for this process, started as pkexec and systemctl
// start it: when the daemon asks polkit whether we may administer Pelmora and polkit wants a
// password, the agent asks for it on our terminal. Registered for this process only, so it never
// answers for anyone else.
#include <sys/types.h>

namespace pelmora::cli {

class TtyAgent {
 public:
  TtyAgent() = default;
  TtyAgent(const TtyAgent&) = delete;
  TtyAgent& operator=(const TtyAgent&) = delete;
  // Stops the agent.
  ~TtyAgent();

  // Starts pkttyagent for this process when standard input is a terminal and the agent is
  // installed, and waits until it has registered with polkit. False when nobody can be asked.
  bool start();

 private:
  pid_t m_pid = -1;
};

}  // namespace pelmora::cli
