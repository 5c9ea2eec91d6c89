// `pelmora -h on|off -p -t on|off -n N`: applies the processor settings through the helper. This is
// what the boot service runs (as root, where the in-process fallback applies them directly when no
// daemon is up). Misuse prints the usage and exits 2; a refused or unanswered operation exits 1
// after its reason has gone to stderr.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "helper_link/boot_flags.h"
#include "helper_link/pelmora.h"
#include "support/logger.h"

namespace pelmora::cli {
namespace {

constexpr const char* kBootFlagsUsage =
    "usage: pelmora [-h on|off] [-p] [-t on|off] [-n N]\n"
    "  -h on|off  keep hyper-threads (SMT siblings) enabled, or switch them off\n"
    "  -p         prefer physical cores when choosing which processors stay enabled\n"
    "  -t on|off  switch the kernel's I/O writeback throttling on or off\n"
    "  -n N       keep N processors enabled (1 to 9999); -h and -p need it\n";

}  // namespace

int runBootFlagsCommand(const std::vector<std::string>& args) {
  const BootFlagsParse parsed = parseBootFlags(args);
  if (!parsed.flags) {
    std::fprintf(stderr, "pelmora: %s\n%s", parsed.error.c_str(), kBootFlagsUsage);
    return kExitUsage;
  }
  const BootFlags& flags = *parsed.flags;
  // The helper's refusals are log lines: echo them so they reach stderr (and the journal at boot).
  Logger::shared().setEcho(true);
  Pelmora& helper = Pelmora::shared();
  bool ok = true;
  if (flags.cpu_count &&
      !helper.setCpuCount(*flags.cpu_count, flags.hyper_threading.value_or(true), flags.prefer_physical)) {
    std::fprintf(stderr, "pelmora: could not set the processor count to %d\n", *flags.cpu_count);
    ok = false;
  }
  if (flags.throttle && !helper.setThrottle(*flags.throttle)) {
    std::fprintf(stderr, "pelmora: could not switch throttling %s\n", *flags.throttle ? "on" : "off");
    ok = false;
  }
  return ok ? kExitOk : kExitFailure;
}

}  // namespace pelmora::cli
