#include "helper/boot_installer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>
#include <system_error>
#include <tuple>
#include <vector>

#include "support/sys_root.h"

namespace fs = std::filesystem;

namespace pelmora {
namespace {

// Writes a complete file (content, mode, fsync) at `path`, which must not exist yet as anything but
// a leftover regular file. Empty, or the error text.
std::string writeStaged(const fs::path& temp, const std::string& content, mode_t mode) {
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
  if (error) {
    ::unlink(temp.c_str());
    return "could not write " + temp.string() + ": " + std::strerror(error);
  }
  return {};
}

// One file of an installation: staged beside its place first, so that nothing is replaced until
// every file has been written, and the file it replaced kept until the whole install has worked.
struct StagedFile {
  fs::path target;
  fs::path staged() const { return target.string() + ".new"; }
  fs::path previous() const { return target.string() + ".old"; }
  bool had_previous = false;
  bool placed = false;
};

// Puts the staged files in place, keeping what they replace as .old. On a failure every file placed
// so far is put back as it was. Empty, or the error text.
std::string placeAll(std::vector<StagedFile>& files) {
  for (StagedFile& f : files) {
    std::error_code ec;
    fs::remove(f.previous(), ec);
    f.had_previous = ::link(f.target.c_str(), f.previous().c_str()) == 0;
    if (::rename(f.staged().c_str(), f.target.c_str()) != 0) return "could not install " + f.target.string() + ": " + std::strerror(errno);
    f.placed = true;
  }
  return {};
}

void rollBack(std::vector<StagedFile>& files) {
  for (StagedFile& f : files) {
    std::error_code ec;
    fs::remove(f.staged(), ec);
    if (f.placed && f.had_previous) {
      ::rename(f.previous().c_str(), f.target.c_str());
    } else if (f.placed) {
      fs::remove(f.target, ec);
    }
    fs::remove(f.previous(), ec);
  }
}

void dropPrevious(const std::vector<StagedFile>& files) {
  for (const StagedFile& f : files) {
    std::error_code ec;
    fs::remove(f.previous(), ec);
  }
}

std::string removeIfPresent(const fs::path& path) {
  std::error_code ec;
  fs::remove(path, ec);
  return ec ? "could not remove " + path.string() + ": " + ec.message() : std::string();
}

// The folder install made goes with what it held, unless something not ours was put in it.
void removeIfEmpty(const fs::path& dir) {
  std::error_code ec;
  if (fs::is_empty(dir, ec)) fs::remove(dir, ec);
}

}  // namespace

bool validBootSettings(const std::string& settings) {
  // At least one processor stays on: "-n 0" would make the boot-time tool fail at every boot.
  static const std::regex form("(-h (on|off) )?(-p )?-t (on|off) -n [1-9][0-9]{0,3}");
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
    std::string content;
    fs::path to;
    mode_t mode;
  };
  std::vector<Copy> copies;
  for (const auto& [from, to, mode] : {std::tuple{r.script, m_paths.state_dir / "applyboot.sh", 0755},
                                       std::tuple{r.tool, m_paths.state_dir / "pelmora", 0755},
                                       std::tuple{r.unit, m_paths.unit_dir / kBootUnitName, 0644}}) {
    auto content = SysRoot::readFile(from, 64 << 20);
    if (!content) return "could not read " + from;
    copies.push_back({std::move(*content), to, static_cast<mode_t>(mode)});
  }
  copies.push_back({r.settings + "\n", m_paths.state_dir / "settings", 0644});
  // All or nothing: a failure at any step leaves the previous installation (or none) as it was.
  std::vector<StagedFile> files;
  for (const Copy& c : copies) files.push_back({c.to});
  std::string error;
  for (size_t i = 0; i < copies.size() && error.empty(); ++i) {
    error = writeStaged(files[i].staged(), copies[i].content, copies[i].mode);
  }
  if (error.empty()) error = placeAll(files);
  if (error.empty()) error = enable();
  if (!error.empty()) {
    rollBack(files);
    removeIfEmpty(m_paths.state_dir);  // a fresh install leaves no folder behind
    return error;
  }
  dropPrevious(files);
  return "OK";
}

std::string BootInstaller::enable() const {
  const fs::path link = m_paths.unit_dir / "multi-user.target.wants" / kBootUnitName;
  const fs::path staged = link.string() + ".new";
  std::error_code ec;
  fs::remove(staged, ec);
  fs::create_symlink(fs::path("..") / kBootUnitName, staged, ec);
  if (!ec) fs::rename(staged, link, ec);
  if (!ec) return {};
  fs::remove(staged, ec);
  return "could not enable " + std::string(kBootUnitName) + ": " + ec.message();
}

std::string BootInstaller::uninstall() const {
  std::string errors;
  for (const fs::path& p : {m_paths.unit_dir / "multi-user.target.wants" / kBootUnitName,
                            m_paths.unit_dir / kBootUnitName, m_paths.state_dir / "applyboot.sh",
                            m_paths.state_dir / "pelmora", m_paths.state_dir / "settings"}) {
    if (std::string error = removeIfPresent(p); !error.empty()) errors += (errors.empty() ? "" : "; ") + error;
  }
  removeIfEmpty(m_paths.state_dir);
  return errors.empty() ? "OK" : errors;
}

}  // namespace pelmora
