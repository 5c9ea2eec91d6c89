// SleepNotify with a source the test drives: events reach the handler only on the main queue, so a
// stopped notifier drops what was still queued. The order of the inhibitor's steps around each
// handler is checked through the application object (AppDelegateTest.SleepAndWake...).
#include <gtest/gtest.h>

#include "support/main_queue.h"
#include "support/sleep_notify.h"

namespace pelmora {
namespace {

struct Journal {
  std::vector<std::string> steps;
  SleepSource::Deliver deliver;
  bool start_result = true;
  int stops = 0;
};

class ScriptedSource : public SleepSource {
 public:
  explicit ScriptedSource(Journal& journal) : m_journal(journal) {}
  bool start(Deliver deliver) override {
    m_journal.deliver = std::move(deliver);
    return m_journal.start_result;
  }
  void stop() override { ++m_journal.stops; }
  void holdSleepDelay() override { m_journal.steps.push_back("hold"); }
  void releaseSleepDelay() override { m_journal.steps.push_back("release"); }

 private:
  Journal& m_journal;
};

TEST(SleepNotifyTest, StoppingOrDestroyingDropsQueuedEventsAndStopsTheSourceOnce) {
  for (const bool destroy : {false, true}) {
    SCOPED_TRACE(destroy ? "destroyed" : "stopped");
    Journal journal;
    int handled = 0;
    auto notify = std::make_unique<SleepNotify>([&](SleepEvent) { ++handled; },
                                                std::make_unique<ScriptedSource>(journal));
    journal.deliver(SleepEvent::willSleep);
    if (destroy) notify.reset(); else notify->stop();
    EXPECT_TRUE(!notify || !notify->listening());
    RunLoop::main().runUntilIdle();
    notify.reset();
    EXPECT_EQ(handled, 0);
    EXPECT_TRUE(journal.steps.empty());
    EXPECT_EQ(journal.stops, 1);
  }
  Journal nothing;  // a source with nothing to listen to
  nothing.start_result = false;
  EXPECT_FALSE(SleepNotify([](SleepEvent) {}, std::make_unique<ScriptedSource>(nothing)).listening());
}

}  // namespace
}  // namespace pelmora
