#pragma once
// Which process holds which socket: /proc/PID/fd links of the form "socket:[INODE]". Only processes
// whose descriptors we may read are seen (all of them as root, the user's own otherwise).
//
// Looking costs a readlink per descriptor, so callers ask only for sockets they have not placed yet,
// and the search stops as soon as each of them is found: the processes already known to hold
// sockets first (they are the likeliest to open more), then every other, newest first.
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "support/sys_root.h"

namespace pelmora {

struct SocketOwner {
  int32_t pid = 0;
  std::string name;
};

// The inode of a descriptor link text "socket:[12345]"; none for anything else. Pure.
std::optional<uint64_t> socketInode(std::string_view link_text);
// A process name fit for the label field: no commas or line breaks. Pure.
std::string labelName(std::string_view name);
// The order in which to search: `likely` first (ascending), then the rest of `all`, highest first. Pure.
std::vector<int32_t> searchOrder(const std::vector<int32_t>& all, const std::set<int32_t>& likely);

class SocketOwnerFinder {
 public:
  explicit SocketOwnerFinder(SysRoot root);
  // Owners of those of `inodes` that some readable process holds (the first process found).
  std::map<uint64_t, SocketOwner> find(const std::set<uint64_t>& inodes, const std::set<int32_t>& likely) const;

 private:
  std::vector<int32_t> processes() const;
  std::string processName(int32_t pid) const;

  SysRoot m_root;
};

}  // namespace pelmora
