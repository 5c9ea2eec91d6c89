#pragma once
// A journal of the processes this program may hold stopped, so that if it dies without continuing
// them (SIGKILL, a crash) the next start of the application or the CLI continues them. With the
// daemon its own crash safety does this; the journal covers the in-process mode and costs nothing
// otherwise. One file per holder ("<pid>-<start ticks>.json" in the folder) so that a running
// holder's processes are never touched by another; a process is identified by its pid and its start
// time, so a recycled pid is never signalled.
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>

#include "support/sys_root.h"

namespace pelmora {

class StopJournal {
 public:
  // The journal of this process in `dir` (default: <state dir>/held).
  explicit StopJournal(std::filesystem::path dir = defaultDir(), SysRoot root = SysRoot::current());
  ~StopJournal();
  static std::filesystem::path defaultDir();

  // Records that we may hold `pid` stopped (from now until forget()).
  void hold(int32_t pid);
  void forget(int32_t pid);
  void forgetAll();
  // Continues every journalled process of holders that are gone, if it is still the same process
  // and still stopped, and removes their journals. Returns the number of processes continued.
  int recover();

 private:
  void write();
  std::optional<uint64_t> startTicks(int32_t pid) const;
  bool holderAlive(std::string_view file_stem) const;
  int recoverFile(const std::filesystem::path& file);

  std::filesystem::path m_dir;
  SysRoot m_root;
  std::filesystem::path m_file;
  std::map<int32_t, uint64_t> m_held;  // pid -> start ticks
};

}  // namespace pelmora
