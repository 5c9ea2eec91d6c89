#pragma once
// XPC: a connection to the privileged helper by label, with a synchronous send-with-reply and a
// one-way command. The transport decides who answers (the daemon's socket, the handler code
// in-process, or a fake in tests). Exchanges are serialised: one request in flight per connection.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/mutex.h"
#include "support/xpc_transport.h"

namespace pelmora {

class XPC {
 public:
  using Builder = std::function<void(XPCDict& request)>;
  using Handler = std::function<void(const XPCDict& reply)>;

  XPC(std::string label, std::unique_ptr<XPCTransport> transport);

  // Builds a fresh request, exchanges it and runs the handler on the reply before returning.
  // Without a reply the handler is not run and the result is false.
  bool sendWithReply(const Builder& builder, const Handler& handler);
  // Builds a fresh message and sends it without waiting for a reply.
  void command(const Builder& builder);
  // The transport's signalAdmitted, serialised with the exchanges like them.
  std::optional<int> signalAdmitted(int32_t pid, int signal);

  const std::string& label() const { return m_label; }
  XPCTransport& transport() { return *m_transport; }

 private:
  const std::string m_label;
  Mutex m_mutex;  // one exchange at a time on the transport
  std::unique_ptr<XPCTransport> m_transport;
};

}  // namespace pelmora
