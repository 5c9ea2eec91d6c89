#include "app/pelmora_window.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSlider>

#include <gtest/gtest.h>

#include "common/eventually.h"
#include "helper_link/fallback_transport.h"
#include "helper_link/in_process_transport.h"
#include "settings_test_support.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/settings_keys.h"
#include "support/socket_transport.h"

namespace pelmora {
namespace {

using settings_test::Rig;
using Ints = std::vector<int64_t>;

PelmoraWindow::Options options(bool hardware_threads = true, int own_priority = 0) {
  PelmoraWindow::Options o;
  o.has_hardware_threads = hardware_threads;
  o.own_pid = 4242;
  o.own_priority = own_priority;
  o.start_watch = false;
  return o;
}

const nlohmann::json kStoredBoth = {
    {"Hyperthreads", {{"AC Power", true}, {"Battery Power", false}}},
    {"PreferPhys", {{"AC Power", false}, {"Battery Power", true}}},
    {"Throttle", {{"AC Power", true}, {"Battery Power", false}}},
    {"CPUCount", {{"AC Power", 6}, {"Battery Power", 2}}},
};

// The window on a scripted helper; the broadcasts it posted are delivered before it goes.
struct Opened {
  explicit Opened(const char* power_fixture = "power-laptop-mains") : rig(power_fixture) {}
  ~Opened() { Rig::deliver(); }
  PelmoraWindow& open(const PelmoraWindow::Options& o = options()) {
    w = std::make_unique<PelmoraWindow>(rig.helper, rig.power, rig.limiter, rig.store, o);
    return *w;
  }
  // With rights, as after the lock was opened, and nothing sent yet.
  PelmoraWindow& openAuthorised() {
    open();
    rig.helper.setAuthorised(true);
    w->setEnabledStates();
    rig.clear();
    return *w;
  }
  // `key` of each request of one kind sent since the last clear.
  Ints sent(const std::string& kind, const char* key) const {
    Ints values;
    for (const auto& r : rig.sent(kind)) values.push_back(xpcInt(r, key).value_or(-999));
    return values;
  }
  nlohmann::json stored(const char* key, const char* power = "AC Power") {
    return rig.store.loadDict("CPU_Settings")[key][power];
  }
  // The four settings stored for one power source.
  nlohmann::json storedFor(const char* power) {
    nlohmann::json out;
    for (const char* key : {"Hyperthreads", "PreferPhys", "Throttle", "CPUCount"}) out[key] = stored(key, power);
    return out;
  }
  // The source shown; hyper-threads, physical first and throttling ticked; the processor count and its maximum.
  std::tuple<int, bool, bool, bool, int, int> controls() const {
    return {w->m_powersource->currentIndex(), w->m_hyperthreading->isChecked(), w->m_prefer_phys->isChecked(),
            w->m_throttle->isChecked(),       w->m_cpucontrol->value(),         w->m_cpucontrol->maximum()};
  }

