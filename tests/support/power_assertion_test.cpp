// Inhibitors: which of logind's keep the machine awake, and our own switch.
#include "support/power_assertion.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace pelmora {
namespace {

TEST(PowerAssertion, OnlyBlockingSleepOrIdleInhibitorsKeepTheMachineAwake) {
  struct Case {
    const char* what;
    const char* mode;
    bool awake;
  };
  const Case cases[] = {
      {"sleep", "block", true},   {"shutdown:sleep", "block", true},
      {"idle", "block", true},    {"handle-lid-switch:idle:sleep", "block", true},
      {"sleep", "delay", false},  {"shutdown", "block", false},
      {"sleepy", "block", false}, {"", "block", false},
  };
  for (const auto& c : cases) EXPECT_EQ(PowerAssertion::keepsAwake(c.what, c.mode), c.awake) << c.what << c.mode;
  for (const auto& [pid, awake] : PowerAssertion::assertions()) {
    EXPECT_GT(pid, 0);
    EXPECT_TRUE(awake);
  }
}

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

}  // namespace
}  // namespace pelmora
