// The sampler's client registration, snapshot delivery and sleep/wake handling, on the VM fixture
// with a short tick so snapshots arrive quickly.
#include "sampling/system_stats.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/eventually.h"
#include "common/fixture_root.h"
#include "support/logger.h"
#include "support/main_queue.h"

using namespace pelmora;
using namespace std::chrono_literals;

namespace {

constexpr int64_t kShortInterval_ms = 5;

// Records what the sampler told it, and on which thread.
class RecordingClient : public SystemStatsClient {
 public:
  void samplerRestarted() override { events.push_back("restarted"); }
  void statsUpdated(const SampleSet& sample) override {
    events.push_back("stats");
    last = sample;
    threads.push_back(std::this_thread::get_id());
  }
  size_t count(const std::string& event) const { return std::count(events.begin(), events.end(), event); }

  std::vector<std::string> events;
  std::vector<std::thread::id> threads;
  SampleSet last;
};

// Stands in for the power-metrics reader. Checks that the sampler holds it locked for every call.
class FakeFrequencySource : public FrequencySource {
 public:
  Mutex& mutex() override { return m_mutex; }
  void start() override { record("start"); }
  void stop() override { record("stop"); }
  double frequency_mhz(size_t cpu) override {
    expectLocked();
    return cpu < frequencies.size() ? frequencies[cpu] : 0.0;
  }
  std::vector<std::string> calls;
  std::vector<double> frequencies;

 private:
  void record(const char* call) {
    expectLocked();
    calls.push_back(call);
  }
  void expectLocked() {
    const bool was_free = m_mutex.try_lock();
    if (was_free) m_mutex.unlock();
    EXPECT_FALSE(was_free) << "called without the source's lock";
  }
  Mutex m_mutex;
};

using test::runUntil;

class SamplerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RunLoop::main().runUntilIdle();
    m_stats = SystemStats::create(pelmora::test::fixtureRoot("sampling-vm"), kShortInterval_ms);
    m_source = std::make_shared<FakeFrequencySource>();
    m_stats->setFrequencySource(m_source);
  }
  void TearDown() override {
    m_stats.reset();
    RunLoop::main().runUntilIdle();
  }
  std::shared_ptr<SystemStats> m_stats;
  std::shared_ptr<FakeFrequencySource> m_source;
};

TEST_F(SamplerTest, RegistrationStartsAndStopsTheTimerOnce) {
  auto a = std::make_shared<RecordingClient>();
  auto b = std::make_shared<RecordingClient>();
  struct Step {
    const char* what;
    std::function<void()> act;
    bool running;
    size_t clients;
    std::vector<std::string> source_calls;
  };
  const std::vector<Step> steps = {
      {"first client starts", [&] { m_stats->addClient(a); }, true, 1, {"start"}},
      {"same client again changes nothing", [&] { m_stats->addClient(a); }, true, 1, {"start"}},
      {"second client joins the running timer", [&] { m_stats->addClient(b); }, true, 2, {"start"}},
      {"removing one of two keeps running", [&] { m_stats->removeClient(a); }, true, 1, {"start"}},
      {"removing an unknown client is harmless", [&] { m_stats->removeClient(a); }, true, 1, {"start"}},
      {"last client leaving stops", [&] { m_stats->removeClient(b); }, false, 0, {"start", "stop"}},
      {"a new client starts again", [&] { m_stats->addClient(a); }, true, 1, {"start", "stop", "start"}},
  };
  for (const auto& step : steps) {
    step.act();
    EXPECT_EQ(m_stats->running(), step.running) << step.what;
    EXPECT_EQ(m_stats->timerRunning(), step.running) << step.what;
    EXPECT_EQ(m_stats->clientCount(), step.clients) << step.what;
    EXPECT_EQ(m_source->calls, step.source_calls) << step.what;
  }
  m_stats->removeClient(a);
}

