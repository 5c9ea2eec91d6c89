#pragma once
// A program of ours run as a child, with its standard output and error on one pipe that the test reads.
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace pelmora::test {

// Starts argv[0] with `env` ("KEY=value") added, as `uid` unless it is 0; the read end of its output
// goes to *out. -1 when it could not be started.
inline pid_t spawnTool(const std::vector<std::string>& argv, const std::vector<std::string>& env, int* out,
                       uid_t uid = 0) {
  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(pipe_fds[1], 1);
    ::dup2(pipe_fds[1], 2);
    for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
    if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) ::_exit(125);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(126);
  }
  ::close(pipe_fds[1]);
  *out = pipe_fds[0];
  return child;
}

// Reads until `until` has been seen (empty: until the end).
inline std::string readUntil(int fd, const std::string& until = {}) {
  std::string out;
  char buffer[4096];
  ssize_t n;
  while ((until.empty() || out.find(until) == std::string::npos) && (n = ::read(fd, buffer, sizeof buffer)) > 0)
    out.append(buffer, static_cast<size_t>(n));
  return out;
}

}  // namespace pelmora::test
