#pragma once
// The boot-time settings: the CPU settings window's controls, the settings text saved for boot
// ("-h on -p -t off -n 6"), and the command-line flags that the boot script hands back to the
// `pelmora` tool. The text and the flags are the same language, so what one side writes the other
// reads.
#include <optional>
#include <string>
#include <vector>

#include "support/sys_root.h"

namespace pelmora {

// The CPU settings window's controls that make up the boot-time settings text.
struct BootControls {
  bool hyper_threading = true;
  bool prefer_physical = false;
  bool throttle = true;
  int cpu_count = 1;
};

// "-h on|off " only when the machine has hardware threads, "-p " only with prefer-physical, then
// always "-t on|off -n N".
std::string bootSettingsText(const BootControls& controls, bool has_hardware_threads);

// True when some core runs more than one hardware thread (a thread_siblings_list naming more than
// one CPU). Offline CPUs keep their topology directory only while online, so this reads every
// cpuN that has one.
bool hasHardwareThreads(const SysRoot& root);

// The flags of the `pelmora` tool. Each is optional on the command line; -h and -p only make
// sense together with -n, which is what changes the processor set.
struct BootFlags {
  std::optional<bool> hyper_threading;  // -h on|off
  bool prefer_physical = false;         // -p
  std::optional<bool> throttle;         // -t on|off
  std::optional<int> cpu_count;         // -n N, 1..9999
};

struct BootFlagsParse {
  std::optional<BootFlags> flags;  // none on misuse
  std::string error;               // why, for the usage message
};

BootFlagsParse parseBootFlags(const std::vector<std::string>& args);

}  // namespace pelmora
