#include "app/pelmora_window.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSlider>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "helper_link/fallback_transport.h"
#include "helper_link/in_process_transport.h"
#include "settings_test_support.h"
#include "support/socket_transport.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

using settings_test::Rig;

PelmoraWindow::Options options(bool hardware_threads = true, int own_priority = 0) {
  PelmoraWindow::Options o;
  o.has_hardware_threads = hardware_threads;
  o.own_pid = 4242;
  o.own_priority = own_priority;
  o.start_watch = false;
  return o;
}

int64_t intIn(const XPCDict& d, const char* key) { return xpcInt(d, key).value_or(-999); }

const nlohmann::json kStoredBoth = {
    {"Hyperthreads", {{"AC Power", true}, {"Battery Power", false}}},
    {"PreferPhys", {{"AC Power", false}, {"Battery Power", true}}},
    {"Throttle", {{"AC Power", true}, {"Battery Power", false}}},
    {"CPUCount", {{"AC Power", 6}, {"Battery Power", 2}}},
};

TEST(PelmoraWindow, LockButtonAuthorisesOnlyWhenTheHelperAgreesAndTheControlsFollow) {
  struct Case { std::string reply; bool authorised; bool logged; };
  for (const Case& c : {Case{"OK", true, false}, Case{"the privileged helper is not running", false, true}}) {
    Rig rig;
    rig.script.authorize_reply = c.reply;
    PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options());
    LogCapture log;
    w.m_auth->click();
    // The answer comes from the client's worker thread through the main queue.
    for (int i = 0; i < 500 && rig.helper.authorizationPending(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    Rig::deliver();
    EXPECT_EQ(rig.helper.authorised(), c.authorised) << c.reply;
    EXPECT_EQ(w.m_throttle->isEnabled(), c.authorised) << c.reply;
    EXPECT_EQ(w.m_powersource->isEnabled(), c.authorised) << c.reply;
    EXPECT_TRUE(w.m_prefer_phys->isEnabled() && w.m_auth->isEnabled()) << c.reply;
    // Hyper-threading and the processor count stay locked either way.
    EXPECT_FALSE(w.m_hyperthreading->isEnabled() || w.m_cpucontrol->controlEnabled() ||
                 w.m_cpucontrol->m_slider->isEnabled())
        << c.reply;
    EXPECT_EQ(log.contains("CPU settings: authorisation refused: " + c.reply + "."), c.logged) << c.reply;
    EXPECT_EQ(w.m_notice->text().contains(QString::fromStdString(c.reply)), c.logged) << c.reply;
  }
}

TEST(PelmoraWindow, LoadSendsTheActiveSourcesSettingsAndShowingTheOtherSendsNothing) {
  Rig rig;
  rig.store.saveDict("CPU_Settings", kStoredBoth);
  PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options());
  EXPECT_EQ(w.m_powersource->currentIndex(), 0);
  EXPECT_EQ(w.m_header_title->text(), QStringLiteral("Pelmora — on AC power"));
  EXPECT_TRUE(w.m_hyperthreading->isChecked());
  EXPECT_FALSE(w.m_prefer_phys->isChecked());
  EXPECT_EQ(w.m_cpucontrol->maximum(), 8);
  EXPECT_EQ(w.m_log_cpu->text(), QStringLiteral("6"));
  EXPECT_EQ(w.m_phys_cpu->text(), QStringLiteral("3"));
  const auto set = rig.sent("setcpucount");
  ASSERT_EQ(set.size(), 1u);
  EXPECT_EQ(intIn(set[0], "count"), 6);
  EXPECT_EQ(intIn(set[0], "prefer_phys"), 0);
  ASSERT_EQ(rig.sent("throttle").size(), 1u);
  EXPECT_EQ(intIn(rig.sent("throttle")[0], "enable"), 1);

  // Showing the battery's settings while on AC sends nothing.
  rig.helper.setAuthorised(true);
  rig.clear();
  rig.script.counts = {16, 8, 6, 3};  // a larger maximum must not reach the slider either
  w.m_powersource->setCurrentIndex(1);
  w.changePowerSource();
  EXPECT_TRUE(rig.sent("setcpucount").empty());
  EXPECT_TRUE(rig.sent("throttle").empty());
  EXPECT_EQ(w.m_cpucontrol->maximum(), 8);
  EXPECT_FALSE(w.m_hyperthreading->isChecked());
  EXPECT_TRUE(w.m_prefer_phys->isChecked());
  EXPECT_FALSE(w.m_throttle->isChecked());
  EXPECT_EQ(w.m_cpucontrol->value(), 2);
  // Editing the battery set stores it under the battery only.
  w.m_prefer_phys->click();
  EXPECT_TRUE(rig.sent("setcpucount").empty());
  const auto stored = rig.store.loadDict("CPU_Settings");
  EXPECT_EQ(stored["PreferPhys"]["Battery Power"], false);
  EXPECT_EQ(stored["PreferPhys"]["AC Power"], false);
  EXPECT_EQ(stored["CPUCount"]["Battery Power"], 2);
  EXPECT_EQ(stored["CPUCount"]["AC Power"], 6);
  Rig::deliver();
}

