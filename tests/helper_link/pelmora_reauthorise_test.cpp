// The daemon keeps its grant per client process, and a daemon started anew has none. "authorize"
// goes over a connection of its own (it may wait minutes for a password); after the main transport
// reconnects, a client that holds the authorised flag asks, without any dialog, whether the grant
// still holds before its next request, and drops the flag when it does not.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "fake_transport.h"
#include "helper_link/pelmora.h"
#include "support/main_queue.h"

namespace pelmora {
namespace {

using Keys = std::vector<std::string>;

// The operation key of each request, in the order sent; a non-interactive "authorize" is "check".
Keys keysOf(const std::vector<XPCDict>& requests) {
  Keys keys;
  for (const XPCDict& r : requests) {
    if (!xpcHas(r, "authorize"))
      keys.push_back("throttle");
    else
      keys.push_back(xpcInt(r, "interactive") == int64_t{0} ? "check" : "authorize");
  }
  return keys;
}

TEST(PelmoraReauthorise, AsksAgainWithoutADialogOnlyAfterANewConnection) {
  struct Case {
    const char* name;
    bool authorised;      // the user unlocked before the reconnect
    bool reconnect;
    bool still_granted;   // the daemon's answer to the check
    Keys sent;            // on the main connection, over two throttle requests after the reconnect
    bool authorised_after;
  };
  const Case cases[] = {
      {"same connection", true, false, true, {"throttle", "throttle"}, true},
      {"new connection, granted", true, true, true, {"check", "throttle", "throttle"}, true},
      {"new connection, refused", true, true, false, {"check", "throttle", "throttle"}, false},
      {"never authorised", false, true, true, {"throttle", "throttle"}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto wire = std::make_shared<test::FakeWire>();
    auto auth_wire = std::make_shared<test::FakeWire>();
    wire->connection = 1;
    wire->answer = [&](const XPCDict& request) -> std::optional<XPCDict> {
      if (!xpcHas(request, "authorize")) return XPCDict{{"throttle", "OK"}};
      return XPCDict{{"authorize", c.still_granted ? "OK" : "not authorised: no grant held"}};
    };
    auth_wire->answer = [](const XPCDict&) { return XPCDict{{"authorize", "OK"}}; };
    Pelmora client(std::make_unique<test::FakeTransport>(wire), std::make_unique<test::FakeTransport>(auth_wire));
    if (c.authorised) {
      ASSERT_TRUE(client.requestAuthorization(nullptr));
      for (int i = 0; i < 500 && client.authorizationPending(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
      ASSERT_TRUE(client.authorised());
    }
    if (c.reconnect) wire->connection = 2;
    client.setThrottle(true);
    client.setThrottle(false);
    EXPECT_EQ(keysOf(wire->requests), c.sent);
    EXPECT_EQ(keysOf(auth_wire->requests), c.authorised ? Keys{"authorize"} : Keys{});
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
