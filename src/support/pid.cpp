#include "support/pid.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "support/mutex.h"
#include "support/proc_pid_stat.h"
#include "support/text.h"

namespace pelmora {
namespace {

struct ProviderSlot {
  Mutex mutex;
  PID::FrontmostProvider provider;
};

ProviderSlot& slot() {
  static ProviderSlot* s = new ProviderSlot();
  return *s;
}

}  // namespace

void PID::setFrontmostProvider(FrontmostProvider provider) {
  MutexLock lock(slot().mutex);
  slot().provider = std::move(provider);
}

PID::PID(int32_t pid, const SysRoot& root) : m_pid(pid), m_root(root) {}

bool PID::isFrontmost() const {
  FrontmostProvider provider;
  {
    MutexLock lock(slot().mutex);
    provider = slot().provider;
  }
  if (!provider) return false;
  const auto front = provider();
  return front && *front == m_pid;
}

std::string commandFromCmdline(std::string_view cmdline) {
  while (!cmdline.empty() && cmdline.back() == '\0') cmdline.remove_suffix(1);
  std::string text(cmdline);
  std::replace(text.begin(), text.end(), '\0', ' ');
  return text;
}

std::string PID::commandLine() const {
  if (m_pid < 0) return {};
  return commandFromCmdline(m_root.readProc(std::to_string(m_pid) + "/cmdline").value_or(""));
}

std::string PID::bundlePath() const {
  if (m_pid < 0) return {};
  std::array<char, 4096> buffer{};
  const std::string link = m_root.proc(std::to_string(m_pid) + "/exe");
  const ssize_t n = ::readlink(link.c_str(), buffer.data(), buffer.size() - 1);
  if (n <= 0) return {};
  return std::string(buffer.data(), static_cast<size_t>(n));
}

std::optional<int> PID::priority() const {
  if (m_pid < 0) return std::nullopt;
  const auto stat = m_root.readProc(std::to_string(m_pid) + "/stat");
  const auto fields = stat ? parseProcPidStat(*stat) : std::nullopt;
  if (!fields) return std::nullopt;
  return static_cast<int>(fields->nice);
}

}  // namespace pelmora
