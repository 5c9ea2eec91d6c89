// Renders the CPU settings window and the preference panes for the README when
// PELMORA_SCREENSHOT_DIR is set (scripts/settings-screenshots.sh runs it under Xvfb); skipped
// otherwise. The helper is scripted: an 8-thread machine with all processors on and two processes
// limited.
#include <QApplication>
#include <QPixmap>

#include <gtest/gtest.h>

#include "app/pelmora_window.h"
#include "app/preferences_pid.h"
#include "app/preferences_window.h"
#include "app/process_preferences.h"
#include "graphs/views/preferences_graph.h"
#include "app/app_rig.h"
#include "settings_test_support.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

using settings_test::Rig;

// NAME.png, or NAME@2x.png in the pass at twice the scale.
QString shotFile(const char* name) {
  return qEnvironmentVariable("PELMORA_SCREENSHOT_DIR") + QLatin1Char('/') + QLatin1String(name) +
         qEnvironmentVariable("PELMORA_SCREENSHOT_SUFFIX") + QStringLiteral(".png");
}

void save(QWidget& w, const QString& file) {
  w.show();
  w.adjustSize();
  for (int i = 0; i < 5; ++i) QApplication::processEvents();
  ASSERT_TRUE(w.grab().save(file)) << file.toStdString();
}

TEST(SettingsScreenshots, Render) {
  const QString dir = qEnvironmentVariable("PELMORA_SCREENSHOT_DIR");
  if (dir.isEmpty()) GTEST_SKIP() << "PELMORA_SCREENSHOT_DIR is not set";
  Rig rig;
  rig.script.counts = {8, 4, 8, 4};
  PelmoraWindow::Options o;
  o.has_hardware_threads = true;
  o.own_pid = 4242;
  o.own_priority = 0;
  o.start_watch = false;
  PelmoraWindow window(rig.helper, rig.power, rig.limiter, rig.store, o);
  rig.helper.setAuthorised(true);
  window.setEnabledStates();
  {
    MutexLock lock(rig.limiter.mutex());
    rig.limiter.setLimit(900001, 0.25);
    rig.limiter.setLimit(900002, 0.5);
  }
  window.limiterWatch();
  save(window, shotFile("cpu-settings"));
  rig.limiter.clearLimit(900001);
  rig.limiter.clearLimit(900002);

  ProcessPreferences::Options po{LaunchAtLogin(rig.dir / "autostart.desktop", "/bin/true"),
                                 BootLocations{rig.dir / "lib", rig.dir / "unit", rig.dir / "res"}};
  auto* process = new ProcessPreferences(rig.store, rig.helper, [] { return std::optional<BootControls>(); }, po);
  PreferencesWindow prefs(new PreferencesGraph(rig.store), process, new PreferencesPID(rig.store));
  const char* names[] = {"prefs-graph", "prefs-processes", "prefs-pid"};
  for (int i = 0; i < 3; ++i) {
    prefs.showPane(i);
    save(prefs, shotFile(names[i]));
  }
  Rig::deliver();
}

TEST(SettingsScreenshots, Help) {
  if (qEnvironmentVariable("PELMORA_SCREENSHOT_DIR").isEmpty()) GTEST_SKIP() << "PELMORA_SCREENSHOT_DIR is not set";
  app_test::AppRig rig;
  keys::kAppPelmora.save(rig.rig.store, true);
  rig.app->finishLaunching();
  rig.app->openHelp();
  QWidget* help = rig.app->helpViewer();
  for (int i = 0; i < 5; ++i) QApplication::processEvents();
  ASSERT_TRUE(help->grab().save(shotFile("help")));
}

}  // namespace
}  // namespace pelmora
