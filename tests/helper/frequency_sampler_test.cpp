// The frequency sampler: APERF/MPERF arithmetic, the source parsers, the fallback chain over fixture
// machines, and the forked child's lines coming back from the real daemon through the pipe's read end.
#include "helper/frequency_sampler.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "common/fixture_root.h"
#include "common/tool_process.h"
#include "helper/daemon_harness.h"
#include "support/text.h"

namespace pelmora {
namespace {

using namespace pelmora::testing;

using test::fixtureRoot;
using test::readUntil;

// Counters that advance by a fixed step per reading, per processor; a processor without a step
// has no MSR device.
class FakeMsr : public MsrReader {
 public:
  struct Steps {
    uint64_t aperf;
    uint64_t mperf;
  };
  explicit FakeMsr(std::map<int, Steps> steps) : m_steps(std::move(steps)) {}
  std::optional<uint64_t> read(int cpu, uint32_t msr) override {
    auto it = m_steps.find(cpu);
    if (it == m_steps.end() || (msr != kMsrAperf && msr != kMsrMperf)) return std::nullopt;
    const uint64_t reading = ++m_reads[{cpu, msr}];
    // Start far from zero so a wrong subtraction shows.
    return (uint64_t{1} << 40) + (msr == kMsrAperf ? it->second.aperf : it->second.mperf) * reading;
  }