TEST(PelmoraWindow, FreshStoreFillsDefaultsAndHidesThreadControlsWithoutHardwareThreads) {
  struct Case { bool threads; bool hyper; bool hidden; };
  for (const Case c : {Case{true, true, false}, Case{false, false, true}}) {
    Rig rig;
    PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options(c.threads));
    w.storeSettings();
    const auto stored = rig.store.loadDict("CPU_Settings");
    EXPECT_EQ(stored["Hyperthreads"]["AC Power"], c.hyper) << c.threads;
    EXPECT_EQ(stored["PreferPhys"]["AC Power"], true) << c.threads;
    EXPECT_EQ(stored["Throttle"]["AC Power"], true) << c.threads;
    EXPECT_EQ(stored["CPUCount"]["AC Power"], 6) << c.threads;
    EXPECT_EQ(w.m_hyperthreading->isHidden(), c.hidden) << c.threads;
    EXPECT_EQ(w.m_prefer_phys->isHidden(), c.hidden) << c.threads;
    Rig::deliver();
  }
}

TEST(PelmoraWindow, PowerSourceBroadcastSelectsAndAppliesTheNewSource) {
  Rig rig;
  rig.store.saveDict("CPU_Settings", kStoredBoth);
  PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options());
  Rig::deliver();
  rig.clear();
  int cpu_changed = 0;
  AddListener("net.tandrel.pelmora.cpuchanged", "test", [&](const std::string&) { ++cpu_changed; });
  rig.power.switchSource();
  Rig::deliver();
  EXPECT_EQ(w.m_powersource->currentIndex(), 1);
  EXPECT_EQ(w.m_header_title->text(), QStringLiteral("Pelmora — on battery power"));
  const auto set = rig.sent("setcpucount");
  ASSERT_FALSE(set.empty());
  EXPECT_EQ(intIn(set.back(), "hyper"), 0);
  EXPECT_EQ(intIn(set.back(), "prefer_phys"), 1);
  EXPECT_EQ(cpu_changed, static_cast<int>(set.size()));
  // The battery's throttling choice goes out as the battery becomes the source in force.
  ASSERT_FALSE(rig.sent("throttle").empty());
  EXPECT_EQ(intIn(rig.sent("throttle").back(), "enable"), 0);
  RemoveListener("net.tandrel.pelmora.cpuchanged", "test");
}

TEST(PelmoraWindow, SwitchingToBatteryOnAMachineWithoutOneSaysWhy) {
  struct Case {
    const char* fixture;
    bool note;
  };
  for (const Case c : {Case{"power-desktop", true}, Case{"power-desktop-mouse", true}, Case{"power-laptop-mains", false}}) {
    SCOPED_TRACE(c.fixture);
    Rig rig(c.fixture);
    PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options());
    EXPECT_TRUE(w.m_power_note->isHidden());
    w.m_power_switch->click();
    Rig::deliver();
    EXPECT_EQ(w.m_powersource->currentIndex(), 1);
    EXPECT_EQ(!w.m_power_note->isHidden(), c.note);
    w.m_power_switch->click();
    Rig::deliver();
    EXPECT_TRUE(w.m_power_note->isHidden());
  }
}

