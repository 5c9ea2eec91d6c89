#include "helper_link/fallback_transport.h"

#include "support/logger.h"

namespace pelmora {

DaemonProbe::DaemonProbe(std::function<bool()> answers, std::chrono::milliseconds interval, Clock now)
    : m_answers(std::move(answers)), m_interval(interval), m_now(std::move(now)) {}

bool DaemonProbe::operator()() {
  const auto now = m_now();
  {
    MutexLock lock(m_state->mutex);
    if (now < m_state->quiet_until) return false;
  }
  const bool up = m_answers();
  MutexLock lock(m_state->mutex);
  m_state->quiet_until = up ? std::chrono::steady_clock::time_point{} : now + m_interval;
  return up;
}

FallbackTransport::FallbackTransport(std::unique_ptr<XPCTransport> daemon, std::function<bool()> daemon_answers,
                                     std::unique_ptr<XPCTransport> in_process)
    : m_daemon(std::move(daemon)), m_daemon_answers(std::move(daemon_answers)), m_in_process(std::move(in_process)) {}

XPCTransport& FallbackTransport::route() {
  const Mode mode = m_daemon_answers() ? Mode::kDaemon : Mode::kInProcess;
  bool changed = false;
  {
    MutexLock lock(m_mutex);
    changed = mode != m_mode;
    m_mode = mode;
  }
  if (changed) Log(mode == Mode::kDaemon ? kDaemonLine : kInProcessLine);
  return mode == Mode::kDaemon ? *m_daemon : *m_in_process;
}

std::optional<XPCDict> FallbackTransport::exchange(const XPCDict& request) { return route().exchange(request); }

void FallbackTransport::sendOneWay(const XPCDict& message) { route().sendOneWay(message); }

uint64_t FallbackTransport::connection() { return route().connection(); }

bool FallbackTransport::viaDaemon() {
  {
    MutexLock lock(m_mutex);
    if (m_mode != Mode::kUnknown) return m_mode == Mode::kDaemon;
  }
  route();
  MutexLock lock(m_mutex);
  return m_mode == Mode::kDaemon;
}

}  // namespace pelmora
