// `pelmora -h on|off -p -t on|off -n N`: applies the processor settings through the helper. This is
// what the boot service runs (as root, where the in-process fallback applies them directly when no
// daemon is up). Anyone else first asks the daemon for polkit's authorisation, with a text agent on
// the terminal in case polkit wants a password. Misuse prints the usage and exits 2; a refused or
// unanswered operation exits 1 after its reason has gone to stderr.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/tty_agent.h"
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

constexpr const char* kNoAgentAdvice =
    "pelmora: polkit wants an administrator's password and nothing here can ask for it: run pelmora\n"
    "  from a terminal (it asks there), run it as root (sudo pelmora ...), or have an administrator\n"
    "  grant this user the action net.tandrel.pelmora.admin in a polkit rule\n";

// Root is an administrator already. Anyone else asks the daemon, which asks polkit for this process;
// polkit may grant it outright (a rule), ask for a password through our agent, or refuse.
bool authorizeUnlessRoot(Pelmora& helper) {
  if (::geteuid() == 0) return true;
  TtyAgent agent;
  agent.start();
  const std::string answer = helper.authorize();
  if (answer == "OK") return true;
  std::fprintf(stderr, "pelmora: %s\n", answer.c_str());
  if (answer.find("no authentication agent") != std::string::npos) std::fputs(kNoAgentAdvice, stderr);
  return false;
}

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
  if (!authorizeUnlessRoot(helper)) return kExitFailure;
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
