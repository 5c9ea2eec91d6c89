#pragma once
// Which process owns which socket: /proc/PID/fd links of the form "socket:[INODE]". Only processes
// whose descriptors we may read are seen (all of them as root).
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

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

// Socket inode -> owner (the first process found holding it).
std::map<uint64_t, SocketOwner> readSocketOwners(const SysRoot& root);

}  // namespace pelmora
