#pragma once
// The application object offscreen, as the journey and start-up tests drive it: a scripted helper
// behind a real client, the real windows and menus, a core that records what start-up, sleep and
// quit ask of the limiter and power monitor, a real sampler on a scratch tree with a recording
// client, and a sleep source the test drives.
#include <QCoreApplication>
#include <QEvent>

#include <memory>
#include <string>
#include <vector>

#include "app/app_delegate.h"
#include "app/procinfo_window.h"
#include "app/settings_test_support.h"
#include "app/stats_test_support.h"
#include "app/system_stats_window.h"
#include "graphs/graph_palette.h"
#include "support/main_queue.h"

namespace pelmora::app_test {

using Steps = std::vector<std::string>;

class RecordingCore : public AppCore {
 public:
  RecordingCore(Steps& steps, SystemStats& sampler) : m_steps(steps), m_sampler(sampler) {}
  void startPowerMonitor() override { m_steps.push_back("core:startPowerMonitor"); }
  void stopPowerMonitor() override { m_steps.push_back("core:stopPowerMonitor"); }
  void startLimiter() override { m_steps.push_back("core:startLimiter"); }
  void stopLimiter() override { m_steps.push_back("core:stopLimiter"); }
  void samplerSleeping(bool sleeping) override {
    m_steps.push_back(sleeping ? "core:samplerSleeps" : "core:samplerWakes");
    m_sampler.sleepStateChanged(sleeping);
  }
  void setLimitFrontmost(bool limit) override { m_steps.push_back(limit ? "core:frontmost on" : "core:frontmost off"); }

 private:
  Steps& m_steps;
  SystemStats& m_sampler;
};

// The sleep source the test drives: what the application listens with lands in `deliver`.
class DrivenSleepSource : public SleepSource {
 public:
  DrivenSleepSource(Deliver& deliver, Steps& steps) : m_deliver(deliver), m_steps(steps) {}
  bool start(Deliver deliver) override {
    m_deliver = std::move(deliver);
    return true;
  }
  void stop() override { m_deliver = nullptr; }
  void holdSleepDelay() override { m_steps.push_back("source:hold"); }
  void releaseSleepDelay() override { m_steps.push_back("source:release"); }

 private:
  Deliver& m_deliver;
  Steps& m_steps;
};

class CountingClient : public SystemStatsClient {
 public:
  void samplerRestarted() override { ++restarts; }
  void statsUpdated(const SampleSet&) override {}
  int restarts = 0;
};

inline void deleteLater() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

// Everything one application run needs; the windows it opens are closed again at the end.
struct AppRig {
  explicit AppRig(bool tray_available = false) : sampler(scratch.sampler()), tray(tray_available) {
    scratch.setCpus("0-3", "0-3");
    sampler->addClient(client);
    app = makeApp();
  }
  ~AppRig() {
    closeAll();
    sampler->removeClient(client);
    RunLoop::main().runUntilIdle();
  }
  std::unique_ptr<AppDelegate> makeApp() {
    AppServices services{rig.helper, rig.limiter, rig.power, *sampler, rig.store, nullptr, {}};
    services.core = std::make_unique<RecordingCore>(steps, *sampler);
    services.window_options.start_watch = false;
    services.sleep_source = [this] { return std::make_unique<DrivenSleepSource>(deliver, steps); };
    services.tray_available = tray;
    services.desktop_bus = desktop_bus;
    services.trace = [this](const std::string& step) { steps.push_back(step); };
    services.reveal = [this](const std::string& path) {
      revealed.push_back(path);
      return reveal_opens;
    };
    return std::make_unique<AppDelegate>(std::move(services));
  }
  // Quits and starts the program again on the same settings, as a new process would: the colours
  // held in memory go back to their defaults.
  void restart() {
    app->quit();
    closeAll();
    for (GraphClass graph : kAllGraphClasses) GraphPalette::colors(graph) = GraphPalette::defaults(graph);
    rig.store.reload();
    app = makeApp();
    app->finishLaunching();
  }
  void closeAll() {
    app.reset();
    if (auto* processes = ProcinfoWindow::shared()) processes->close();
    if (auto* stats = SystemStatsWindow::instance()) stats->close();
    deleteLater();
  }
  void send(SleepEvent event) {
    deliver(event);
    RunLoop::main().runUntilIdle();
  }

  settings_test::Rig rig;
  stats_test::Scratch scratch;
  std::shared_ptr<SystemStats> sampler;
  std::shared_ptr<CountingClient> client = std::make_shared<CountingClient>();
  bool tray = false;
  Steps steps;
  SleepSource::Deliver deliver;
  std::vector<std::string> revealed;  // what the desktop was asked to open
  bool reveal_opens = true;           // whether it had an application for it
  // The platform palette whatever desktop the tests run under, unless a test hands over a bus.
  std::function<QDBusConnection()> desktop_bus = nullptr;
  std::unique_ptr<AppDelegate> app;
};

}  // namespace pelmora::app_test
