#include "support/execute.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "support/child_process.h"
#include "support/logger.h"

extern char** environ;

namespace pelmora {
namespace {

constexpr int kUtilityNice = 5;
constexpr auto kGracePeriod = std::chrono::milliseconds(1000);

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& overrides) {
  std::vector<std::string> out;
  for (char** e = environ; e && *e; ++e) {
    std::string_view entry = *e;
    const auto eq = entry.find('=');
    if (eq != std::string_view::npos && overrides.count(std::string(entry.substr(0, eq)))) continue;
    out.emplace_back(entry);
  }
  for (const auto& [k, v] : overrides) out.push_back(k + "=" + v);
  return out;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

std::unique_ptr<Execute> Execute::readPipe(const std::string& path, QoS qos, const std::vector<std::string>& args,
                                           const std::map<std::string, std::string>& env_overrides, Reader reader) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    Log("Execute: cannot make a pipe for " + path + ": " + std::strerror(errno) + ".");
    return nullptr;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  // A process group of its own, so that terminate() also ends whatever the tool started.
  SpawnAttributes attr(POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(attr.get(), 0);

  std::vector<std::string> argv_s{path};
  argv_s.insert(argv_s.end(), args.begin(), args.end());
  auto env_s = mergedEnvironment(env_overrides);
  auto argv = pointers(argv_s);
  auto envp = pointers(env_s);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, path.c_str(), &actions, attr.get(), argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (rc != 0) {
    ::close(fds[0]);
    Log("Execute: cannot start " + path + ": " + std::strerror(rc) + ".");
    return nullptr;
  }
  if (qos == QoS::utility) setpriority(PRIO_PROCESS, static_cast<id_t>(pid), kUtilityNice);
  auto exe = std::unique_ptr<Execute>(new Execute(pid, fds[0], std::move(reader)));
  exe->m_thread = std::thread([raw = exe.get()] { raw->readLoop(); });
  return exe;
}

std::unique_ptr<Execute> Execute::readFd(UniqueFd fd, Reader reader) {
  if (!fd) return nullptr;
  auto exe = std::unique_ptr<Execute>(new Execute(-1, fd.release(), std::move(reader)));
  exe->m_thread = std::thread([raw = exe.get()] { raw->readLoop(); });
  return exe;
}

Execute::Execute(pid_t pid, int read_fd, Reader reader) : m_pid(pid), m_read_fd(read_fd), m_reader(std::move(reader)) {
  int wake[2];
  if (::pipe2(wake, O_CLOEXEC) == 0) {
    m_wake_fd = wake[0];
    m_wake_write_fd = wake[1];
  }
}

Execute::~Execute() { terminate(); }

void Execute::readLoop() {
  nameCurrentThread("net.tandrel.pelmora.execute");
  char buffer[16384];
  for (;;) {
    pollfd fds[2] = {{m_read_fd, POLLIN, 0}, {m_wake_fd, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents) break;  // terminate(): stop reading even if a grandchild holds the pipe
    const ssize_t n = ::read(m_read_fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (m_reader) m_reader(std::string_view(buffer, static_cast<size_t>(n)));
  }
  m_finished = true;
}

void Execute::terminate() {
  if (!m_reaped && m_pid > 0) {
    ::kill(-m_pid, SIGTERM);
    const auto until = std::chrono::steady_clock::now() + kGracePeriod;
    int status = 0;
    for (;;) {
      const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
      if (r == m_pid || (r < 0 && errno != EINTR)) break;
      if (std::chrono::steady_clock::now() > until) {
        ::kill(-m_pid, SIGKILL);
        while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        break;
      }
      ::poll(nullptr, 0, 5);
    }
    m_reaped = true;
    ::kill(-m_pid, SIGKILL);  // anything of the group still there
  }
  // The pipe may also be held by the child's own children; their output no longer matters.
  if (m_thread.joinable()) {
    const char byte = 1;
    while (::write(m_wake_write_fd, &byte, 1) < 0 && errno == EINTR) {
    }
    m_thread.join();
  }
  for (int* fd : {&m_read_fd, &m_wake_fd, &m_wake_write_fd}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

}  // namespace pelmora
