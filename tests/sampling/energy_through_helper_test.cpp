// RAPL's energy counters are root's alone since Linux 5.10: an ordinary user's sampler gets the
// readings from the real daemon on a real socket, and a machine without any readable source says
// it has no power sensor instead of drawing 0 W.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>

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

  int up[2], down[2];
  ASSERT_EQ(::pipe(up), 0);
  ASSERT_EQ(::pipe(down), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    std::string result = (::setgid(kNobody) == 0 && ::setuid(kNobody) == 0)
                             ? samplerAsNobody(daemon.socket(), daemon.sys(), up[1], down[0])
                             : "could not become nobody";
    if (!result.empty()) [[maybe_unused]] auto n = ::write(up[1], result.data(), result.size());
    ::_exit(0);
  }
  ::close(up[1]);
  ::close(down[0]);
  char byte = 0;
  ASSERT_EQ(::read(up[0], &byte, 1), 1);
  writeText(package / "energy_uj", "6000000\n");
  writeText(core / "energy_uj", "4000000\n");
  ASSERT_EQ(::write(down[1], &byte, 1), 1);
  std::string failures;
  char buffer[512];
  ssize_t n;
  while ((n = ::read(up[0], buffer, sizeof buffer)) > 0) failures.append(buffer, static_cast<size_t>(n));
  int status = 0;
  ::waitpid(child, &status, 0);
  ::close(up[0]);
  ::close(down[1]);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(failures, "");
}

}  // namespace
}  // namespace pelmora
