#include "helper_link/in_process_transport.h"

namespace pelmora {

InProcessTransport::InProcessTransport() : InProcessTransport(RequestHandler::inProcessOptions()) {}

InProcessTransport::InProcessTransport(HelperOptions options)
    : InProcessTransport(std::move(options), Connection::self()) {}

InProcessTransport::InProcessTransport(HelperOptions options, Connection caller)
    : m_handler(std::move(options)), m_self(std::move(caller)) {}

std::optional<XPCDict> InProcessTransport::exchange(const XPCDict& request) {
  MutexLock lock(m_mutex);
  return m_handler.handle(request, m_self);
}

std::optional<int> InProcessTransport::signalAdmitted(int32_t pid, int signal) {
  MutexLock lock(m_mutex);
  return m_handler.signalKept(pid, signal, m_self);
}

void InProcessTransport::sendOneWay(const XPCDict& message) {
  MutexLock lock(m_mutex);
  // "quit" only marks the connection for closing; in-process there is nothing to close.
  m_handler.handle(message, m_self);
}

}  // namespace pelmora
