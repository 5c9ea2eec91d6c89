// The daemon-or-in-process routing: where each request goes, what is logged, and that a request
// the daemon lost is never served a second time in-process.
#include "helper_link/fallback_transport.h"

#include <gtest/gtest.h>

#include "fake_transport.h"
#include "helper_link/pelmora.h"
#include "support/logger.h"

namespace pelmora {
namespace {

using Lines = std::vector<std::string>;

struct Routing {
  std::shared_ptr<test::FakeWire> daemon = std::make_shared<test::FakeWire>();
  std::shared_ptr<test::FakeWire> local = std::make_shared<test::FakeWire>();
  bool daemon_up = false;
  std::unique_ptr<FallbackTransport> make() {
    return std::make_unique<FallbackTransport>(std::make_unique<test::FakeTransport>(daemon),
                                               [this] { return daemon_up; },
                                               std::make_unique<test::FakeTransport>(local));
  }
};

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
  Routing routing;
  auto transport = routing.make();
  size_t to_daemon = 0, to_local = 0;
  for (size_t i = 0; i < steps.size(); ++i) {
    routing.daemon_up = steps[i].daemon_up;
    routing.daemon->answer = [&](const XPCDict&) {
      return steps[i].reply_lost ? std::nullopt : std::optional(XPCDict{});
    };
    LogCapture log;
    EXPECT_EQ(transport->exchange(kPing).has_value(), !steps[i].reply_lost) << "step " << i;
    transport->sendOneWay({{"quit", ""}});
    (steps[i].to_daemon ? to_daemon : to_local) += 1;
    EXPECT_EQ(routing.daemon->requests.size(), to_daemon) << "step " << i;
    EXPECT_EQ(routing.local->requests.size(), to_local) << "step " << i;
    EXPECT_EQ(routing.daemon->one_way.size(), to_daemon) << "step " << i;
    EXPECT_EQ(routing.local->one_way.size(), to_local) << "step " << i;
    EXPECT_EQ(log.lines(), steps[i].log) << "step " << i;
    EXPECT_EQ(transport->viaDaemon(), steps[i].to_daemon) << "step " << i;
  }
}

TEST(FallbackTransport, PelmoraReportsTheModeAndGetsInProcessAnswers) {
  Routing routing;
  routing.local->answer = [](const XPCDict&) { return XPCDict{{"setcpu", "the privileged helper is not running"}}; };
  Pelmora client(routing.make());
  LogCapture log;
  EXPECT_FALSE(client.viaDaemon());
  EXPECT_FALSE(client.setCpuCount(1, true, false));
  EXPECT_EQ(log.lines(), (Lines{FallbackTransport::kInProcessLine,
                                "setcpucount response: the privileged helper is not running."}));
  routing.daemon_up = true;
  routing.daemon->answer = [](const XPCDict&) { return XPCDict{{"setcpu", "OK"}}; };
  EXPECT_TRUE(client.setCpuCount(1, true, false));
  EXPECT_TRUE(client.viaDaemon());
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
