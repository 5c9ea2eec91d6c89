#include "support/sys_root.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "support/text.h"

namespace pelmora {

SysRoot::SysRoot(std::string proc_root, std::string sys_root)
    : m_proc(std::move(proc_root)), m_sys(std::move(sys_root)) {}

SysRoot SysRoot::fromEnvironment() {
  const char* proc = std::getenv("PELMORA_PROC_ROOT");
  const char* sys = std::getenv("PELMORA_SYS_ROOT");
  return SysRoot((proc && *proc) ? proc : "/proc", (sys && *sys) ? sys : "/sys");
}

const SysRoot& SysRoot::current() {
  static const SysRoot root = fromEnvironment();
  return root;
}

static std::string join(const std::string& root, std::string_view relative) {
  std::string out = root;
  if (!relative.empty() && relative.front() != '/') out += '/';
  out += relative;
  return out;
}

std::string SysRoot::proc(std::string_view relative) const { return join(m_proc, relative); }
std::string SysRoot::sys(std::string_view relative) const { return join(m_sys, relative); }

std::optional<std::string> SysRoot::readSysTrimmed(std::string_view relative) const {
  auto text = readSys(relative);
  if (!text) return std::nullopt;
  return std::string(trim(*text));
}

std::optional<int64_t> SysRoot::readSysInt(std::string_view relative) const {
  auto text = readSysTrimmed(relative);
  if (!text) return std::nullopt;
  return parseInt64(*text);
}

bool SysRoot::existsSys(std::string_view relative) const {
  struct stat st{};
  return ::stat(sys(relative).c_str(), &st) == 0;
}

std::optional<std::string> SysRoot::readFile(const std::string& path, size_t max_bytes) {
  return readFileAt(AT_FDCWD, path.c_str(), max_bytes);
}

std::optional<std::string> SysRoot::readFileAt(int dir_fd, const char* name, size_t max_bytes) {
  const int fd = ::openat(dir_fd, name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string out;
  char buffer[8192];
  while (out.size() < max_bytes) {
    const ssize_t n = ::read(fd, buffer, std::min(sizeof buffer, max_bytes - out.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return out;
}

std::optional<std::string> SysRoot::readRecordAt(int dir_fd, const char* name) {
  const int fd = ::openat(dir_fd, name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buffer[4096];
  ssize_t n;
  do {
    n = ::read(fd, buffer, sizeof buffer);
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  if (n < 0) return std::nullopt;
  if (static_cast<size_t>(n) < sizeof buffer) return std::string(buffer, static_cast<size_t>(n));
  // Longer than one buffer (a status with very long group lists): read it again whole.
  return readFileAt(dir_fd, name);
}

std::vector<std::string> SysRoot::listDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return names;
  while (dirent* entry = ::readdir(dir)) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.emplace_back(name);
  }
  ::closedir(dir);
  // card2 before card10, hwmon9 before hwmon10, and process 99 before 100.
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) { return naturalLess(a, b); });
  return names;
}

}  // namespace pelmora