 private:
  std::map<int, Steps> m_steps;
  std::map<std::pair<int, uint32_t>, uint64_t> m_reads;
};

TEST(FrequencyArithmetic, MeanRunningFrequencyFromTheCounterDeltas) {
  const uint64_t top = ~uint64_t{0};
  const struct {
    const char* what;
    MsrCounters before, after;
    double base_mhz;
    std::optional<double> mhz;
  } cases[] = {
      {"turbo: APERF ran ahead of MPERF", {1000, 1000}, {4000, 3000}, 2000, 3000.0},
      {"throttled: APERF behind MPERF", {0, 0}, {1000, 2000}, 2000, 1000.0},
      {"at base", {5, 7}, {105, 107}, 1800, 1800.0},
      {"large counters", {top - 3000, top - 2000}, {top - 1500, top - 1000}, 2000, 3000.0},
      {"MPERF did not move (never in C0)", {10, 10}, {20, 10}, 2000, std::nullopt},
      {"APERF did not move", {10, 10}, {10, 20}, 2000, std::nullopt},
      {"readings in the wrong order", {4000, 3000}, {1000, 1000}, 2000, std::nullopt},
      {"one counter reset", {4000, 3000}, {5000, 100}, 2000, std::nullopt},
      {"no base frequency", {0, 0}, {300, 200}, 0, std::nullopt},
  };
  for (const auto& c : cases) {
    const auto mhz = aperfMperfMhz(c.before, c.after, c.base_mhz);
    EXPECT_EQ(mhz.has_value(), c.mhz.has_value()) << c.what;
    if (mhz && c.mhz) {
      EXPECT_DOUBLE_EQ(*mhz, *c.mhz) << c.what;
    }
  }
}

TEST(FrequencyParsers, CpufreqKilohertzAndCpuinfoMegahertz) {
  const struct {
    const char* text;
    std::optional<double> mhz;
  } khz[] = {{"2400000\n", 2400.0}, {" 800123 ", 800.123}, {"0\n", std::nullopt},
             {"-5", std::nullopt},  {"2.4GHz", std::nullopt}, {"", std::nullopt}};
  for (const auto& c : khz) EXPECT_EQ(khzTextToMhz(c.text), c.mhz) << c.text;

  const std::string cpuinfo =
      "processor\t: 0\nmodel name\t: X: Y\ncpu MHz\t\t: 2100.000\n\n"
      "processor\t: 1\ncpu MHz\t\t: nan\n\n"           // not a number: absent
      "processor\t: 2\nbogomips\t: 4000\n\n"           // no MHz line: absent
      "processor\t: x\ncpu MHz\t\t: 900\n\n"           // unreadable block number: skipped
      "processor\t: 3\ncpu MHz : 2300.5\n";
  EXPECT_EQ(parseCpuinfoMhz(cpuinfo), (std::map<int, double>{{0, 2100.0}, {3, 2300.5}}));
  EXPECT_TRUE(parseCpuinfoMhz("cpu MHz : 1000\n").empty());  // before any processor block

  EXPECT_EQ(formatFrequencyLines({{0, 2064.4}, {3, 0}, {12, 999.5}}),
            "CPU 0 frequency: 2064 MHz\nCPU 3 frequency: 0 MHz\nCPU 12 frequency: 1000 MHz\n");
}

TEST(FrequencySampler, EachProcessorTakesTheBestSourceItHas) {
  const struct {
    const char* what;
    const char* machine;
    std::map<int, FakeMsr::Steps> msr;
    std::string lines;
  } cases[] = {
      {"APERF/MPERF over base_frequency, offline CPU reads 0", "freq-intel",
       {{0, {3000, 2000}}, {1, {1000, 2000}}, {3, {2000, 2000}}},
       "CPU 0 frequency: 2700 MHz\nCPU 1 frequency: 900 MHz\nCPU 2 frequency: 0 MHz\nCPU 3 frequency: 1800 MHz\n"},
      {"no msr device: scaling_cur_freq", "freq-intel", {},
       "CPU 0 frequency: 2400 MHz\nCPU 1 frequency: 800 MHz\nCPU 2 frequency: 0 MHz\nCPU 3 frequency: 4000 MHz\n"},
      {"msr on one CPU only, an idle one falls back", "freq-intel", {{0, {0, 0}}, {3, {3000, 2000}}},
       "CPU 0 frequency: 2400 MHz\nCPU 1 frequency: 800 MHz\nCPU 2 frequency: 0 MHz\nCPU 3 frequency: 2700 MHz\n"},
      {"base from cpuinfo_max_freq", "freq-acpi", {{0, {1000, 2000}}, {1, {2000, 2000}}},
       "CPU 0 frequency: 1800 MHz\nCPU 1 frequency: 3600 MHz\n"},
      {"no cpufreq: /proc/cpuinfo", "freq-vm", {{0, {3000, 2000}}},
       "CPU 0 frequency: 2000 MHz\nCPU 1 frequency: 2000 MHz\n"},
      {"no source at all: nothing", "freq-none", {}, ""},
      {"no base: the MSRs alone cannot say", "freq-none", {{0, {3000, 2000}}}, ""},
  };
  for (const auto& c : cases) {
    FrequencySampler sampler(fixtureRoot(c.machine), std::make_shared<FakeMsr>(c.msr));
    EXPECT_EQ(sampler.measure(1), c.lines) << c.what;
  }
}

// A register read that never returns, as a hung driver would, or a lock that another thread held
// at the fork and that the child can never take.
class HungMsr : public MsrReader {
 public:
  std::optional<uint64_t> read(int, uint32_t) override {
    for (;;) ::pause();
  }
};

TEST(FrequencySampler, AStuckChildIsEndedAndItsReaderSeesTheEnd) {
  const FrequencySampler sampler(fixtureRoot("freq-intel"), std::make_shared<HungMsr>());
  const FrequencySampler::Started started = sampler.start(1);
  ASSERT_GT(started.pid, 0) << started.error_text;
  // A bound far beyond the child's deadline: a child left stuck keeps the pipe open for ever.
  pollfd p{started.output.get(), POLLIN, 0};
  char byte;
  const bool end_of_file = ::poll(&p, 1, 30'000) == 1 && ::read(started.output.get(), &byte, 1) == 0;
  if (!end_of_file) ::kill(started.pid, SIGKILL);
  EXPECT_TRUE(end_of_file);
}

// --- over the wire, from the real daemon -----------------------------------------------------------

using PowerMetricsOverTheWire = HelperDaemonTest;

int socketsHeldBy(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd/";
  int sockets = 0;
  for (const auto& fd : SysRoot::listDir(dir)) {
    char target[64] = {};
    if (::readlink((dir + fd).c_str(), target, sizeof target - 1) > 0 && startsWith(target, "socket:")) ++sockets;
  }
  return sockets;
}

TEST_F(PowerMetricsOverTheWire, TheLinesArriveThroughTheDescriptor) {
  // The daemon ends a sampler child with the connection that asked for it, so the connection stays
  // open until every line has been read.
  SocketTransport transport(s_daemon->socket());
  const XPCDict reply = transport.exchange({{"powermetrics", "powermetrics"}, {"sample_interval", 1000}})
                            .value_or(XPCDict{{"no reply", 1}});
  ASSERT_EQ(xpcInt(reply, "result"), 1) << (xpcString(reply, "error") ? *xpcString(reply, "error") : "");
  const auto pid = xpcInt(reply, "pid");
  const XPCDescriptor* fd = xpcDescriptor(reply, "fd");
  ASSERT_TRUE(pid && fd && fd->get() >= 0);
  EXPECT_NE(*pid, s_daemon->pid());
  // Forked from the root daemon, it keeps none of the daemon's sockets: a connection it held open
  // would never see its end, and its listening socket would outlive the daemon. Seen while it still
  // measures: an ended process holds nothing either.
  EXPECT_TRUE(eventually([child = static_cast<pid_t>(*pid)] {
    return socketsHeldBy(child) == 0 && procState(child) != '?' && procState(child) != 'Z';
  }));
  const std::string text = readUntil(fd->get());

  // The daemon's sysfs is the 8-processor fixture; its /proc is this machine's, which names the
  // clock of its own processors only (0 for the rest), or none at all on some architectures.
  const bool has_mhz = !parseCpuinfoMhz(SysRoot::readFile("/proc/cpuinfo").value_or("")).empty();
  const auto lines = split(text, '\n', false);
  ASSERT_EQ(lines.size(), has_mhz ? 8u : 0u) << text;
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(startsWith(lines[i], "CPU " + std::to_string(i) + " frequency: ")) << lines[i];
  }
  if (has_mhz) {
    EXPECT_NE(lines[0], "CPU 0 frequency: 0 MHz");
  }
  // The daemon reaped its child: no zombie left under it.
  EXPECT_TRUE(eventually([&] { return procState(static_cast<pid_t>(*pid)) == '?'; }));
}

}  // namespace
}  // namespace pelmora