TEST_F(SamplerTest, SnapshotsReachEveryClientOnTheMainThread) {
  auto a = std::make_shared<RecordingClient>();
  auto b = std::make_shared<RecordingClient>();
  m_source->frequencies = {2064.0};  // one measured processor of two
  m_stats->setProcessCensusProvider([] { return ProcessCensus{{0, 0, getuid() == 0 ? 4242u : getuid()}, 1}; });
  m_stats->addClient(a);
  m_stats->addClient(b);
  ASSERT_TRUE(runUntil([&] { return a->count("stats") >= 2 && b->count("stats") >= 2; }));
  m_stats->removeClient(a);
  m_stats->removeClient(b);
  for (auto id : a->threads) EXPECT_EQ(id, std::this_thread::get_id());
  ASSERT_EQ(a->last.cpu_stats.size(), 2u);
  EXPECT_EQ(a->last.cpu_stats[0].frequency, 2064.0);
  EXPECT_EQ(a->last.cpu_stats[1].frequency, 0.0);
  EXPECT_GT(a->last.cpu_stats[0].totalIdleTime, 0u);
  EXPECT_EQ(a->last.proc_stats.system, 2);
  EXPECT_EQ(a->last.proc_stats.user + a->last.proc_stats.other, 1);
  EXPECT_EQ(a->last.proc_stats.translated, 1);
  EXPECT_EQ(a->last.dsk_stats.size(), 1u);
}

TEST_F(SamplerTest, ASnapshotIsDroppedWhenItsClientLeftOrTheSamplerWentAway) {
  auto client = std::make_shared<RecordingClient>();
  m_stats->addClient(client);
  m_stats->removeClient(client);
  m_stats->tick();
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(client->count("stats"), 0u);
  m_stats->addClient(client);
  m_stats->tick();  // posts a job that holds the sampler weakly
  m_stats.reset();  // stops the timer; the sampler is gone before the job runs
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(client->count("stats"), 0u);
}

// Sleep and wake while running, then the last client leaving during a sleep, then both while stopped.
TEST_F(SamplerTest, SleepPausesAndWakeRestartsTellingClientsFirst) {
  auto client = std::make_shared<RecordingClient>();
  m_stats->addClient(client);
  ASSERT_TRUE(runUntil([&] { return client->count("stats") >= 1; }));
  {
    LogCapture log;
    m_stats->sleepStateChanged(true);
    EXPECT_TRUE(m_stats->running());  // so that the wake restarts it
    EXPECT_FALSE(m_stats->timerRunning());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Sampler stopping for system sleep."});
    EXPECT_EQ(m_source->calls, (std::vector<std::string>{"start", "stop"}));
  }
  RunLoop::main().runUntilIdle();
  client->events.clear();
  {
    LogCapture log;
    m_stats->sleepStateChanged(false);
    EXPECT_TRUE(m_stats->timerRunning());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Sampler restarted after system sleep."});
    EXPECT_EQ(m_source->calls, (std::vector<std::string>{"start", "stop", "stop", "start"}));
  }
  ASSERT_TRUE(runUntil([&] { return client->count("stats") >= 1; }));
  EXPECT_EQ(client->events.front(), "restarted");
  EXPECT_EQ(client->count("restarted"), 1u);
  m_stats->sleepStateChanged(true);
  m_stats->removeClient(client);
  EXPECT_FALSE(m_stats->running());
  const auto calls = m_source->calls;
  for (bool sleeping : {false, true, false}) {  // stopped for good: nothing restarts, nothing is logged
    LogCapture log;
    m_stats->sleepStateChanged(sleeping);
    EXPECT_FALSE(m_stats->running());
    EXPECT_FALSE(m_stats->timerRunning());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(m_source->calls, calls);
  }
}

TEST_F(SamplerTest, EachTickStampsTheSampleTime) {
  FakeClock clock;
  auto stats = SystemStats::create(pelmora::test::fixtureRoot("sampling-vm"));
  clock.advance_us(2'500'000);
  stats->tick();
  EXPECT_EQ(stats->sampleTime().microseconds(), clock.now_us());
}

}  // namespace
