#include "helper/nettop_child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/child_process.h"
#include "support/pidfd.h"

extern char** environ;

namespace pelmora {
namespace {

// The tool reads the kernel once a second; it need not compete with what the user runs.
constexpr int kNice = 5;

NettopChild failed(int error, const std::string& what) {
  NettopChild child;
  child.error = error;
  child.error_text = what + ": " + std::strerror(error);
  return child;
}

}  // namespace

NettopChild startNettopChild(const std::string& program) {
  if (program.empty()) return failed(ENOENT, "pelmora-nettop");
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return failed(errno, "pipe");
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDOUT_FILENO);
  SpawnAttributes attr;
  char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, program.c_str(), &actions, attr.get(), argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return failed(rc, program);
  write_end.reset();
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(pid), kNice);
  NettopChild child;
  // Opened before the reaper starts, so the pid cannot have been recycled yet.
  child.pidfd = pidfdOpen(pid);
  if (!reapInBackground(pid)) {
    // No thread to spare: end it rather than leave a zombie nobody waits for.
    ::kill(pid, SIGKILL);
    reapNow(pid);
    return failed(EAGAIN, "reaper thread");
  }
  child.pid = pid;
  child.output = std::move(read_end);
  return child;
}

}  // namespace pelmora
