#include "process_control/stop_journal.h"

#include <signal.h>
#include <unistd.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include "support/logger.h"
#include "support/paths.h"
#include "support/pidfd.h"
#include "support/proc_pid_stat.h"
#include "support/text.h"
#include "support/unique_fd.h"

namespace pelmora {
namespace {

std::optional<ProcPidStat> readStat(const SysRoot& root, int32_t pid) {
  auto text = root.readProc(std::to_string(pid) + "/stat");
  return text ? parseProcPidStat(*text) : std::nullopt;
}

// Continues `pid` only if it is still the process that started at `start_ticks` and is stopped.
// The pidfd pins the process, so the identity check and the signal concern the same process.
bool continueIfSame(const SysRoot& root, int32_t pid, uint64_t start_ticks) {
  UniqueFd pidfd = pidfdOpen(pid);
  if (!pidfd) return false;
  const auto now = readStat(root, pid);
  if (!now || now->starttime_ticks != start_ticks || (now->state != 'T' && now->state != 't')) return false;
  return pidfdSignal(pidfd.get(), SIGCONT) == 0;
}

}  // namespace

std::filesystem::path StopJournal::defaultDir() { return paths::stateDir() / "held"; }

StopJournal::StopJournal(std::filesystem::path dir, SysRoot root) : m_dir(std::move(dir)), m_root(std::move(root)) {
  const auto self = startTicks(static_cast<int32_t>(getpid())).value_or(0);
  m_file = m_dir / (std::to_string(getpid()) + "-" + std::to_string(self) + ".json");
}

StopJournal::~StopJournal() {
  std::error_code ec;
  std::filesystem::remove(m_file, ec);
}

void StopJournal::hold(int32_t pid) {
  auto start = startTicks(pid);
  if (!start) return;  // gone already: nothing to continue later
  if (auto it = m_held.find(pid); it != m_held.end() && it->second == *start) return;
  m_held[pid] = *start;
  write();
}

void StopJournal::forget(int32_t pid) {
  if (m_held.erase(pid)) write();
}

void StopJournal::forgetAll() {
  if (m_held.empty()) return;
  m_held.clear();
  write();
}

std::optional<uint64_t> StopJournal::startTicks(int32_t pid) const {
  const auto stat = readStat(m_root, pid);
  if (!stat) return std::nullopt;
  return stat->starttime_ticks;
}

void StopJournal::write() {
  std::error_code ec;
  if (m_held.empty()) {
    std::filesystem::remove(m_file, ec);
    return;
  }
  std::filesystem::create_directories(m_dir, ec);
  nlohmann::json entries = nlohmann::json::array();
  for (const auto& [pid, start] : m_held) entries.push_back({{"pid", pid}, {"start_ticks", start}});
  auto tmp = m_file;
  tmp += ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    out << entries.dump();
    if (!out) {
      Log("Cannot write the journal of held processes " + tmp.string() + ".");
      return;
    }
  }
  std::filesystem::rename(tmp, m_file, ec);
}

bool StopJournal::holderAlive(std::string_view stem) const {
  const auto parts = split(stem, '-');
  if (parts.size() != 2) return false;
  const auto pid = parseInt64(parts[0]);
  const auto start = parseUInt64(parts[1]);
  if (!pid || !start || *pid <= 0 || *pid > INT32_MAX) return false;
  const auto now = startTicks(static_cast<int32_t>(*pid));
  return now && *now == *start;
}

int StopJournal::recoverFile(const std::filesystem::path& file) {
  int continued = 0;
  std::ifstream in(file);
  const auto entries = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
  if (entries.is_array()) {
    for (const auto& e : entries) {
      if (!e.is_object() || !e.contains("pid") || !e.contains("start_ticks")) continue;
      if (!e["pid"].is_number_integer() || !e["start_ticks"].is_number_unsigned()) continue;
      const auto pid = e["pid"].get<int64_t>();
      if (pid <= 1 || pid > INT32_MAX) continue;
      if (continueIfSame(m_root, static_cast<int32_t>(pid), e["start_ticks"].get<uint64_t>())) {
        Log("Continued process " + std::to_string(pid) + ", left stopped by a Pelmora that ended.");
        ++continued;
      }
    }
  }
  std::error_code ec;
  std::filesystem::remove(file, ec);
  return continued;
}

int StopJournal::recover() {
  int continued = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(m_dir, ec)) {
    const auto& path = entry.path();
    if (path == m_file || path.extension() != ".json") continue;
    if (holderAlive(path.stem().string())) continue;
    continued += recoverFile(path);
  }
  return continued;
}

}  // namespace pelmora
