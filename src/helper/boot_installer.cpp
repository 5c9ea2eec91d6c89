#include "helper/boot_installer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>
#include <system_error>

#include "support/sys_root.h"

namespace fs = std::filesystem;

namespace pelmora {
namespace {

// Writes a file under a temporary name and renames it into place, so a crash leaves the old file
// or the new one, never half of one.
std::string writeAtomically(const fs::path& target, const std::string& content, mode_t mode) {
  const fs::path temp = target.string() + ".tmp";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode);
  if (fd < 0) return "could not create " + temp.string() + ": " + std::strerror(errno);
  size_t done = 0;
  int error = 0;
  while (done < content.size()) {
    const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = errno;
      break;
    }
    done += static_cast<size_t>(n);
  }
  if (!error && (::fchmod(fd, mode) != 0 || ::fsync(fd) != 0)) error = errno;
  ::close(fd);
  if (!error && ::rename(temp.c_str(), target.c_str()) != 0) error = errno;
  if (error) {
    ::unlink(temp.c_str());
    return "could not write " + target.string() + ": " + std::strerror(error);
  }
  return {};
}

std::string removeIfPresent(const fs::path& path) {
  std::error_code ec;
  fs::remove(path, ec);
  return ec ? "could not remove " + path.string() + ": " + ec.message() : std::string();
}

}  // namespace

bool validBootSettings(const std::string& settings) {
  static const std::regex form("(-h (on|off) )?(-p )?-t (on|off) -n [0-9]{1,4}");
  return std::regex_match(settings, form);
}

BootInstaller::BootInstaller(BootPaths paths) : m_paths(std::move(paths)) {}

std::string BootInstaller::checkSource(const std::string& path, const std::string& expected_name) const {
  const fs::path p(path);
  if (!p.is_absolute() || p.lexically_normal() != p) return path + " is not a plain absolute path";
  if (p.filename() != expected_name) return path + " is not " + expected_name;
  if (p.parent_path() != m_paths.source_dir) return path + " is not in " + m_paths.source_dir.string();
  struct stat st{};
  // A folder others can write to would let them swap a file between this check and the copy.
  if (::stat(m_paths.source_dir.c_str(), &st) != 0 || st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH))) {
    return m_paths.source_dir.string() + " is not a root-owned folder that only root can write";
  }
  if (::lstat(path.c_str(), &st) != 0) return path + ": " + std::strerror(errno);
  if (!S_ISREG(st.st_mode)) return path + " is not a regular file";
  if (st.st_uid != 0) return path + " is not owned by root";
  if (st.st_mode & (S_IWGRP | S_IWOTH)) return path + " is writable by others";
  return {};
}

std::string BootInstaller::install(const BootRequest& r) const {
  if (!validBootSettings(r.settings)) return "malformed settings text";
  for (const auto& [path, name] : {std::pair{r.script, "applyboot.sh"}, std::pair{r.tool, "pelmora"},
                                   std::pair{r.unit, kBootUnitName}}) {
    if (std::string why = checkSource(path, name); !why.empty()) return why;
  }
  std::error_code ec;
  fs::create_directories(m_paths.state_dir, ec);
  if (ec) return "could not create " + m_paths.state_dir.string() + ": " + ec.message();
  fs::create_directories(m_paths.unit_dir / "multi-user.target.wants", ec);
  if (ec) return "could not create " + m_paths.unit_dir.string() + ": " + ec.message();
  struct Copy {
    std::string from;
    fs::path to;
    mode_t mode;
  };
  for (const Copy& c : {Copy{r.script, m_paths.state_dir / "applyboot.sh", 0755},
                        Copy{r.tool, m_paths.state_dir / "pelmora", 0755},
                        Copy{r.unit, m_paths.unit_dir / kBootUnitName, 0644}}) {
    auto content = SysRoot::readFile(c.from, 64 << 20);
    if (!content) return "could not read " + c.from;
    if (std::string error = writeAtomically(c.to, *content, c.mode); !error.empty()) return error;
  }
  if (std::string error = writeAtomically(m_paths.state_dir / "settings", r.settings + "\n", 0644); !error.empty()) {
    return error;
  }
  const fs::path link = m_paths.unit_dir / "multi-user.target.wants" / kBootUnitName;
  fs::remove(link, ec);
  fs::create_symlink(fs::path("..") / kBootUnitName, link, ec);
  if (ec) return "could not enable " + std::string(kBootUnitName) + ": " + ec.message();
  return "OK";
}

std::string BootInstaller::uninstall() const {
  std::string errors;
  for (const fs::path& p : {m_paths.unit_dir / "multi-user.target.wants" / kBootUnitName,
                            m_paths.unit_dir / kBootUnitName, m_paths.state_dir / "applyboot.sh",
                            m_paths.state_dir / "pelmora", m_paths.state_dir / "settings"}) {
    if (std::string error = removeIfPresent(p); !error.empty()) errors += (errors.empty() ? "" : "; ") + error;
  }
  return errors.empty() ? "OK" : errors;
}

}  // namespace pelmora
