#pragma once
// A program of ours run as a child, with its standard output and error on one pipe that the test reads.
#include <fcntl.h>
#include <poll.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
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

// Reads until `until` has been seen (empty: until the end), for at most `limit`: a program that
// hangs fails its own test instead of holding the suite until ctest gives up. *ended (if given)
// says whether `until` was seen or the output ended before the limit.
inline std::string readUntil(int fd, const std::string& until = {},
                             std::chrono::milliseconds limit = std::chrono::seconds(60), bool* ended = nullptr) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::string out;
  bool done = false;
  while (!done && (until.empty() || out.find(until) == std::string::npos)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                            std::chrono::steady_clock::now());
    pollfd readable{fd, POLLIN, 0};
    const int ready = left.count() > 0 ? ::poll(&readable, 1, static_cast<int>(left.count())) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    char buffer[4096];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0)
      done = true;
    else
      out.append(buffer, static_cast<size_t>(n));
  }
  if (ended) *ended = done || (!until.empty() && out.find(until) != std::string::npos);
  return out;
}

}  // namespace pelmora::test
