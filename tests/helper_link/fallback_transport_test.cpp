// The daemon-or-in-process routing: where each request goes, what is logged, that a request the
// daemon lost is never served a second time in-process, and the mode a client reports.
#include "helper_link/fallback_transport.h"

#include <gtest/gtest.h>

#include "fake_transport.h"
#include "helper_link/pelmora.h"
#include "support/logger.h"

namespace pelmora {
namespace {

using Lines = std::vector<std::string>;

const XPCDict kPing = {{"requestcpuinfo", ""}};

TEST(FallbackTransport, RoutesByWhetherTheDaemonAnswersAndLogsEachChangeOnce) {
  // Daemon state before each of a run of exchanges, and where that exchange (and a one-way message
  // after it) must land. A reply the daemon lost is not served again in-process: a command such as
  // "setcpucount" must not run twice.
  struct Step {
    bool daemon_up;
    bool to_daemon;
    Lines log;
    bool reply_lost = false;
  };
  const std::vector<Step> steps = {
      {false, false, {FallbackTransport::kInProcessLine}},
      {false, false, {}},
      {true, true, {FallbackTransport::kDaemonLine}},
      {true, true, {}, true},
      {true, true, {}},
      {false, false, {FallbackTransport::kInProcessLine}},
  };
  auto daemon = std::make_shared<test::FakeWire>(), local = std::make_shared<test::FakeWire>();
  bool daemon_up = false;
  auto owned = std::make_unique<FallbackTransport>(
      std::make_unique<test::FakeTransport>(daemon), [&] { return daemon_up; },
      std::make_unique<test::FakeTransport>(local));
  FallbackTransport* transport = owned.get();
  Pelmora client(std::move(owned));  // which reports the mode of its transport
  size_t to_daemon = 0, to_local = 0;
  for (size_t i = 0; i < steps.size(); ++i) {
    daemon_up = steps[i].daemon_up;
    daemon->answer = [&](const XPCDict&) { return steps[i].reply_lost ? std::nullopt : std::optional(XPCDict{}); };
    LogCapture log;
    EXPECT_EQ(transport->exchange(kPing).has_value(), !steps[i].reply_lost) << "step " << i;
    transport->sendOneWay({{"quit", ""}});
    (steps[i].to_daemon ? to_daemon : to_local) += 1;
    EXPECT_EQ(daemon->requests.size(), to_daemon) << "step " << i;
    EXPECT_EQ(local->requests.size(), to_local) << "step " << i;
    EXPECT_EQ(daemon->one_way.size(), to_daemon) << "step " << i;
    EXPECT_EQ(local->one_way.size(), to_local) << "step " << i;
    EXPECT_EQ(log.lines(), steps[i].log) << "step " << i;
    EXPECT_EQ(transport->viaDaemon(), steps[i].to_daemon) << "step " << i;
    EXPECT_EQ(client.viaDaemon(), steps[i].to_daemon) << "step " << i;
  }
}

using ms = std::chrono::milliseconds;

TEST(DaemonProbe, AfterANoAsksAgainOnlyOnceTheIntervalPassed) {
  using namespace std::chrono;
  steady_clock::time_point now{seconds(100)};
  bool up = false;
  int asked = 0;
  DaemonProbe probe([&] { return ++asked, up; }, seconds(1), [&] { return now; });
  // (time step before the call, daemon up, answer, times the daemon was asked so far)
  struct Step {
    milliseconds advance;
    bool up, answer;
    int asked;
  };
  const Step steps[] = {
      {ms(0), false, false, 1},   {ms(10), false, false, 1},  {ms(500), true, false, 1},  // quiet, even if it came up
      {ms(500), true, true, 2},   {ms(1), true, true, 3},     {ms(1), true, true, 4},     // up: asked every time
      {ms(1), false, false, 5},   {ms(999), true, false, 5},  {ms(1), true, true, 6},
  };
  int i = 0;
  for (const auto& s : steps) {
    now += s.advance;
    up = s.up;
    EXPECT_EQ(probe(), s.answer) << "step " << i;
    EXPECT_EQ(asked, s.asked) << "step " << i++;
  }
}

}  // namespace
}  // namespace pelmora
