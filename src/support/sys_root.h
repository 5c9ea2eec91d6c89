#pragma once
// Every read of /proc and /sys goes through a SysRoot, so each collector can be tested against a
// fixture tree. The two prefixes default to "/proc" and "/sys" and can be moved with the environment
// variables PELMORA_PROC_ROOT and PELMORA_SYS_ROOT.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora {

class SysRoot {
 public:
  SysRoot(std::string proc_root, std::string sys_root);
  // The roots of the environment (or /proc and /sys).
  static SysRoot fromEnvironment();
  // The process-wide root, taken from the environment on first use.
  static const SysRoot& current();

  const std::string& procRoot() const { return m_proc; }
  const std::string& sysRoot() const { return m_sys; }
  // Absolute paths: proc("stat") == "/proc/stat".
  std::string proc(std::string_view relative) const;
  std::string sys(std::string_view relative) const;

  std::optional<std::string> readProc(std::string_view relative) const { return readFile(proc(relative)); }
  std::optional<std::string> readSys(std::string_view relative) const { return readFile(sys(relative)); }
  // A sysfs attribute trimmed of white space; none when absent or unreadable.
  std::optional<std::string> readSysTrimmed(std::string_view relative) const;
  std::optional<int64_t> readSysInt(std::string_view relative) const;
  // Names in a directory, sorted; empty when it does not exist.
  std::vector<std::string> listProc(std::string_view relative) const { return listDir(proc(relative)); }
  std::vector<std::string> listSys(std::string_view relative) const { return listDir(sys(relative)); }
  bool existsSys(std::string_view relative) const;

  // Reads a whole file (sysfs and procfs report size 0, so this reads until EOF). At most max_bytes.
  static std::optional<std::string> readFile(const std::string& path, size_t max_bytes = 4 << 20);
  // The same for a file named relative to an open directory (openat).
  static std::optional<std::string> readFileAt(int dir_fd, const char* name, size_t max_bytes = 4 << 20);
  // A file the kernel makes whole in one go, such as /proc/PID/stat, statm, status or io (one record
  // of one seq_file show): a read that does not fill the buffer returned all of it, so the read that
  // would say EOF is skipped. Not for files of many records (/proc/net/*, maps), whose reads stop
  // short at the kernel's page, nor for pipes.
  static std::optional<std::string> readRecordAt(int dir_fd, const char* name);
  static std::vector<std::string> listDir(const std::string& path);

 private:
  std::string m_proc;
  std::string m_sys;
};

}  // namespace pelmora
