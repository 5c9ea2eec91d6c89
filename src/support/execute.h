#pragma once
// A child process whose standard output arrives in chunks on a reader thread of its own.
// The child is started with posix_spawn from the calling thread: a deadline-scheduled thread (the
// timers) may not fork, so start it from an ordinary thread (the main thread). terminate() sends
// SIGTERM to the child's process group, then SIGKILL if the child is still there after a grace
// period, and reaps it.
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/thread_policy.h"
#include "support/unique_fd.h"

namespace pelmora {

class Execute {
 public:
  // Called on the reader thread with each chunk of output, in order; never with an empty chunk.
  using Reader = std::function<void(std::string_view chunk)>;

  // Starts `path` with `args` (not including argv[0]) and the environment of this process plus
  // `env_overrides`. QoS utility lowers the child's priority. None (and a log line) on failure.
  static std::unique_ptr<Execute> readPipe(const std::string& path, QoS qos, const std::vector<std::string>& args,
                                           const std::map<std::string, std::string>& env_overrides,
                                           Reader reader);
  // Reads an output pipe whose writer is not our child (the daemon's tool, started for us): closing
  // the read end, as terminate() does, is how that tool learns to end. None without a descriptor.
  static std::unique_ptr<Execute> readFd(UniqueFd fd, Reader reader);
  ~Execute();
  Execute(const Execute&) = delete;
  Execute& operator=(const Execute&) = delete;

  // -1 for readFd().
  pid_t pid() const { return m_pid; }
  // Ends the child and waits for it and the reader. Safe to call more than once.
  void terminate();
  // True once the child's output has ended (it exited or closed its standard output).
  bool finished() const { return m_finished; }

 private:
  Execute(pid_t pid, int read_fd, Reader reader);
  void readLoop();

  pid_t m_pid;
  int m_read_fd;
  int m_wake_fd = -1;        // readable once terminate() wants the reader to stop
  int m_wake_write_fd = -1;
  Reader m_reader;
  std::atomic<bool> m_finished{false};
  bool m_reaped = false;
  std::thread m_thread;
};

}  // namespace pelmora
