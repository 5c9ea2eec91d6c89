// fontconfig keeps a cache it never frees, and libdbus and QtDBus keep their connection bookkeeping
// for the life of the process (the appearance test's private session bus): under the leak checker
// that is not ours to report.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig\nleak:libdbus-1\nleak:libQt6DBus\n";
}