  Rig rig;
  std::unique_ptr<PelmoraWindow> w;
};

TEST(PelmoraWindow, LockButtonAuthorisesOnlyWhenTheHelperAgreesAndTheControlsFollow) {
  for (const std::string reply : {"OK", "the privileged helper is not running"}) {
    SCOPED_TRACE(reply);
    const bool ok = reply == "OK";
    Opened x;
    x.rig.script.authorize_reply = reply;
    PelmoraWindow& w = x.open();
    LogCapture log;
    w.m_auth->click();
    // The answer comes from the client's worker thread through the main queue.
    EXPECT_TRUE(test::eventually([&] { return !x.rig.helper.authorizationPending(); }));
    Rig::deliver();
    EXPECT_EQ(x.rig.helper.authorised(), ok);
    EXPECT_EQ(w.m_throttle->isEnabled(), ok);
    EXPECT_EQ(w.m_powersource->isEnabled(), ok);
    EXPECT_TRUE(w.m_prefer_phys->isEnabled() && w.m_auth->isEnabled());
    // Hyper-threading and the processor count stay locked either way.
    EXPECT_FALSE(w.m_hyperthreading->isEnabled() || w.m_cpucontrol->controlEnabled() ||
                 w.m_cpucontrol->m_slider->isEnabled());
    EXPECT_EQ(log.contains("CPU settings: authorisation refused: " + reply + "."), !ok);
    EXPECT_EQ(w.m_notice->text().contains(QString::fromStdString(reply)), !ok);
  }
}

TEST(PelmoraWindow, LoadSendsTheActiveSourcesSettingsAndShowingTheOtherSendsNothing) {
  Opened x;
  x.rig.store.saveDict("CPU_Settings", kStoredBoth);
  PelmoraWindow& w = x.open();
  EXPECT_EQ(x.controls(), std::tuple(0, true, false, true, 6, 8));
  EXPECT_EQ(w.m_header_title->text(), QStringLiteral("Pelmora — on AC power"));
  EXPECT_EQ(w.m_log_cpu->text(), QStringLiteral("6"));
  EXPECT_EQ(w.m_phys_cpu->text(), QStringLiteral("3"));
  EXPECT_EQ(x.sent("setcpucount", "count"), Ints{6});
  EXPECT_EQ(x.sent("setcpucount", "prefer_phys"), Ints{0});
  EXPECT_EQ(x.sent("throttle", "enable"), Ints{1});

  // Showing the battery's settings while on AC sends nothing.
  x.rig.helper.setAuthorised(true);
  x.rig.clear();
  x.rig.script.counts = {16, 8, 6, 3};  // a larger maximum must not reach the slider either
  w.m_powersource->setCurrentIndex(1);
  w.changePowerSource();
  EXPECT_EQ(x.controls(), std::tuple(1, false, true, false, 2, 8));
  // Editing the battery set stores it under the battery only.
  w.m_prefer_phys->click();
  EXPECT_TRUE(x.rig.sent("setcpucount").empty() && x.rig.sent("throttle").empty());
  using json = nlohmann::json;
  EXPECT_EQ(x.storedFor("AC Power"),
            (json{{"Hyperthreads", true}, {"PreferPhys", false}, {"Throttle", true}, {"CPUCount", 6}}));
  EXPECT_EQ(x.storedFor("Battery Power"),
            (json{{"Hyperthreads", false}, {"PreferPhys", false}, {"Throttle", false}, {"CPUCount", 2}}));
}

TEST(PelmoraWindow, FreshStoreFillsDefaultsAndHidesThreadControlsWithoutHardwareThreads) {
  for (const bool threads : {true, false}) {
    SCOPED_TRACE(threads ? "hardware threads" : "none");
    Opened x;
    PelmoraWindow& w = x.open(options(threads));
    w.storeSettings();
    EXPECT_EQ(x.storedFor("AC Power"),
              (nlohmann::json{{"Hyperthreads", threads}, {"PreferPhys", true}, {"Throttle", true}, {"CPUCount", 6}}));
    EXPECT_EQ(w.m_hyperthreading->isHidden(), !threads);
    EXPECT_EQ(w.m_prefer_phys->isHidden(), !threads);
  }
}

// A power-source broadcast selects and applies the new source; a closed window does not hear it
// (and stops its watch unless the status item shows the limited count), and catches up when shown.
TEST(PelmoraWindow, PowerSourceBroadcastAppliesTheNewSourceAndAClosedWindowCatchesUpWhenShown) {
  for (const bool status_item : {false, true}) {
    SCOPED_TRACE(status_item ? "with a status item" : "without");
    Opened x;
    x.rig.store.saveDict("CPU_Settings", kStoredBoth);
    keys::kShowMenubar.save(x.rig.store, status_item);
    PelmoraWindow::Options o = options();
    o.start_watch = true;
    PelmoraWindow& w = x.open(o);
    Rig::deliver();
    x.rig.clear();
    int cpu_changed = 0;
    AddListener("net.tandrel.pelmora.cpuchanged", "test", [&](const std::string&) { ++cpu_changed; });
    x.rig.power.switchSource();
    Rig::deliver();
    RemoveListener("net.tandrel.pelmora.cpuchanged", "test");
    EXPECT_EQ(w.m_powersource->currentIndex(), 1);
    EXPECT_EQ(w.m_header_title->text(), QStringLiteral("Pelmora — on battery power"));
    ASSERT_FALSE(x.sent("setcpucount", "hyper").empty());
    EXPECT_EQ(x.sent("setcpucount", "hyper").back(), 0);
    EXPECT_EQ(x.sent("setcpucount", "prefer_phys").back(), 1);
    EXPECT_EQ(cpu_changed, static_cast<int>(x.rig.sent("setcpucount").size()));
    // The battery's throttling choice goes out as the battery becomes the source in force.
    EXPECT_EQ(x.sent("throttle", "enable"), Ints{0});

    w.show();
    w.close();
    EXPECT_EQ(w.watching(), status_item);
    x.rig.clear();
    x.rig.power.switchSource();
    Rig::deliver();
    EXPECT_EQ(w.m_powersource->currentIndex(), 1) << "closed: the broadcast is not heard";
    EXPECT_TRUE(x.rig.sent("setcpucount").empty());
    w.show();
    EXPECT_TRUE(w.watching());
    EXPECT_EQ(w.m_powersource->currentIndex(), 0) << "shown again: the source in force is applied";
    ASSERT_FALSE(x.rig.sent("setcpucount").empty());
    EXPECT_EQ(x.sent("setcpucount", "count").front(), 6) << "AC's stored count";
    w.close();
  }
}

TEST(PelmoraWindow, SwitchingToBatteryOnAMachineWithoutOneSaysWhy) {
  for (const auto& [fixture, note] :
       {std::pair{"power-desktop", true}, {"power-desktop-mouse", true}, {"power-laptop-mains", false}}) {
    SCOPED_TRACE(fixture);
    Opened x(fixture);
    PelmoraWindow& w = x.open();
    EXPECT_TRUE(w.m_power_note->isHidden());
    w.m_power_switch->click();
    Rig::deliver();
    EXPECT_EQ(w.m_powersource->currentIndex(), 1);
    EXPECT_EQ(!w.m_power_note->isHidden(), note);
    w.m_power_switch->click();
    Rig::deliver();
    EXPECT_TRUE(w.m_power_note->isHidden());
  }
}

TEST(PelmoraWindow, ShowsWhoServesTheHelperRequests) {
  Opened x;
  EXPECT_EQ(x.open().m_mode->text(), helperModeText(true));
  // No daemon: the handler code in this process, with the user's rights, on a fixture tree.
  HelperOptions in_process;
  // A copy: the handler switches processors in the tree it is given.
  std::filesystem::copy(std::string(PELMORA_FIXTURES) + "/cpu-nosmt-4c", x.rig.dir / "sys",
                        std::filesystem::copy_options::recursive);
  in_process.root = SysRoot("/proc", (x.rig.dir / "sys").string());
  in_process.privileged = false;
  Pelmora alone(std::make_unique<FallbackTransport>(std::make_unique<SocketTransport>(""), [] { return false; },
                                                    std::make_unique<InProcessTransport>(in_process)));
  PelmoraWindow w(alone, x.rig.power, x.rig.limiter, x.rig.store, options());
  EXPECT_EQ(w.m_mode->text(), helperModeText(false));
  Rig::deliver();
}

TEST(PelmoraWindow, RefusedChangesKeepTheUsersChoiceAndSayWhy) {
  for (const auto& [key, line] : {std::pair{"PreferPhys", "setcpucount response: not authorised."},
                                  {"Throttle", "throttle response: not authorised."}}) {
    SCOPED_TRACE(key);
    Opened x;
    x.rig.store.saveDict("CPU_Settings", kStoredBoth);
    x.rig.store.saveBool("WARN_throttle", false);
    PelmoraWindow& w = x.openAuthorised();
    x.rig.script.command_reply = "not authorised";
    QCheckBox* box = std::string(key) == "Throttle" ? w.m_throttle : w.m_prefer_phys;
    const bool chosen = !box->isChecked();
    LogCapture log;
    box->click();
    EXPECT_TRUE(log.contains(line));
    EXPECT_EQ(box->isChecked(), chosen);
    EXPECT_EQ(x.stored(key), chosen);
    EXPECT_TRUE(w.m_notice->text().endsWith(QStringLiteral(": not authorised."))) << w.m_notice->text().toStdString();
    x.rig.script.command_reply = "OK";
    box->click();
    EXPECT_TRUE(w.m_notice->text().isEmpty()) << "a change that went through clears the notice";
  }
}

TEST(PelmoraWindow, ThrottlingWarning) {
  enum class Answer { none, disable, cancel };
  const struct {
    const char* what;
    bool warn;
    Answer answer;
    bool suppress, box_on;
    Ints sent;  // "enable" values after the click
    bool warn_after;
  } cases[] = {
      {"no warning", false, Answer::none, false, false, {0}, false},
      {"disable", true, Answer::disable, false, false, {0}, true},
      {"disable, never again", true, Answer::disable, true, false, {0}, false},
      {"cancel", true, Answer::cancel, true, true, {}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Opened x;
    x.rig.store.saveBool("WARN_throttle", c.warn);
    PelmoraWindow& w = x.openAuthorised();
    w.m_throttle->click();
    ASSERT_EQ(!w.m_throttle_alert.isNull(), c.answer != Answer::none);
    if (QMessageBox* box = w.m_throttle_alert) {
      EXPECT_EQ(box->text(), QStringLiteral("Possible performance degradation"));
      EXPECT_EQ(box->windowModality(), Qt::WindowModal);
      EXPECT_TRUE(x.rig.sent("throttle").empty()) << "nothing is sent before the answer";
      box->checkBox()->setChecked(c.suppress);
      const QString label = c.answer == Answer::disable ? QStringLiteral("Disable throttling") : QStringLiteral("Cancel");
      for (QAbstractButton* b : box->buttons())
        if (b->text() == label) b->click();
    }
    EXPECT_EQ(x.sent("throttle", "enable"), c.sent);
    EXPECT_EQ(w.m_throttle->isChecked(), c.box_on);
    EXPECT_EQ(x.rig.store.loadBool("WARN_throttle", true), c.warn_after);
    EXPECT_EQ(x.stored("Throttle"), c.box_on);
  }
}

TEST(PelmoraWindow, LimiterWatchRaisesAndRestoresTheOwnPriorityOnce) {
  // Five points up, never past -20.
  for (const auto& [own, raised] : {std::pair{0, -5}, {10, 5}, {-18, -20}}) {
    SCOPED_TRACE(own);
    Opened x;
    PelmoraWindow& w = x.open(options(true, own));
    x.rig.clear();
    const std::pair<int, const char*> counts[] = {{0, "none"},        {1, "1 process"},   {3, "3 processes"},
                                                  {3, "3 processes"}, {5, "5 processes"}, {0, "none"}};
    std::vector<int32_t> held;
    for (const auto& [n, caption] : counts) {
      for (MutexLock lock(x.rig.limiter.mutex()); static_cast<int>(held.size()) < n;) {
        held.push_back(900000 + static_cast<int32_t>(held.size()));
        x.rig.limiter.setLimit(held.back(), 0.5);
      }
      for (; static_cast<int>(held.size()) > n; held.pop_back()) x.rig.limiter.clearLimit(held.back());
      w.limiterWatch();
      EXPECT_EQ(w.m_constrained->text().toStdString(), caption);
    }
    EXPECT_EQ(x.sent("setpriority", "pid"), (Ints{4242, 4242}));
    EXPECT_EQ(x.sent("setpriority", "priority"), (Ints{raised, own}));
  }
}

}  // namespace
}  // namespace pelmora