TEST(PelmoraWindow, ShowsWhoServesTheHelperRequests) {
  Rig rig;
  EXPECT_EQ(PelmoraWindow(rig.helper, rig.power, rig.limiter, rig.store, options()).m_mode->text(), helperModeText(true));
  // No daemon: the handler code in this process, with the user's rights, on a fixture tree.
  HelperOptions in_process;
  // A copy: the handler switches processors in the tree it is given.
  std::filesystem::copy(std::string(PELMORA_FIXTURES) + "/cpu-nosmt-4c", rig.dir / "sys",
                        std::filesystem::copy_options::recursive);
  in_process.root = SysRoot("/proc", (rig.dir / "sys").string());
  in_process.privileged = false;
  LogCapture log;
  Pelmora alone(std::make_unique<FallbackTransport>(std::make_unique<SocketTransport>(""), [] { return false; },
                                                    std::make_unique<InProcessTransport>(in_process)));
  PelmoraWindow w(alone, rig.power, rig.limiter, rig.store, options());
  EXPECT_EQ(w.m_mode->text(), helperModeText(false));
  const auto lines = log.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), FallbackTransport::kInProcessLine), 1) << "said once in the log";
  Rig::deliver();
}

TEST(PelmoraWindow, ClosingStopsTheWatchAndTheListenersAndShowingCatchesUp) {
  for (const bool status_item : {false, true}) {
    Rig rig;
    rig.store.saveDict("CPU_Settings", kStoredBoth);
    keys::kShowMenubar.save(rig.store, status_item);
    PelmoraWindow::Options o = options();
    o.start_watch = true;
    PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, o);
    w.show();
    w.close();
    // With a status item the watch goes on: the limited count is shown there.
    EXPECT_EQ(w.watching(), status_item) << status_item;
    rig.clear();
    rig.power.switchSource();
    Rig::deliver();
    EXPECT_EQ(w.m_powersource->currentIndex(), 0) << "closed: the broadcast is not heard";
    EXPECT_TRUE(rig.sent("setcpucount").empty());
    w.show();
    EXPECT_TRUE(w.watching());
    EXPECT_EQ(w.m_powersource->currentIndex(), 1) << "shown again: the source in force is applied";
    ASSERT_FALSE(rig.sent("setcpucount").empty());
    EXPECT_EQ(intIn(rig.sent("setcpucount").front(), "count"), 2) << "the battery's stored count";
    w.close();
    Rig::deliver();
  }
}

TEST(PelmoraWindow, RefusedChangesKeepTheUsersChoiceAndSayWhy) {
  struct Case { const char* what; bool throttle; const char* key; const char* line; };
  for (const Case c : {Case{"prefer physical", false, "PreferPhys", "setcpucount response: not authorised."},
                       Case{"throttling off", true, "Throttle", "throttle response: not authorised."}}) {
    Rig rig;
    rig.store.saveDict("CPU_Settings", kStoredBoth);
    rig.store.saveBool("WARN_throttle", false);
    PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options());
    rig.helper.setAuthorised(true);
    w.setEnabledStates();
    rig.script.command_reply = "not authorised";
    QCheckBox* box = c.throttle ? w.m_throttle : w.m_prefer_phys;
    const bool chosen = !box->isChecked();
    LogCapture log;
    box->click();
    EXPECT_TRUE(log.contains(c.line)) << c.what;
    EXPECT_EQ(box->isChecked(), chosen) << c.what;
    EXPECT_EQ(rig.store.loadDict("CPU_Settings")[c.key]["AC Power"], chosen) << c.what;
    EXPECT_TRUE(w.m_notice->text().endsWith(QStringLiteral(": not authorised."))) << w.m_notice->text().toStdString();
    rig.script.command_reply = "OK";
    box->click();
    EXPECT_TRUE(w.m_notice->text().isEmpty()) << c.what << ": a change that went through clears the notice";
    Rig::deliver();
  }
}

