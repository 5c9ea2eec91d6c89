#pragma once
// The parent links of every process, for limits that hold a process together with its descendants.
// One pass per limiter tick lists the process folder; only a process not seen before has its stat
// file read. A process's parent changes only when it is orphaned, and a member of a held tree stays
// a member once found, so the first reading is the one that matters.
#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "support/sys_root.h"

namespace pelmora {

struct ProcessLink {
  int32_t ppid = 0;
  uint64_t start_ticks = 0;  // clock ticks after boot
};
using ProcessLinks = std::map<int32_t, ProcessLink>;

// The `members` still present in `links`, with every present process whose chain of parents reaches
// one of them. One pass over the links, however many members there are. Pure.
std::set<int32_t> treeMembers(const std::set<int32_t>& members, const ProcessLinks& links);

class ProcessTree {
 public:
  explicit ProcessTree(SysRoot root);

  // Lists the processes again; false (links unchanged) when the folder could not be read.
  bool refresh();
  const ProcessLinks& links() const { return m_links; }
  // The link of one process, read now when the last pass did not see it.
  std::optional<ProcessLink> link(int32_t pid);

 private:
  std::optional<ProcessLink> read(int32_t pid) const;

  SysRoot m_root;
  ProcessLinks m_links;
};

}  // namespace pelmora
