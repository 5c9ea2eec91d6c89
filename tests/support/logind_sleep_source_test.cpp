// The logind sleep source against a real bus: a private dbus-daemon, and on it a stand-in for
// logind (sd-bus, as the source is) that answers Inhibit with a pipe and emits PrepareForSleep.
// Both events must arrive, whatever the source read from the bus while it took the inhibitor, and
// releasing the inhibitor closes the pipe's last writer.
#ifdef PELMORA_HAVE_SYSTEMD
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/eventually.h"
#include "common/private_bus.h"
#include "support/sleep_notify.h"
#include "support/unique_fd.h"

namespace pelmora {
namespace {

using namespace std::chrono_literals;

// Owns org.freedesktop.login1 and serves it on a thread of its own (sd-bus objects are not
// thread-safe, so the test asks it to emit through a flag).
class FakeLogind {
 public:
  explicit FakeLogind(const std::string& address) {
    sd_bus_new(&m_bus);
    sd_bus_set_address(m_bus, address.c_str());
    sd_bus_set_bus_client(m_bus, 1);
    ok = sd_bus_start(m_bus) >= 0 && sd_bus_request_name(m_bus, "org.freedesktop.login1", 0) >= 0 &&
         sd_bus_add_object(m_bus, nullptr, "/org/freedesktop/login1", &FakeLogind::onCall, this) >= 0;
    if (ok) m_thread = std::thread([this] { serve(); });
  }
  ~FakeLogind() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    sd_bus_flush_close_unref(m_bus);
  }
  void prepareForSleep(bool sleeping) { m_emit = sleeping ? 1 : 0; }
  // The read end of the last inhibitor handed out (-1 before any).
  int inhibitorReadEnd() {
    std::lock_guard lock(m_mutex);
    return m_read_ends.empty() ? -1 : m_read_ends.back().get();
  }
  bool ok = false;

 private:
  static int onCall(sd_bus_message* m, void* self, sd_bus_error*) {
    if (!sd_bus_message_is_method_call(m, "org.freedesktop.login1.Manager", "Inhibit")) return 0;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -errno;
    auto* fake = static_cast<FakeLogind*>(self);
    {
      std::lock_guard lock(fake->m_mutex);
      fake->m_read_ends.emplace_back(fds[0]);
    }
    const int r = sd_bus_reply_method_return(m, "h", fds[1]);  // the reply carries a duplicate
    close(fds[1]);
    return r < 0 ? r : 1;
  }
  void serve() {
    while (!m_stop) {
      if (const int emit = m_emit.exchange(-1); emit >= 0)
        sd_bus_emit_signal(m_bus, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep", "b",
                           emit);
      while (sd_bus_process(m_bus, nullptr) > 0) {}
      sd_bus_wait(m_bus, 20'000);
    }
  }

  sd_bus* m_bus = nullptr;
  std::thread m_thread;
  std::atomic<bool> m_stop{false};
  std::atomic<int> m_emit{-1};
  std::mutex m_mutex;
  std::vector<UniqueFd> m_read_ends;
};

bool closedByAllWriters(int read_end) {
  pollfd p{read_end, POLLIN, 0};
  return poll(&p, 1, 5000) == 1 && (p.revents & POLLHUP);
}

TEST(LogindSleepSource, PrepareForSleepArrivesThroughARealBus) {
  test::PrivateBus bus;
  ASSERT_TRUE(bus.running()) << "dbus-daemon did not start";
  FakeLogind logind(bus.address());
  ASSERT_TRUE(logind.ok);
  const char* saved = getenv("DBUS_SYSTEM_BUS_ADDRESS");
  const std::string saved_value = saved ? saved : "";
  setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);

  std::mutex mutex;
  std::vector<SleepEvent> events;
  // The events once there are n of them (a lost one fails the wait instead of hanging).
  auto seen = [&](size_t n) {
    std::vector<SleepEvent> copy;
    test::eventually([&] {
      std::lock_guard lock(mutex);
      return (copy = events).size() >= n;
    });
    return copy;
  };
  auto source = makeLogindSleepSource();
  ASSERT_TRUE(source->start([&](SleepEvent e) {
    std::lock_guard lock(mutex);
    events.push_back(e);
  }));
  const int first = logind.inhibitorReadEnd();
  ASSERT_GE(first, 0) << "no Inhibit call reached logind";

  logind.prepareForSleep(true);
  EXPECT_EQ(seen(1), std::vector<SleepEvent>{SleepEvent::willSleep});
  source->releaseSleepDelay();
  EXPECT_TRUE(closedByAllWriters(first)) << "the inhibitor is still held";

  source->holdSleepDelay();
  logind.prepareForSleep(false);
  EXPECT_EQ(seen(2), (std::vector<SleepEvent>{SleepEvent::willSleep, SleepEvent::didWake}));
  source->stop();

  if (saved) setenv("DBUS_SYSTEM_BUS_ADDRESS", saved_value.c_str(), 1);
  else unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

}  // namespace
}  // namespace pelmora
#endif