TEST(PelmoraWindow, ThrottlingWarning) {
  enum class Answer { none, disable, cancel };
  struct Case {
    const char* what;
    bool warn;
    Answer answer;
    bool suppress;
    bool box_on;
    std::vector<int64_t> sent;  // "enable" values after the click
    bool warn_after;
  };
  const Case cases[] = {
      {"no warning", false, Answer::none, false, false, {0}, false},
      {"disable", true, Answer::disable, false, false, {0}, true},
      {"disable, never again", true, Answer::disable, true, false, {0}, false},
      {"cancel", true, Answer::cancel, true, true, {}, true},
  };
  for (const auto& c : cases) {
    Rig rig;
    rig.store.saveBool("WARN_throttle", c.warn);
    PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options());
    rig.helper.setAuthorised(true);
    w.setEnabledStates();
    rig.clear();
    w.m_throttle->click();
    EXPECT_EQ(!w.m_throttle_alert.isNull(), c.answer != Answer::none) << c.what;
    if (w.m_throttle_alert) {
      QMessageBox* box = w.m_throttle_alert;
      EXPECT_EQ(box->text(), QStringLiteral("Possible performance degradation"));
      EXPECT_EQ(box->windowModality(), Qt::WindowModal);
      EXPECT_TRUE(rig.sent("throttle").empty()) << c.what << ": nothing is sent before the answer";
      box->checkBox()->setChecked(c.suppress);
      const QString label = c.answer == Answer::disable ? QStringLiteral("Disable throttling") : QStringLiteral("Cancel");
      for (QAbstractButton* b : box->buttons())
        if (b->text() == label) b->click();
    }
    std::vector<int64_t> sent;
    for (const auto& r : rig.sent("throttle")) sent.push_back(intIn(r, "enable"));
    EXPECT_EQ(sent, c.sent) << c.what;
    EXPECT_EQ(w.m_throttle->isChecked(), c.box_on) << c.what;
    EXPECT_EQ(rig.store.loadBool("WARN_throttle", true), c.warn_after) << c.what;
    EXPECT_EQ(rig.store.loadDict("CPU_Settings")["Throttle"]["AC Power"], c.box_on) << c.what;
    Rig::deliver();
  }
}

TEST(PelmoraWindow, LimiterWatchRaisesAndRestoresTheOwnPriorityOnce) {
  struct Case { int own; int raised; };
  // Five points up, never past -20.
  for (const Case c : {Case{0, -5}, Case{10, 5}, Case{-18, -20}}) {
    Rig rig;
    PelmoraWindow w(rig.helper, rig.power, rig.limiter, rig.store, options(true, c.own));
    rig.clear();
    const std::pair<int, const char*> counts[] = {{0, "none"}, {1, "1 process"}, {3, "3 processes"},
                                                  {3, "3 processes"}, {5, "5 processes"}, {0, "none"}};
    std::vector<int32_t> held;
    for (const auto& [n, caption] : counts) {
      {
        MutexLock lock(rig.limiter.mutex());
        while (static_cast<int>(held.size()) < n) {
          held.push_back(900000 + static_cast<int32_t>(held.size()));
          rig.limiter.setLimit(held.back(), 0.5);
        }
      }
      while (static_cast<int>(held.size()) > n) {
        rig.limiter.clearLimit(held.back());
        held.pop_back();
      }
      w.limiterWatch();
      EXPECT_EQ(w.m_constrained->text().toStdString(), caption);
    }
    const auto set = rig.sent("setpriority");
    ASSERT_EQ(set.size(), 2u) << c.own;
    EXPECT_EQ(intIn(set[0], "pid"), 4242);
    EXPECT_EQ(intIn(set[0], "priority"), c.raised) << c.own;
    EXPECT_EQ(intIn(set[1], "priority"), c.own) << c.own;
    Rig::deliver();
  }
}

}  // namespace
}  // namespace pelmora
