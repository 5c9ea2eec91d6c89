// fontconfig keeps a cache it never frees; under the leak checker that is not ours to report.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig\n"; }
