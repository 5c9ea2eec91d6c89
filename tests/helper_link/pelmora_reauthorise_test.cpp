// The daemon authorises one connection, not the client: after the transport reconnects, a client
// that holds the authorised flag must ask again before its next request, and drop the flag when
// the daemon no longer agrees.
#include <gtest/gtest.h>

#include "fake_transport.h"
#include "helper_link/pelmora.h"
#include "support/main_queue.h"

namespace pelmora {
namespace {

using Keys = std::vector<std::string>;

// The operation key of each request, in the order sent.
Keys keysOf(const std::vector<XPCDict>& requests) {
  Keys keys;
  for (const XPCDict& r : requests) keys.push_back(xpcHas(r, "authorize") ? "authorize" : "throttle");
  return keys;
}

TEST(PelmoraReauthorise, AsksAgainOnlyAfterANewConnection) {
  struct Case {
    const char* name;
    bool authorised;         // the user unlocked before the reconnect
    bool reconnect;
    bool granted_again;      // the daemon's answer to the second "authorize"
    Keys sent;               // over two throttle requests after the reconnect
    bool authorised_after;
  };
  const Case cases[] = {
      {"same connection", true, false, true, {"authorize", "throttle", "throttle"}, true},
      {"new connection, granted", true, true, true, {"authorize", "authorize", "throttle", "throttle"}, true},
      {"new connection, refused", true, true, false, {"authorize", "authorize", "throttle", "throttle"}, false},
      {"never authorised", false, true, true, {"throttle", "throttle"}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto wire = std::make_shared<test::FakeWire>();
    wire->connection = 1;
    int authorize_requests = 0;
    wire->answer = [&](const XPCDict& request) -> std::optional<XPCDict> {
      if (!xpcHas(request, "authorize")) return XPCDict{{"throttle", "OK"}};
      const bool grant = ++authorize_requests == 1 || c.granted_again;
      return XPCDict{{"authorize", grant ? "OK" : "not authorised: dismissed"}};
    };
    Pelmora client(std::make_unique<test::FakeTransport>(wire));
    if (c.authorised) {
      ASSERT_EQ(client.authorize(), "OK");
      client.setAuthorised(true);
    }
    if (c.reconnect) wire->connection = 2;
    client.setThrottle(true);
    client.setThrottle(false);
    EXPECT_EQ(keysOf(wire->requests), c.sent);
    EXPECT_EQ(client.authorised(), c.authorised_after);
  }
  RunLoop::main().runUntilIdle();  // deliver the authchanged broadcasts
}

TEST(PelmoraReauthorise, DeauthorizeDoesNotAuthorizeFirst) {
  auto wire = std::make_shared<test::FakeWire>();
  wire->connection = 1;
  wire->answer = [](const XPCDict&) { return XPCDict{{"authorize", "OK"}}; };
  Pelmora client(std::make_unique<test::FakeTransport>(wire));
  client.authorize();
  client.setAuthorised(true);
  wire->connection = 2;
  client.deauthorize();
  ASSERT_EQ(wire->requests.size(), 2u);
  EXPECT_TRUE(xpcHas(wire->requests[1], "deauthorize"));
  RunLoop::main().runUntilIdle();
}

}  // namespace
}  // namespace pelmora
