// Not a benchmark: renders the CPU settings window, the three preference panes and the help window
// for the README (scripts/screenshots.sh runs it under a virtual X server). The helper is scripted
// through the app tests' rigs: an 8-thread machine with all processors on and two processes limited.
//   settings_screenshots OUT_DIR [SUFFIX]     writes OUT_DIR/NAME[SUFFIX].png
#include <QApplication>
#include <QPixmap>

#include <cstdio>

#include "app/app_rig.h"
#include "app/pelmora_window.h"
#include "app/preferences_pid.h"
#include "app/preferences_window.h"
#include "app/process_preferences.h"
#include "app/settings_test_support.h"
#include "graphs/views/preferences_graph.h"
#include "support/settings_keys.h"

namespace {

using namespace pelmora;
using settings_test::Rig;

QString g_dir, g_suffix;

bool save(QWidget& w, const char* name, bool fit = true) {
  w.show();
  if (fit) w.adjustSize();
  for (int i = 0; i < 5; ++i) QApplication::processEvents();
  const QString file = g_dir + QLatin1Char('/') + QLatin1String(name) + g_suffix + QStringLiteral(".png");
  if (w.grab().save(file)) return true;
  std::fprintf(stderr, "could not write %s\n", qPrintable(file));
  return false;
}

bool settingsAndPreferences() {
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
  bool ok = save(window, "cpu-settings");
  rig.limiter.clearLimit(900001);
  rig.limiter.clearLimit(900002);

  ProcessPreferences::Options po{LaunchAtLogin(rig.dir / "autostart.desktop", "/bin/true"),
                                 BootLocations{rig.dir / "lib", rig.dir / "unit", rig.dir / "res"}};
  auto* process = new ProcessPreferences(rig.store, rig.helper, [] { return std::optional<BootControls>(); }, po);
  PreferencesWindow prefs(new PreferencesGraph(rig.store), process, new PreferencesPID(rig.store));
  const char* names[] = {"prefs-graph", "prefs-processes", "prefs-pid"};
  for (int i = 0; i < 3; ++i) {
    prefs.showPane(i);
    ok = save(prefs, names[i]) && ok;
  }
  Rig::deliver();
  return ok;
}

bool help() {
  app_test::AppRig rig;
  keys::kAppPelmora.save(rig.rig.store, true);
  rig.app->finishLaunching();
  rig.app->openHelp();
  return save(*rig.app->helpViewer(), "help", false);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUT_DIR [SUFFIX]\n", argv[0]);
    return 2;
  }
  QApplication app(argc, argv);
  g_dir = QString::fromLocal8Bit(argv[1]);
  g_suffix = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString();
  const bool ok = settingsAndPreferences() && help();
  return ok ? 0 : 1;
}
