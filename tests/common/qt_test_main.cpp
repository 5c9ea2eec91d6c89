// The main of the test programs that make widgets: one QApplication, offscreen unless the caller
// chose a platform, made before the first test and kept for the life of the process (windows that
// outlive a test, and Qt's own statics, still refer to it at exit).
#include <QApplication>

#include <gtest/gtest.h>

// fontconfig keeps a cache it never frees, and libdbus and QtDBus keep their connection bookkeeping
// for the life of the process (the appearance test's private session bus): under the leak checker
// that is not ours to report.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig\nleak:libdbus-1\nleak:libQt6DBus\n"; }

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  static int app_argc = 1;
  static char name[] = "pelmora_tests";
  static char* app_argv[] = {name, nullptr};
  static auto* application = new QApplication(app_argc, app_argv);
  (void)application;
  return RUN_ALL_TESTS();
}
