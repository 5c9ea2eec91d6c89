// RAPL's energy counters are root's alone since Linux 5.10: an ordinary user's sampler gets the
// readings from the real daemon on a real socket, and a machine without any readable source says
// it has no power sensor instead of drawing 0 W.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>

#include "common/child.h"
#include "common/tool_process.h"
#include "helper/daemon_harness.h"
#include "helper_link/pelmora.h"
#include "sampling/system_stats.h"
#include "support/rapl_zones.h"
#include "support/socket_transport.h"
#include "support/timeval.h"

namespace pelmora {
namespace {

using namespace pelmora::testing;

constexpr uid_t kNobody = 65534;

void writeMode(const std::filesystem::path& path, const std::string& text, std::filesystem::perms mode) {
  writeText(path, text);
  std::filesystem::permissions(path, mode);
}

// What the sampler of an ordinary user sees; runs in the child, as nobody. Between its two ticks the
// parent (root) moves the root-only counter on by 5 J; the child's clock moves 2 s.
std::string samplerAsNobody(const std::string& socket, const std::filesystem::path& sys, int to_parent, int from_parent) {
  FakeClock clock;
  const SysRoot root("/proc", sys.string());
  std::string out;
  if (!RaplZones::read(root).denied) out += "nobody could read the counter itself\n";
  auto alone = SystemStats::create(root, 3'600'000);
  alone->tick();
  if (alone->snapshot().power_stats.sensor) out += "a sensor without the helper\n";

  auto stats = SystemStats::create(root, 3'600'000);
  Pelmora helper(std::make_unique<SocketTransport>(socket));
  stats->setEnergySource([&helper] { return helper.energy(); });
  stats->tick();
  if (!stats->snapshot().power_stats.sensor) out += "no sensor with the helper\n";
  char byte = 'x';
  if (::write(to_parent, &byte, 1) != 1 || ::read(from_parent, &byte, 1) != 1) return out + "pipe\n";
  clock.advance_us(2'000'000);
  stats->tick();
  const powerStats power = stats->snapshot().power_stats;
  // The subzone's counter is part of the package and is not added again.
  if (!power.sensor || std::fabs(power.total - 2.5) > 1e-9) out += "power " + std::to_string(power.total) + " W\n";
  return out;
}

TEST(EnergyThroughTheHelper, AnOrdinaryUserGetsTheRootOnlyCountersFromTheDaemon) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the daemon and to act as another user";
  HelperDaemonChild daemon;
  ASSERT_TRUE(daemon.ready());
  const auto package = daemon.sys() / "class/powercap/intel-rapl:0";
  const auto core = daemon.sys() / "class/powercap/intel-rapl:0:0";
  for (const auto& zone : {package, core}) {
    std::filesystem::create_directories(zone);
    writeMode(zone / "energy_uj", "1000000\n", std::filesystem::perms::owner_read);
    writeMode(zone / "max_energy_range_uj", "262143328850\n", std::filesystem::perms(0444));
  }

  // The child reports its failures and then "done", so that a child that died early fails too.
  int up[2], down[2];
  ASSERT_EQ(::pipe2(up, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(down, O_CLOEXEC), 0);
  const test::Child child([&] {
    const std::string result = (::setgid(kNobody) == 0 && ::setuid(kNobody) == 0)
                                   ? samplerAsNobody(daemon.socket(), daemon.sys(), up[1], down[0])
                                   : "could not become nobody\n";
    [[maybe_unused]] auto n = ::write(up[1], (result + "done").data(), result.size() + 4);
  });
  const UniqueFd from_child(up[0]), to_child(down[1]);
  ::close(up[1]);
  ::close(down[0]);
  char byte = 0;
  ASSERT_EQ(::read(from_child.get(), &byte, 1), 1);
  writeText(package / "energy_uj", "6000000\n");
  writeText(core / "energy_uj", "4000000\n");
  ASSERT_EQ(::write(to_child.get(), &byte, 1), 1);
  EXPECT_EQ(test::readUntil(from_child.get(), "done"), "done");
}

}  // namespace
}  // namespace pelmora
