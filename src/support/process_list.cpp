#include "support/process_list.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "support/proc_pid_stat.h"
#include "support/text.h"

namespace pelmora {
namespace {

std::string hostMachine() {
  utsname u{};
  if (uname(&u) != 0) return {};
  return u.machine;
}

std::optional<std::string> readLink(const std::string& path) {
  std::array<char, 4096> buffer{};
  const ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size() - 1);
  if (n < 0) return std::nullopt;
  return std::string(buffer.data(), static_cast<size_t>(n));
}

std::string baseName(std::string_view path) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() && path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  const auto slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::optional<std::string> readHeader(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::array<char, 64> buffer{};
  const ssize_t n = ::read(fd, buffer.data(), buffer.size());
  ::close(fd);
  if (n <= 0) return std::nullopt;
  return std::string(buffer.data(), static_cast<size_t>(n));
}

}  // namespace

std::optional<std::string> elfMachineName(std::string_view h) {
  if (h.size() < 20 || h.substr(0, 4) != "\x7f" "ELF") return std::nullopt;
  const bool is64 = h[4] == 2;
  const bool big_endian = h[5] == 2;
  const auto b0 = static_cast<uint8_t>(h[18]), b1 = static_cast<uint8_t>(h[19]);
  const unsigned machine = big_endian ? (b0 << 8 | b1) : (b1 << 8 | b0);
  switch (machine) {
    case 3: return "i386";
    case 8: return is64 ? "mips64" : "mips";
    case 20: return "ppc";
    case 21: return big_endian ? "ppc64" : "ppc64le";
    case 22: return "s390x";
    case 40: return "arm";
    case 62: return is64 ? "x86_64" : "x32";
    case 183: return "aarch64";
    case 243: return is64 ? "riscv64" : "riscv32";
    case 258: return "loongarch64";
    default: return "elf-" + std::to_string(machine);
  }
}

bool isEmulatorName(std::string_view name) {
  return startsWith(name, "qemu-") || name == "box64" || name == "box86" || name == "FEXInterpreter" ||
         name == "FEXLoader";
}

bool isNativeKind(std::string_view kind, std::string_view host) {
  if (kind.empty() || kind == "kernel" || kind == host) return true;
  // The 64-bit kernels run their 32-bit siblings natively.
  if (host == "x86_64") return kind == "i386" || kind == "x32";
  if (host == "aarch64") return kind == "arm";
  if (host == "ppc64le" || host == "ppc64") return kind == "ppc";
  return false;
}

ProcessList::ProcessList(SysRoot root) : m_root(std::move(root)), m_host(hostMachine()) {}

bool ProcessList::iterate(const std::function<void(int32_t pid)>& fn) {
  const auto names = m_root.listProc("");
  if (names.empty()) return false;
  m_translated = 0;
  m_kinds.clear();
  for (const auto& name : names) {
    const auto pid = parseInt64(name);
    if (!pid || *pid < 0 || *pid > INT32_MAX) continue;
    const auto p = static_cast<int32_t>(*pid);
    if (auto exe = examine(p)) {
      m_kinds[p] = exe->kind;
      if (exe->translated) ++m_translated;
    }
    fn(p);
  }
  return true;
}

std::string ProcessList::kind(int32_t pid) {
  if (auto it = m_kinds.find(pid); it != m_kinds.end()) return it->second;
  auto exe = examine(pid);
  return exe ? exe->kind : std::string();
}

std::optional<ProcessList::Exe> ProcessList::examine(int32_t pid) {
  const std::string dir = std::to_string(pid);
  const std::string link = m_root.proc(dir + "/exe");
  if (auto target = readLink(link)) return exeFacts(link, *target);
  // No executable: a kernel thread (ENOENT) or one we may not look at (EACCES); stat tells which.
  const auto stat = m_root.readProc(dir + "/stat");
  if (!stat) return std::nullopt;  // gone
  const auto fields = parseProcPidStat(*stat);
  if (fields && (fields->flags & kPFKthread)) return Exe{"kernel", false};
  return Exe{"", false};
}

ProcessList::Exe ProcessList::exeFacts(const std::string& link_path, const std::string& target) {
  if (auto it = m_exe_cache.find(target); it != m_exe_cache.end()) return it->second;
  Exe exe;
  // Read through the link: it reaches the process's own executable even when the path was replaced.
  if (auto header = readHeader(link_path)) exe.kind = elfMachineName(*header).value_or("");
  exe.translated = isEmulatorName(baseName(target)) || !isNativeKind(exe.kind, m_host);
  if (!exe.kind.empty()) m_exe_cache.emplace(target, exe);
  return exe;
}

}  // namespace pelmora
