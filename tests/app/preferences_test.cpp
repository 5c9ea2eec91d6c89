#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QMessageBox>
#include <QSpinBox>
#include <QToolBar>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "app/preferences_pid.h"
#include "app/preferences_window.h"
#include "app/process_preferences.h"
#include "graphs/views/preferences_graph.h"
#include "settings_test_support.h"
#include "support/broadcast.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;
using settings_test::Rig;

// Counts "net.tandrel.pelmora.prefschanged" as it is delivered.
struct PrefsChangedCounter {
  PrefsChangedCounter() {
    Rig::deliver();
    AddListener("net.tandrel.pelmora.prefschanged", "test", [this](const std::string&) { ++count; });
  }
  ~PrefsChangedCounter() { RemoveListener("net.tandrel.pelmora.prefschanged", "test"); }
  int delivered() {
    Rig::deliver();
    return count;
  }
  int count = 0;
};

struct BootRig : Rig {
  BootRig() {
    fs::create_directories(dir / "resources");
    for (const char* f : {"applyboot.sh", "pelmora", "net.tandrel.bootpelmora.service"})
      std::ofstream(dir / "resources" / f) << "x";
    options.boot = BootLocations{dir / "lib", dir / "unit.service", dir / "resources"};
  }
  std::unique_ptr<ProcessPreferences> pane() {
    return std::make_unique<ProcessPreferences>(store, helper, [] { return std::optional<BootControls>(BootControls{}); },
                                                options);
  }
  ProcessPreferences::Options options{LaunchAtLogin(dir / "autostart" / "net.tandrel.pelmora.desktop", "/bin/true"),
                                      BootLocations{}};
};

TEST(ProcessPreferences, DockIconAndStatusItemAreNeverBothOff) {
  struct Case { bool dock_before, tray_before; const char* click; bool dock_after, tray_after; };
  const Case cases[] = {
      {false, true, "tray", true, false},  // unchecking the tray while the Dock is off re-checks the Dock
      {true, true, "dock", false, true},
      {true, false, "dock", true, false},  // the Dock cannot be the last one to go
      {true, false, "tray", true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.click);
    BootRig rig;
    rig.store.saveBool("show_dock", c.dock_before);
    rig.store.saveBool("show_menubar", c.tray_before);
    auto p = rig.pane();
    PrefsChangedCounter changed;
    bool dock_at_broadcast = false;
    AddListener("net.tandrel.pelmora.prefschanged", "rule",
                [&](const std::string&) { dock_at_broadcast = rig.store.loadBool("show_dock", false); });
    (std::string(c.click) == "tray" ? p->m_show_menubar : p->m_show_dock)->click();
    EXPECT_EQ(changed.delivered(), 1);
    RemoveListener("net.tandrel.pelmora.prefschanged", "rule");
    EXPECT_EQ(p->m_show_dock->isChecked(), c.dock_after);
    EXPECT_EQ(p->m_show_menubar->isChecked(), c.tray_after);
    EXPECT_EQ(dock_at_broadcast, c.dock_after);
    EXPECT_EQ(rig.store.loadBool("show_menubar", true), c.tray_after);
  }
}

// The pane opens on empty settings with the defaults; launch at login writes the autostart entry and
// removes it again, and an entry that cannot be written or started leaves the box off.
TEST(ProcessPreferences, EmptySettingsShowTheDefaultsAndLaunchAtLoginWritesAndRemovesTheAutostartEntry) {
  struct Case {
    const char *what, *program;
    bool block_folder, on;
  };
  for (const Case c : {Case{"written", "/bin/true", false, true}, Case{"folder is a file", "/bin/true", true, false},
                       Case{"no such program", "/nonexistent/pelmora", false, false}}) {
    SCOPED_TRACE(c.what);
    BootRig rig;
    if (c.block_folder) std::ofstream(rig.dir / "autostart") << "not a folder";
    const fs::path entry = rig.dir / "autostart" / "net.tandrel.pelmora.desktop";
    rig.options.login = LaunchAtLogin(entry, c.program);
    auto p = rig.pane();
    EXPECT_TRUE(p->m_show_dock->isChecked() && p->m_save_limited->isChecked() && p->m_save_reniced->isChecked());
    EXPECT_FALSE(p->m_show_menubar->isChecked() || p->m_apply_boot->isChecked() || p->m_limit_frontmost->isChecked());
    p->m_launch_login->click();
    EXPECT_EQ(p->m_launch_login->isChecked(), c.on);
    EXPECT_EQ(fs::is_regular_file(entry), c.on);
    EXPECT_EQ(rig.store.loadBool("LaunchAtLogin", !c.on), c.on);
    if (!c.on) continue;
    p->m_launch_login->click();
    EXPECT_FALSE(fs::exists(entry));
    EXPECT_FALSE(rig.store.loadBool("LaunchAtLogin", true));
  }
}

