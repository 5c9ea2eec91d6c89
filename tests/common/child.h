#pragma once
// Real child processes for the live tests, and their state as the kernel reports it (read here,
// never through the parsers under test).
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "common/eventually.h"

namespace pelmora::test {

[[noreturn]] inline void spinForever() {
  volatile uint64_t n = 0;
  for (;;) n = n + 1;
}

// A forked child running `body` (then exiting). It dies with the test, and holds none of its
// output when `quiet`: a test that ends early must neither leave an orphan running nor keep the
// runner waiting on a pipe the orphan still holds open. Extra threads in the child are only safe
// when the parent forks while running a single thread.
inline pid_t forkChild(const std::function<void()>& body, bool quiet = true) {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(0);
    if (quiet) {
      const int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
    }
    body();
    ::_exit(0);
  }
  return pid;
}

// A child spinning on `threads` processors until killed.
inline pid_t busyChild(int threads = 1) {
  return forkChild([threads] {
    for (int i = 1; i < threads; ++i) std::thread(spinForever).detach();
    spinForever();
  });
}

// Continued first, so that nothing is ever left stopped, then killed and reaped.
inline void endChild(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGCONT);
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

// A child that is ended when it goes out of scope.
class Child {
 public:
  explicit Child(const std::function<void()>& body, bool quiet = true) : m_pid(forkChild(body, quiet)) {}
  static Child busy(int threads = 1) { return Child(busyChild(threads)); }
  ~Child() { endChild(m_pid); }
  Child(Child&& other) noexcept : m_pid(other.m_pid) { other.m_pid = -1; }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  Child& operator=(Child&&) = delete;
  pid_t pid() const { return m_pid; }

 private:
  explicit Child(pid_t pid) : m_pid(pid) {}
  pid_t m_pid = -1;
};

// The one-letter state in /proc/PID/stat ('T' stopped, 'Z' zombie, '?' gone).
inline char procState(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  const std::string stat(std::istreambuf_iterator<char>(in), {});
  const auto close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() ? stat[close + 2] : '?';
}

// In a forked child that is still root: back to nice 0 whatever the runner's nice, so that what
// counts as raising or lowering a child's priority does not depend on how the tests were started
// (a runner at nice 19 makes every child 19, and then no renice raises it).
inline void startAtNiceZero() { ::setpriority(PRIO_PROCESS, 0, 0); }

// A child that sleeps until it is ended, as `uid` unless that is 0; returned once it sleeps.
inline Child sleepingChild(uid_t uid = 0) {
  Child child([uid] {
    startAtNiceZero();
    if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) ::_exit(1);
    for (;;) ::pause();
  });
  eventually([&] { return procState(child.pid()) == 'S'; });
  return child;
}

// The children of every thread of `pid`, from /proc/PID/task/TID/children.
inline std::vector<pid_t> childrenOf(pid_t pid) {
  std::vector<pid_t> out;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    std::ifstream in(task.path() / "children");
    for (pid_t child; in >> child;) out.push_back(child);
  }
  return out;
}

}  // namespace pelmora::test
