#include "support/sleep_notify.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "support/logger.h"
#include "support/main_queue.h"
#include "support/mutex.h"
#include "support/unique_fd.h"

#ifdef PELMORA_HAVE_SYSTEMD
#include <fcntl.h>
#include <systemd/sd-bus.h>
#endif

namespace pelmora {

std::string_view sleepEventName(SleepEvent event) {
  switch (event) {
    case SleepEvent::willSleep: return "willSleep";
    case SleepEvent::didWake: return "didWake";
    case SleepEvent::screensDidSleep: return "screensDidSleep";
    case SleepEvent::screensDidWake: return "screensDidWake";
  }
  return "";
}

namespace {

void logUnavailableOnce(std::string_view why) {
  static std::once_flag once;
  std::call_once(once, [why] { Log(std::string("Sleep notifications unavailable: ") + std::string(why) + "."); });
}

#ifdef PELMORA_HAVE_SYSTEMD

// sd-bus objects are not thread-safe: only the listening thread touches the buses. The main thread
// asks for the inhibitor through a flag and the wake-up eventfd; releasing is closing a descriptor.
class LogindSleepSource : public SleepSource {
 public:
  ~LogindSleepSource() override { stop(); }

  bool start(Deliver deliver) override {
    if (sd_bus_open_system(&m_system) < 0) {
      logUnavailableOnce("no system bus");
      return false;
    }
    if (sd_bus_match_signal(m_system, nullptr, "org.freedesktop.login1", "/org/freedesktop/login1",
                            "org.freedesktop.login1.Manager", "PrepareForSleep", &LogindSleepSource::onPrepare,
                            this) < 0) {
      logUnavailableOnce("logind does not answer");
      return false;
    }
    // The screen saver lives on the session bus and only on some desktops.
    if (sd_bus_open_user(&m_session) >= 0)
      sd_bus_match_signal(m_session, nullptr, nullptr, nullptr, "org.freedesktop.ScreenSaver", "ActiveChanged",
                          &LogindSleepSource::onScreenSaver, this);
    m_wake = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_deliver = std::move(deliver);
    m_want_hold = true;
    takeInhibitor();
    m_thread = std::thread([this] { run(); });
    return true;
  }

  void stop() override {
    if (m_thread.joinable()) {
      m_stop = true;
      poke();
      m_thread.join();
    }
    releaseSleepDelay();
    m_system = sd_bus_flush_close_unref(m_system);
    m_session = sd_bus_flush_close_unref(m_session);
  }

  void holdSleepDelay() override {
    m_want_hold = true;
    poke();
  }

  void releaseSleepDelay() override {
    m_want_hold = false;
    MutexLock lock(m_mutex);
    if (!m_inhibitor) return;
    m_inhibitor.reset();
    Log("Sleep delay released: the \"Pelmora\" sleep inhibitor.");
  }

 private:
  void poke() {
    if (m_wake) {
      uint64_t one = 1;
      [[maybe_unused]] auto n = write(m_wake.get(), &one, sizeof one);
    }
  }

  static int onPrepare(sd_bus_message* message, void* self, sd_bus_error*) {
    int sleeping = 0;
    if (sd_bus_message_read(message, "b", &sleeping) >= 0)
      static_cast<LogindSleepSource*>(self)->m_deliver(sleeping ? SleepEvent::willSleep : SleepEvent::didWake);
    return 0;
  }

  static int onScreenSaver(sd_bus_message* message, void* self, sd_bus_error*) {
    int active = 0;
    if (sd_bus_message_read(message, "b", &active) >= 0)
      static_cast<LogindSleepSource*>(self)->m_deliver(active ? SleepEvent::screensDidSleep
                                                              : SleepEvent::screensDidWake);
    return 0;
  }

