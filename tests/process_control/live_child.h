#pragma once
// For the live limiter tests: a busy child process to hold down, and a transport that counts the
// stop and continue signals the real in-process helper delivered.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>

#include "helper_link/in_process_transport.h"
#include "support/xpc_transport.h"

namespace pelmora::test {

[[noreturn]] inline void spinForever() {
  volatile uint64_t n = 0;
  for (;;) n = n + 1;
}

// Extra threads are only safe when the parent forks while running a single thread.
// The child dies with the test and holds none of its output: a test that ends early must neither
// leave a spinning orphan nor keep the runner waiting on a pipe the orphan still holds open.
inline pid_t busyChild(int threads = 1) {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(0);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    for (int i = 1; i < threads; ++i) std::thread(spinForever).detach();
    spinForever();
  }
  return pid;
}

class CountingTransport : public XPCTransport {
 public:
  std::atomic<int> stops{0}, continues{0};
  std::optional<XPCDict> exchange(const XPCDict& request) override {
    auto reply = m_real.exchange(request);
    if (request.count("kill") && reply && xpcInt(*reply, "kill") == 0) {
      const auto signal = xpcInt(request, "signal");
      stops += signal == SIGSTOP;
      continues += signal == SIGCONT;
    }
    return reply;
  }
  void sendOneWay(const XPCDict& message) override { m_real.sendOneWay(message); }

 private:
  InProcessTransport m_real;
};

}  // namespace pelmora::test
