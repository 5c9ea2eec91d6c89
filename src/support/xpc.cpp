#include "support/xpc.h"

namespace pelmora {

XPC::XPC(std::string label, std::unique_ptr<XPCTransport> transport)
    : m_label(std::move(label)), m_transport(std::move(transport)) {}

bool XPC::sendWithReply(const Builder& builder, const Handler& handler) {
  XPCDict request;
  if (builder) builder(request);
  std::optional<XPCDict> reply;
  {
    MutexLock lock(m_mutex);
    reply = m_transport->exchange(request);
  }
  if (!reply) return false;
  if (handler) handler(*reply);
  return true;
}

std::optional<int> XPC::signalAdmitted(int32_t pid, int signal) {
  MutexLock lock(m_mutex);
  return m_transport->signalAdmitted(pid, signal);
}

void XPC::command(const Builder& builder) {
  XPCDict message;
  if (builder) builder(message);
  MutexLock lock(m_mutex);
  m_transport->sendOneWay(message);
}

}  // namespace pelmora