// Turning it on may warn first; turning it off removes what is installed, without asking.
TEST(ProcessPreferences, ApplyAtBootWarnsInstallsAndRemoves) {
  enum class Answer { none, apply, cancel };
  struct Case {
    const char *what, *sent;
    Answer answer;
    bool on_before, warn, suppress, warn_after;
  };
  const Case cases[] = {
      {"no warning", "install", Answer::none, false, false, false, false},
      {"apply", "install", Answer::apply, false, true, false, true},
      {"apply, never again", "install", Answer::apply, false, true, true, false},
      {"cancel", nullptr, Answer::cancel, false, true, true, true},
      {"turned off", "uninstall", Answer::none, true, true, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    BootRig rig;
    rig.store.saveBool("apply_boot", c.on_before);
    rig.store.saveBool("WARN_apply_boot", c.warn);
    if (c.on_before) std::ofstream(rig.dir / "unit.service") << "installed";
    auto p = rig.pane();
    p->m_apply_boot->click();
    ASSERT_EQ(p->m_boot_alert != nullptr, c.answer != Answer::none);
    if (p->m_boot_alert) {
      EXPECT_TRUE(rig.sent("applyboot").empty());
      p->m_boot_alert->checkBox()->setChecked(c.suppress);
      const QString label = c.answer == Answer::apply ? QStringLiteral("Apply at Boot") : QStringLiteral("Cancel");
      for (QAbstractButton* b : p->m_boot_alert->buttons())
        if (b->text() == label) b->click();
    }
    const auto sent = rig.sent("applyboot");
    ASSERT_EQ(sent.size(), c.sent ? 1u : 0u);
    if (c.sent) {
      EXPECT_EQ(*xpcString(sent[0], "install"), c.sent);
    }
    const bool on = c.sent && std::string(c.sent) == "install";
    EXPECT_EQ(p->m_apply_boot->isChecked(), on);
    EXPECT_EQ(rig.store.loadBool("apply_boot", !on), on);
    EXPECT_EQ(rig.store.loadBool("WARN_apply_boot", true), c.warn_after);
  }
}

TEST(PreferencesPIDText, DerivedTimes) {
  struct Case { double kp, ki, kd; const char* integral; const char* derivative; };
  const Case cases[] = {
      {0.5, 0.25, 0.0125, "2.00", "0.03"}, {1.0, 0.0, 0.5, "", "0.50"}, {0.0, 0.5, 0.5, "0.00", ""},
      {0.3, 0.7, 0.0, "0.43", "0.00"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(integralTimeText(c.kp, c.ki), QString::fromLatin1(c.integral)) << c.kp << "/" << c.ki;
    EXPECT_EQ(derivativeTimeText(c.kp, c.kd), QString::fromLatin1(c.derivative)) << c.kd << "/" << c.kp;
  }
}

TEST(PreferencesPID, ChangesAreSavedAnnouncedAndShownAsTimes) {
  Rig rig;
  PreferencesPID pane(rig.store);
  EXPECT_EQ(pane.m_integral_time->text(), QStringLiteral("2.00"));
  EXPECT_EQ(pane.m_derivative_time->text(), QStringLiteral("0.03"));
  EXPECT_EQ(pane.m_limiter_interval->value(), 30);
  EXPECT_EQ(pane.m_adjuster_interval->value(), 500);
  PrefsChangedCounter changed;
  pane.m_use_pid->setChecked(true);
  pane.m_ki->setValue(0.0);
  EXPECT_EQ(pane.m_integral_time->text(), QString());
  pane.m_limiter_interval->setValue(5000);  // beyond the range: clamped to 1000
  EXPECT_EQ(changed.delivered(), 3);
  EXPECT_EQ(rig.store.loadInt("limiter_sample_interval", 0), 1000);
  EXPECT_EQ(rig.store.loadDouble("PID_integral", 1.0), 0.0);
  EXPECT_TRUE(rig.store.loadBool("PID_use_pidcontroller", false));
}

TEST(PreferencesPID, RestoreDefaultsResetsGainsOnlyUnderThePIDLaw) {
  for (const bool pid_on : {false, true}) {
    Rig rig;
    rig.store.saveInt("limiter_sample_interval", 70);
    rig.store.saveInt("adjuster_sample_interval", 900);
    rig.store.saveBool("PID_use_pidcontroller", pid_on);
    rig.store.saveDouble("PID_proportional", 2.0);
    rig.store.saveDouble("PID_integral", 1.0);
    rig.store.saveDouble("PID_derivative", 0.1);
    PreferencesPID pane(rig.store);
    PrefsChangedCounter changed;
    pane.restoreDefaults();
    EXPECT_EQ(changed.delivered(), 1) << pid_on;
    EXPECT_EQ(rig.store.loadInt("limiter_sample_interval", 0), 30) << pid_on;
    EXPECT_EQ(rig.store.loadInt("adjuster_sample_interval", 0), 500) << pid_on;
    EXPECT_DOUBLE_EQ(rig.store.loadDouble("PID_proportional", 0), pid_on ? 0.5 : 2.0) << pid_on;
    EXPECT_DOUBLE_EQ(rig.store.loadDouble("PID_integral", 0), pid_on ? 0.25 : 1.0) << pid_on;
    EXPECT_DOUBLE_EQ(rig.store.loadDouble("PID_derivative", 0), pid_on ? 0.0125 : 0.1) << pid_on;
    EXPECT_EQ(pane.m_integral_time->text(), QStringLiteral("2.00")) << pid_on;  // 2.0 / 1.0 and 0.5 / 0.25 alike
  }
}

TEST(PreferencesWindow, ToolbarSwitchesBetweenThePanes) {
  BootRig rig;
  auto* graph = new PreferencesGraph(rig.store);
  auto* process = rig.pane().release();
  auto* pid = new PreferencesPID(rig.store);
  PreferencesWindow w(graph, process, pid);
  const auto actions = w.m_toolbar->actions();
  QStringList titles;
  for (QAction* action : actions) titles << action->text();
  ASSERT_EQ(titles, (QStringList{"Graph", "Processes", "PID"}));
  EXPECT_EQ(w.currentPane(), 0);
  actions[2]->trigger();
  EXPECT_EQ(w.currentPane(), 2);
  EXPECT_TRUE(actions[2]->isChecked());
  EXPECT_FALSE(actions[0]->isChecked());
}

}  // namespace
}  // namespace pelmora
