#pragma once
// A transport that records what it was sent and answers with a scripted reply.
#include <functional>
#include <memory>
#include <vector>

#include "support/xpc_transport.h"

namespace pelmora::test {

struct FakeWire {
  std::vector<XPCDict> requests;
  std::vector<XPCDict> one_way;
  // None: the peer could not be reached.
  std::function<std::optional<XPCDict>(const XPCDict&)> answer = [](const XPCDict&) { return XPCDict{}; };
  // The connection number the transport reports; a test bumps it to act out a reconnect.
  uint64_t connection = 0;
};

class FakeTransport : public XPCTransport {
 public:
  explicit FakeTransport(std::shared_ptr<FakeWire> wire) : m_wire(std::move(wire)) {}
  std::optional<XPCDict> exchange(const XPCDict& request) override {
    m_wire->requests.push_back(request);
    return m_wire->answer(request);
  }
  void sendOneWay(const XPCDict& message) override { m_wire->one_way.push_back(message); }
  uint64_t connection() override { return m_wire->connection; }

 private:
  std::shared_ptr<FakeWire> m_wire;
};

}  // namespace pelmora::test
