#include "helper/log_rate_limit.h"

namespace pelmora {

bool LogRateLimit::allow(Clock::time_point now, size_t* dropped) {
  if (m_in_window == 0 || now - m_window_start >= m_window) {
    m_window_start = now;
    m_in_window = 0;
  }
  if (m_in_window >= m_burst) {
    ++m_dropped;
    return false;
  }
  ++m_in_window;
  *dropped = m_dropped;
  m_dropped = 0;
  return true;
}

}  // namespace pelmora
