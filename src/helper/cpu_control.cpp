#include "helper/cpu_control.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "support/text.h"

namespace pelmora {
namespace {

std::string cpuDir(int cpu) { return "devices/system/cpu/cpu" + std::to_string(cpu); }
constexpr const char* kSmtControl = "devices/system/cpu/smt/control";

}  // namespace

int writeSysAttribute(const std::string& path, const std::string& value) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return errno;
  ssize_t n;
  do {
    n = ::write(fd, value.data(), value.size());
  } while (n < 0 && errno == EINTR);
  const int error = n < 0 ? errno : (static_cast<size_t>(n) == value.size() ? 0 : EIO);
  ::close(fd);
  return error;
}

CpuControl::CpuControl(SysRoot root) : m_root(std::move(root)) {}

std::vector<int> CpuControl::presentCpus() {
  if (auto text = m_root.readSysTrimmed("devices/system/cpu/present")) {
    if (auto list = parseCpuList(*text)) return *list;
  }
  std::vector<int> cpus;
  for (const std::string& name : m_root.listSys("devices/system/cpu")) {
    if (!startsWith(name, "cpu")) continue;
    if (auto n = parseInt64(std::string_view(name).substr(3)); n && *n >= 0 && *n < 65536) {
      cpus.push_back(static_cast<int>(*n));
    }
  }
  std::sort(cpus.begin(), cpus.end());
  return cpus;
}

std::vector<CpuTopologyEntry> CpuControl::readTopology() {
  MutexLock lock(m_mutex);
  return readTopologyLocked();
}

std::vector<CpuTopologyEntry> CpuControl::readTopologyLocked() {
  std::vector<CpuTopologyEntry> out;
  for (int cpu : presentCpus()) {
    CpuTopologyEntry e;
    e.cpu = cpu;
    const std::string dir = cpuDir(cpu);
    auto online = m_root.readSysTrimmed(dir + "/online");
    e.hotpluggable = online.has_value();
    e.online = !online || *online != "0";
    auto core = m_root.readSysInt(dir + "/topology/core_id");
    if (core) {
      const int package = static_cast<int>(m_root.readSysInt(dir + "/topology/physical_package_id").value_or(0));
      const int die = static_cast<int>(m_root.readSysInt(dir + "/topology/die_id").value_or(0));
      m_known_cores[cpu] = {package, die, static_cast<int>(*core)};
    }
    if (auto it = m_known_cores.find(cpu); it != m_known_cores.end()) {
      std::tie(e.package, e.die, e.core) = it->second;
    }
    out.push_back(e);
  }
  return out;
}

std::optional<bool> CpuControl::isRunning(int cpu) {
  auto present = presentCpus();
  if (std::find(present.begin(), present.end(), cpu) == present.end()) return std::nullopt;
  auto online = m_root.readSysTrimmed(cpuDir(cpu) + "/online");
  return !online || *online != "0";
}

std::string CpuControl::writeAll(const std::vector<std::pair<std::string, std::string>>& writes,
                                 std::vector<Write>& done) {
  for (const auto& [relative, value] : writes) {
    const std::string old_value = m_root.readSysTrimmed(relative).value_or("");
    if (old_value == value) continue;
    if (int error = writeSysAttribute(m_root.sys(relative), value)) {
      return "could not write " + value + " to " + relative + ": " + std::strerror(error);
    }
    done.push_back({relative, old_value});
  }
  return {};
}

void CpuControl::rollback(std::vector<Write>& done) {
  for (auto it = done.rbegin(); it != done.rend(); ++it) writeSysAttribute(m_root.sys(it->relative), it->old_value);
  done.clear();
}

std::string CpuControl::setCpuCount(int count, bool hyper, bool prefer_physical) {
  MutexLock lock(m_mutex);
  const auto topology = readTopologyLocked();
  if (topology.empty()) return "no processors found";
  const auto chosen = chooseOnlineCpus(topology, count, hyper, prefer_physical);
  const std::set<int> keep(chosen.begin(), chosen.end());
  // CPUs come on before any goes off, so at no moment is the chosen set's last CPU alone in being
  // switched; `keep` is never empty, so the last online CPU is never switched off.
  std::vector<std::pair<std::string, std::string>> on, off;
  const auto smt = m_root.readSysTrimmed(kSmtControl);
  if (hyper && smt == "off") on.emplace_back(kSmtControl, "on");
  for (const auto& e : topology) {
    if (!e.hotpluggable) continue;
    (keep.count(e.cpu) ? on : off).emplace_back(cpuDir(e.cpu) + "/online", keep.count(e.cpu) ? "1" : "0");
  }
  std::vector<Write> done;
  std::string error = writeAll(on, done);
  if (error.empty()) error = writeAll(off, done);
  if (!error.empty()) {
    rollback(done);
    return error + " (nothing changed)";
  }
  // Locking the siblings out as well is a convenience where the kernel offers it; the CPUs are
  // already off, so a refusal here changes nothing.
  if (!hyper && smt == "on") writeSysAttribute(m_root.sys(kSmtControl), "off");
  return "OK";
}

}  // namespace pelmora
