#pragma once
// Facts about one process: its executable ("bundle") path, its current priority (nice value) and
// whether it is the frontmost application. Which window is in front is only known to the desktop
// application; it installs a provider, and until it does (or when the provider does not know) no
// process is frontmost.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "support/sys_root.h"

namespace pelmora {

// A /proc/PID/cmdline text as a person reads it: the NUL-separated arguments joined by blanks. A
// program that rewrote its arguments into one string (many daemons do) keeps its spaces. Pure.
std::string commandFromCmdline(std::string_view cmdline);

class PID {
 public:
  // Returns the process identifier of the frontmost application, or none when unknown.
  using FrontmostProvider = std::function<std::optional<int32_t>()>;
  static void setFrontmostProvider(FrontmostProvider provider);

  explicit PID(int32_t pid, const SysRoot& root = SysRoot::current());

  bool isFrontmost() const;
  // The executable's path; empty for kernel threads and processes we may not look at.
  std::string bundlePath() const;
  // The full command line; empty for kernel threads and processes that are gone.
  std::string commandLine() const;
  // The nice value (-20..19); none when the process cannot be read.
  std::optional<int> priority() const;

 private:
  int32_t m_pid;
  const SysRoot& m_root;
};

}  // namespace pelmora
