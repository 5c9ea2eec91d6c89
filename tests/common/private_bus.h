#pragma once
// A bus of the test's own: dbus-daemon with the session configuration (anyone may own any name),
// forked into the background and ended with the test. It stands in for the system bus as well.
#include <signal.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace pelmora::test {

class PrivateBus {
 public:
  PrivateBus() {
    FILE* out = ::popen("dbus-daemon --session --fork --print-address=1 --print-pid=1 2>/dev/null", "r");
    if (!out) return;
    char address[512] = {}, pid[32] = {};
    if (std::fgets(address, sizeof address, out) && std::fgets(pid, sizeof pid, out)) {
      m_address.assign(address, std::strcspn(address, "\n"));
      m_pid = static_cast<pid_t>(std::atol(pid));
    }
    ::pclose(out);
  }
  ~PrivateBus() {
    if (m_pid > 0) ::kill(m_pid, SIGTERM);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  bool running() const { return m_pid > 0 && !m_address.empty(); }
  const std::string& address() const { return m_address; }

 private:
  std::string m_address;
  pid_t m_pid = -1;
};

}  // namespace pelmora::test
