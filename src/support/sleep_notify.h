#pragma once
// System sleep and wake, screens sleep and wake, delivered on the main thread (MainQueue).
//
// The events come from a SleepSource. The real one listens to logind's PrepareForSleep(true/false) on
// the system bus and to org.freedesktop.ScreenSaver ActiveChanged on the session bus, on a thread of
// its own. While awake it holds a logind "sleep" delay inhibitor named "Pelmora": logind then waits
// (up to its InhibitDelayMaxSec) until we let go, which gives the handler the time to continue every
// process the limiter holds stopped. The inhibitor is released after the will-sleep handler ran and
// taken again at wake. Without libsystemd or without a system bus there are no events (logged once).
#include <functional>
#include <memory>
#include <string_view>

namespace pelmora {

enum class SleepEvent { willSleep, didWake, screensDidSleep, screensDidWake };

// "willSleep", "didWake", "screensDidSleep", "screensDidWake".
std::string_view sleepEventName(SleepEvent event);

// Where sleep events come from (logind in the program, a fake in tests).
class SleepSource {
 public:
  // Called on the source's own thread.
  using Deliver = std::function<void(SleepEvent)>;
  virtual ~SleepSource() = default;
  // Starts listening; false when there is nothing to listen to.
  virtual bool start(Deliver deliver) = 0;
  // Stops listening and lets go of the inhibitor; no delivery after it returns.
  virtual void stop() = 0;
  // Take / release the sleep delay inhibitor. Any thread.
  virtual void holdSleepDelay() = 0;
  virtual void releaseSleepDelay() = 0;
};

// logind and the screen saver over sd-bus; a source that never delivers without libsystemd.
std::unique_ptr<SleepSource> makeLogindSleepSource();

class SleepNotify {
 public:
  // Runs on the main thread, once per event.
  using Handler = std::function<void(SleepEvent)>;

  explicit SleepNotify(Handler handler, std::unique_ptr<SleepSource> source = makeLogindSleepSource());
  ~SleepNotify();
  SleepNotify(const SleepNotify&) = delete;
  SleepNotify& operator=(const SleepNotify&) = delete;

  // Main thread. Events already queued are dropped.
  void stop();
  bool listening() const { return m_listening; }

 private:
  struct State;
  std::shared_ptr<State> m_state;
  bool m_listening = false;
};

}  // namespace pelmora
