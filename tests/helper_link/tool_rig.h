#pragma once
// The real pelmora tool and the real daemon as children of a test.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/tool_process.h"

namespace pelmora::test {

inline const std::string kTool = std::string(PELMORA_BINARY_DIR) + "/src/cli/pelmora";
inline const std::string kDaemon = std::string(PELMORA_BINARY_DIR) + "/src/helper/pelmora-helper";

struct ToolRun {
  int exit_code = -1;
  std::string output;  // standard output and error
};

// Runs the tool with `args` to its end, as `uid` unless that is 0. A run still going after a
// generous while is killed and fails with exit -1, so that a tool that hangs fails its own test
// rather than holding the whole suite until ctest gives up on it.
inline ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& env, uid_t uid = 0) {
  std::vector<std::string> argv = {kTool};
  argv.insert(argv.end(), args.begin(), args.end());
  int out = -1;
  const pid_t child = spawnTool(argv, env, &out, uid);
  ToolRun run;
  bool ended = false;
  run.output = readUntil(out, {}, std::chrono::seconds(60), &ended);
  if (!ended) {
    ::kill(child, SIGKILL);
    run.output += "\n[still running after 60 s: killed]";
  }
  ::close(out);
  int status = 0;
  ::waitpid(child, &status, 0);
  run.exit_code = ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// The daemon in the foreground on a socket of its own, until this goes.
class DaemonProcess {
 public:
  DaemonProcess(const std::string& socket, const std::vector<std::string>& env)
      : m_pid(spawnTool({kDaemon, "--foreground", "--socket", socket}, env, &m_out)),
        // It says so once its socket listens.
        m_ready(readUntil(m_out, "serving on").find("serving on") != std::string::npos) {}
  ~DaemonProcess() {
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
    ::close(m_out);
  }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;
  bool ready() const { return m_ready; }

 private:
  int m_out = -1;
  pid_t m_pid;
  bool m_ready;
};

}  // namespace pelmora::test
