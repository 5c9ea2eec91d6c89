// The power-metrics reader: its text rules, what a failed or empty measurement leaves behind, the
// lock let go while the child's output is awaited.
#include "sampling/power_metrics.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "common/eventually.h"
#include "helper_link/fake_transport.h"
#include "helper_link/pelmora.h"
#include "support/logger.h"

namespace pelmora {
namespace {

constexpr const char* kEightCpus =
    "*** Sampled system activity ***\n"
    "CPU 0 frequency: 2064 MHz\nCPU 1 frequency: 2064 MHz\nCPU 2 frequency: 1800 MHz\nCPU 3 frequency: 3000 MHz\n"
    "CPU 4 frequency: 600 MHz\nCPU 5 frequency: 600 MHz\nCPU 6 frequency: 972 MHz\nCPU 7 frequency: 3228 MHz\n"
    "GPU HW active frequency: 389 MHz\n";

using test::eventually;

// A pipe holding `text`, already closed for writing: what the helper's child leaves behind.
XPCValue pipeWith(const std::string& text) {
  int fds[2];
  EXPECT_EQ(::pipe(fds), 0);
  EXPECT_EQ(::write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(fds[1]);
  return XPCValue::descriptor(UniqueFd(fds[0]));
}

XPCDict success(XPCValue fd) { return {{"result", 1}, {"pid", 4242}, {"fd", std::move(fd)}}; }

struct Reader {
  std::shared_ptr<test::FakeWire> wire = std::make_shared<test::FakeWire>();
  Pelmora helper{std::make_unique<test::FakeTransport>(wire)};
  PowerMetrics metrics{helper};

  void answer(std::function<XPCDict()> make) {
    wire->answer = [make](const XPCDict&) -> std::optional<XPCDict> { return make(); };
  }
  // The list, checked against what the sampler reads per processor (0 beyond it).
  std::vector<double> frequencies() {
    MutexLock lock(metrics.mutex());
    const auto& list = metrics.frequencies();
    for (size_t i = 0; i <= list.size(); ++i) EXPECT_EQ(metrics.frequency_mhz(i), i < list.size() ? list[i] : 0.0);
    return list;
  }
};

TEST(PowerMetricsParser, KeepsOnlyProcessorFrequencyLinesWithAUnit) {
  const struct {
    const char* what;
    const char* text;
    std::vector<double> values;
  } cases[] = {
      {"eight processors, GPU line ignored", kEightCpus, {2064, 2064, 1800, 3000, 600, 600, 972, 3228}},
      {"lower-case cpu", "cpu 0 frequency: 2064 MHz\n", {2064}},
      {"frequency in capitals", "CPU 0 FREQUENCY: 1200 MHz", {1200}},
      {"cluster lines count too", "E-Cluster HW active frequency: 972 MHz\nP-Cluster CPU frequency: 3228 MHz\n", {3228}},
      {"a second colon", "CPU 0 frequency: 2064 MHz: boost\nCPU 1: frequency: 1 MHz\n", {}},
      {"an empty part still counts as a part", "CPU 0 frequency:: 2064 MHz\n", {}},
      {"missing unit", "CPU 0 frequency: 2064\nCPU 1 frequency: 2064   \n", {}},
      {"number not whole", "CPU 0 frequency: 2064MHz MHz\nCPU 1 frequency: 20,64 MHz\nCPU 2 frequency: x MHz\n", {}},
      {"not a finite number", "CPU 0 frequency: nan MHz\nCPU 1 frequency: inf MHz\n", {}},
      {"decimals, sign and extra words", "CPU 0 frequency: 2064.5 MHz (est)\nCPU 1 frequency: +800 MHz\n", {2064.5, 800}},
      {"runs of spaces and CRLF", "CPU 0 frequency:    1500    MHz\r\nCPU 1 frequency: 1600 MHz\r\n", {1500, 1600}},
      {"no frequency word", "CPU 0 speed: 2064 MHz\nCPU 0 active residency: 50 %\n", {}},
      {"no CPU in the first part", "GPU frequency: 389 MHz\nANE frequency: 1 MHz\n", {}},
      {"tab instead of a space", "CPU 0 frequency:\t2064\tMHz\n", {}},
      {"empty", "", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(PowerMetrics::parseFrequencies(c.text), c.values) << c.what;
}

TEST(PowerMetricsParser, ChunksStopAtAZeroByteAndRepairBadUtf8) {
  const struct {
    const char* what;
    std::string chunk;
    std::string text;
  } cases[] = {
      {"plain", "CPU 0 frequency: 1 MHz\n", "CPU 0 frequency: 1 MHz\n"},
      {"zero byte ends the chunk", std::string("CPU 0\0CPU 1", 11), "CPU 0"},
      {"valid multibyte kept", "\xC2\xB5s \xE2\x82\xAC \xF0\x9F\x94\xA5", "\xC2\xB5s \xE2\x82\xAC \xF0\x9F\x94\xA5"},
      {"stray continuation", "a\x80z", "a\xEF\xBF\xBDz"},
      {"overlong and truncated", "\xC0\xAF|\xE2\x82", "\xEF\xBF\xBD\xEF\xBF\xBD|\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"surrogate", "\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
  };
  for (const auto& c : cases) EXPECT_EQ(PowerMetrics::decodeChunk(c.chunk.data(), c.chunk.size()), c.text) << c.what;
}

TEST(PowerMetricsReader, AFailedOrEmptyMeasurementKeepsThePreviousValues) {
  Reader r;
  const std::vector<double> first = {2064, 2064, 1800, 3000, 600, 600, 972, 3228};
  const struct {
    const char* what;
    std::function<XPCDict()> reply;
    std::vector<double> after;
  } steps[] = {
      {"a measurement", [] { return success(pipeWith(kEightCpus)); }, first},
      {"helper error", [] { return XPCDict{{"result", 2}, {"error", "nope"}}; }, first},
      {"no answer at all", [] { return XPCDict{}; }, first},
      {"success without a descriptor", [] { return XPCDict{{"result", 1}, {"pid", 4242}}; }, first},
      {"the child wrote nothing", [] { return success(pipeWith("")); }, first},
      {"only a zero byte", [] { return success(pipeWith(std::string(1, '\0'))); }, first},
      {"text without processor lines empties the list", [] { return success(pipeWith("GPU frequency: 1 MHz\n")); }, {}},
      {"and a new measurement fills it", [] { return success(pipeWith("CPU 0 frequency: 700 MHz\n")); }, {700}},
  };
  for (const auto& step : steps) {
    r.answer(step.reply);
    r.metrics.measure();
    EXPECT_EQ(r.frequencies(), step.after) << step.what;
  }
  ASSERT_EQ(r.wire->requests.size(), std::size(steps));
  EXPECT_EQ(r.wire->requests[0], (XPCDict{{"powermetrics", "powermetrics"}, {"sample_interval", 500}}));
}

// Switched off, a measurement empties the list without asking the helper; the timer starts once,
// runs the measurement, and stops emptying the list; an interval below a second is refused.
TEST(PowerMetricsReader, SwitchAndTimer) {
  LogCapture log;
  Reader r;
  r.answer([] { return success(pipeWith("CPU 0 frequency: 1500 MHz\n")); });
  r.metrics.setInterval_s(0);
  r.metrics.setInterval_s(1);
  EXPECT_TRUE(log.contains("Power metrics interval of 0 s refused; it stays 5 s."));
  {
    MutexLock lock(r.metrics.mutex());
    EXPECT_EQ(r.metrics.interval_s(), 1);
    r.metrics.start();
    r.metrics.start();  // a second start keeps the one timer
    EXPECT_TRUE(r.metrics.running());
  }
  ASSERT_TRUE(eventually([&] { return r.frequencies() == std::vector<double>{1500}; }));
  {
    MutexLock lock(r.metrics.mutex());
    r.metrics.stop();
    EXPECT_FALSE(r.metrics.running());
    EXPECT_TRUE(r.metrics.frequencies().empty());
    r.metrics.stop();  // harmless when stopped
  }
  r.metrics.measure();
  const size_t asked = r.wire->requests.size();
  {
    MutexLock lock(r.metrics.mutex());
    r.metrics.setUsePowermetrics(false);
    r.metrics.setSampleInterval_ms(250);
  }
  r.metrics.measure();
  EXPECT_TRUE(r.frequencies().empty());
  EXPECT_EQ(r.wire->requests.size(), asked);
  {
    MutexLock lock(r.metrics.mutex());
    r.metrics.setUsePowermetrics(true);
  }
  r.metrics.measure();
  EXPECT_EQ(r.frequencies(), std::vector<double>{1500});
  EXPECT_EQ(xpcInt(r.wire->requests.back(), "sample_interval"), 250);
}

TEST(PowerMetricsReader, TheLockIsFreeWhileTheChildsOutputIsAwaited) {
  Reader r;
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  UniqueFd write_end(fds[1]);
  r.answer([&] { return success(XPCValue::descriptor(UniqueFd(fds[0]))); });
  std::atomic<bool> done{false};
  std::thread job([&] {
    r.metrics.measure();
    done = true;
  });
  // Once the job has asked the helper it blocks in read with nothing written yet; meanwhile the
  // sampler can take the lock and read the (still old) values.
  ASSERT_TRUE(eventually([&] {
    if (!r.metrics.mutex().try_lock()) return false;
    const bool asked = !r.wire->requests.empty() && r.metrics.frequency_mhz(0) == 0.0;
    r.metrics.mutex().unlock();
    return asked;
  }));
  EXPECT_FALSE(done);
  const std::string half = "CPU 0 freq", rest = "uency: 1234 MHz\nCPU 1 frequency: 99 MHz\n";
  ASSERT_EQ(::write(write_end.get(), half.data(), half.size()), static_cast<ssize_t>(half.size()));
  ASSERT_EQ(::write(write_end.get(), rest.data(), rest.size()), static_cast<ssize_t>(rest.size()));
  write_end.reset();
  job.join();
  EXPECT_EQ(r.frequencies(), (std::vector<double>{1234, 99}));
}

}  // namespace
}  // namespace pelmora
