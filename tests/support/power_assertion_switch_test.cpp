#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

#include "support/power_assertion.h"

using pelmora::PowerAssertion;

// Releasing always works; taking needs logind, so on a machine without a system bus the switch must
// stay quietly off rather than claim an inhibitor it does not hold.
TEST(PowerAssertionSwitch, ReleaseAlwaysClearsAndTakeOnlyHoldsWithLogind) {
  PowerAssertion::setName("Pelmora test");
  PowerAssertion::switchAssertion(true);
  PowerAssertion::switchAssertion(true);  // taking twice keeps one inhibitor
  const bool have_bus = std::getenv("DBUS_SYSTEM_BUS_ADDRESS") != nullptr ||
                        access("/run/dbus/system_bus_socket", F_OK) == 0;
  if (!have_bus) {
    EXPECT_FALSE(PowerAssertion::held());
  }
  PowerAssertion::switchAssertion(false);
  EXPECT_FALSE(PowerAssertion::held());
}