  // Inhibit returns a descriptor owned by the reply; we keep a duplicate for as long as we hold it.
  void takeInhibitor() {
    {
      MutexLock lock(m_mutex);
      if (m_inhibitor || !m_want_hold) return;
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int fd = -1;
    if (sd_bus_call_method(m_system, "org.freedesktop.login1", "/org/freedesktop/login1",
                           "org.freedesktop.login1.Manager", "Inhibit", &error, &reply, "ssss", "sleep", "Pelmora",
                           "Continue limited processes before sleep", "delay") >= 0 &&
        sd_bus_message_read(reply, "h", &fd) >= 0) {
      MutexLock lock(m_mutex);
      if (m_want_hold) m_inhibitor = UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, 3));
      if (m_inhibitor) Log("Sleep delay held: the \"Pelmora\" sleep inhibitor.");
    } else {
      Log(std::string("Sleep delay not held: ") + (error.message ? error.message : "no reply") + ".");
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
  }

  // Every blocking call (AddMatch, Inhibit) reads whatever else arrives meanwhile into the bus's
  // queue, and while that queue holds anything sd_bus_get_events asks for no POLLIN: so the queue
  // is emptied before each wait, or a PrepareForSleep behind it would wait for the next wake-up.
  void run() {
    while (!m_stop) {
      if (m_want_hold) takeInhibitor();
      while (sd_bus_process(m_system, nullptr) > 0) {}
      if (m_session)
        while (sd_bus_process(m_session, nullptr) > 0) {}
      pollfd fds[3] = {{m_wake.get(), POLLIN, 0}, busPoll(m_system), busPoll(m_session)};
      poll(fds, m_session ? 3 : 2, -1);
      uint64_t count = 0;
      [[maybe_unused]] auto n = read(m_wake.get(), &count, sizeof count);
    }
  }

  static pollfd busPoll(sd_bus* bus) {
    if (!bus) return {-1, 0, 0};
    return {sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0};
  }

  sd_bus* m_system = nullptr;
  sd_bus* m_session = nullptr;
  Deliver m_deliver;
  UniqueFd m_wake;
  std::thread m_thread;
  std::atomic<bool> m_stop{false};
  std::atomic<bool> m_want_hold{false};
  Mutex m_mutex;  // guards m_inhibitor
  UniqueFd m_inhibitor;
};

#else

class LogindSleepSource : public SleepSource {
 public:
  bool start(Deliver) override {
    logUnavailableOnce("built without libsystemd");
    return false;
  }
  void stop() override {}
  void holdSleepDelay() override {}
  void releaseSleepDelay() override {}
};

#endif

}  // namespace

std::unique_ptr<SleepSource> makeLogindSleepSource() { return std::make_unique<LogindSleepSource>(); }

// Shared with the queued jobs, so a job that runs after stop() finds the handler gone.
struct SleepNotify::State {
  Handler handler;
  std::unique_ptr<SleepSource> source;
  bool stopped = false;  // main thread only
};

SleepNotify::SleepNotify(Handler handler, std::unique_ptr<SleepSource> source) : m_state(std::make_shared<State>()) {
  m_state->handler = std::move(handler);
  m_state->source = std::move(source);
  std::weak_ptr<State> weak = m_state;
  m_listening = m_state->source && m_state->source->start([weak](SleepEvent event) {
    MainQueue::post([weak, event] {
      auto state = weak.lock();
      if (!state || state->stopped) return;
      // Take the inhibitor back before anything else can make the machine sleep again.
      if (event == SleepEvent::didWake) state->source->holdSleepDelay();
      state->handler(event);
      // The limiter has continued everything: the machine may sleep now.
      if (event == SleepEvent::willSleep) state->source->releaseSleepDelay();
    });
  });
}

SleepNotify::~SleepNotify() { stop(); }

void SleepNotify::stop() {
  if (m_state->stopped) return;
  m_state->stopped = true;
  if (m_state->source) m_state->source->stop();
  m_listening = false;
}

}  // namespace pelmora
