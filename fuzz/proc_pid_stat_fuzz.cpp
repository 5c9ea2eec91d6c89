// /proc/PID/stat text, which any process partly writes: its command name (prctl PR_SET_NAME, or the
// name of the file it runs) may hold spaces, parentheses and anything else but a NUL in the kernel's
// copy. The parser must never crash on any text, and a name must never shift the fields after it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "support/proc_pid_stat.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  (void)pelmora::parseProcPidStat(input);
  // The same bytes as the command name of a well-formed line.
  const std::string line = "4321 (" + std::string(input) +
                           ") S 1 4321 4321 0 -1 4194560 120 0 0 0 7 3 0 0 20 5 2 0 88 1000 50 "
                           "18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
  const auto stat = pelmora::parseProcPidStat(line);
  if (!stat || stat->pid != 4321 || stat->comm != input || stat->state != 'S' || stat->ppid != 1 ||
      stat->nice != 5 || stat->num_threads != 2 || stat->starttime_ticks != 88 || stat->utime_ticks != 7) {
    std::abort();
  }
  return 0;
}
