#pragma once
// The CPULimiter of a CLI command: the shared helper client (daemon, or in-process with the user's
// rights), the real /proc, and a settings store of its own that lives in memory only, so that a
// command-line run neither applies nor changes the desktop's saved limits and priorities, and
// leaves no file anywhere (whatever TMPDIR says, and however it ends). Creating it continues
// whatever a previous run that died left stopped.
#include <filesystem>
#include <memory>

#include "process_control/cpu_limiter.h"
#include "support/default_settings.h"

namespace pelmora::cli {

class CliLimiter {
 public:
  // `pid_control`: steer the budget with the full PID law instead of the proportional one.
  // `process_table`: false for a command that only limits (no table refresh, no network tool).
  explicit CliLimiter(bool pid_control = false, bool process_table = true);
  ~CliLimiter();
  CPULimiter& operator*() { return *m_limiter; }
  CPULimiter* operator->() { return m_limiter.get(); }

 private:
  std::unique_ptr<DefaultSettings> m_settings;
  std::unique_ptr<CPULimiter> m_limiter;
};

}  // namespace pelmora::cli
