// The sampler's client registration, snapshot delivery and sleep/wake handling, on the VM fixture
// with a short tick so snapshots arrive quickly.
#include "sampling/system_stats.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "common/eventually.h"
#include "common/fixture_root.h"
#include "support/logger.h"
#include "support/main_queue.h"

using namespace pelmora;

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

// Clients come and go and the machine sleeps and wakes: the timer and the frequency source start
// and stop once, a sleep pauses without forgetting the clients, a wake tells them first, and once
// the last client has left neither a wake nor a sleep starts or logs anything.
TEST_F(SamplerTest, RegistrationSleepAndWakeStartAndStopTheTimerOnce) {
  auto a = std::make_shared<RecordingClient>();
  auto b = std::make_shared<RecordingClient>();
  const auto sleep = [&](bool sleeping) { return [this, sleeping] { m_stats->sleepStateChanged(sleeping); }; };
  const std::string stopping = "Sampler stopping for system sleep.",
                    restarted = "Sampler restarted after system sleep.";
  struct Step {
    const char* what;
    std::function<void()> act;
    bool running, timer;
    size_t clients;
    std::vector<std::string> source_calls, log;  // during the step
    size_t restarts;                             // told to b so far
  };
  const std::vector<Step> steps = {
      {"first client starts", [&] { m_stats->addClient(a); }, true, true, 1, {"start"}, {}, 0},
      {"same client again changes nothing", [&] { m_stats->addClient(a); }, true, true, 1, {}, {}, 0},
      {"second client joins the running timer", [&] { m_stats->addClient(b); }, true, true, 2, {}, {}, 0},
      {"removing one of two keeps running", [&] { m_stats->removeClient(a); }, true, true, 1, {}, {}, 0},
      {"removing an unknown client is harmless", [&] { m_stats->removeClient(a); }, true, true, 1, {}, {}, 0},
      {"sleep pauses, so that the wake restarts", sleep(true), true, false, 1, {"stop"}, {stopping}, 0},
      {"wake restarts, telling the clients", sleep(false), true, true, 1, {"stop", "start"}, {restarted}, 1},
      {"sleeping again", sleep(true), true, false, 1, {"stop"}, {stopping}, 1},
      {"the last client leaving during a sleep stops",
       [&] { m_stats->removeClient(b); },
       false,
       false,
       0,
       {"stop"},
       {},
       1},
      {"a wake when stopped restarts nothing", sleep(false), false, false, 0, {}, {}, 1},
      {"nor does a sleep", sleep(true), false, false, 0, {}, {}, 1},
      {"a new client starts again", [&] { m_stats->addClient(a); }, true, true, 1, {"start"}, {}, 1},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    m_source->calls.clear();
    LogCapture log;
    step.act();
    EXPECT_EQ(std::tuple(m_stats->running(), m_stats->timerRunning(), m_stats->clientCount()),
              std::tuple(step.running, step.timer, step.clients));
    EXPECT_EQ(m_source->calls, step.source_calls);
    EXPECT_EQ(log.lines(), step.log);
    EXPECT_EQ(b->count("restarted"), step.restarts);
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

}  // namespace
