#include "nettop/socket_owners.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "support/text.h"
#include "support/unique_fd.h"

namespace pelmora {
namespace {

std::optional<std::string> readLinkAt(int dir_fd, const char* name) {
  std::array<char, 256> buffer{};
  const ssize_t n = ::readlinkat(dir_fd, name, buffer.data(), buffer.size() - 1);
  if (n <= 0) return std::nullopt;
  return std::string(buffer.data(), static_cast<size_t>(n));
}

// Socket inodes among the descriptors of one process, through one open of its fd folder.
template <typename Visit>
void forEachSocket(const std::string& fd_dir, Visit visit) {
  UniqueFd fd(::open(fd_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return;
  DIR* dir = ::fdopendir(fd.get());
  if (!dir) return;
  const int dir_fd = fd.release();
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const auto link = readLinkAt(dir_fd, entry->d_name);
    if (const auto inode = link ? socketInode(*link) : std::nullopt) {
      if (!visit(*inode)) break;
    }
  }
  ::closedir(dir);
}

}  // namespace

std::optional<uint64_t> socketInode(std::string_view link) {
  constexpr std::string_view kPrefix = "socket:[";
  if (!startsWith(link, kPrefix) || !link.ends_with(']')) return std::nullopt;
  return parseUInt64(link.substr(kPrefix.size(), link.size() - kPrefix.size() - 1));
}

std::string labelName(std::string_view name) {
  std::string out;
  for (char c : name) out += (c == ',' || c == '\n' || c == '\r') ? '_' : c;
  return out.empty() ? "?" : out;
}

std::vector<int32_t> searchOrder(const std::vector<int32_t>& all, const std::set<int32_t>& likely) {
  std::vector<int32_t> order;
  std::vector<int32_t> rest;
  for (int32_t pid : all) (likely.count(pid) ? order : rest).push_back(pid);
  std::sort(order.begin(), order.end());
  std::sort(rest.rbegin(), rest.rend());
  order.insert(order.end(), rest.begin(), rest.end());
  return order;
}

SocketOwnerFinder::SocketOwnerFinder(SysRoot root) : m_root(std::move(root)) {}

std::vector<int32_t> SocketOwnerFinder::processes() const {
  std::vector<int32_t> pids;
  for (const auto& dir : m_root.listProc("")) {
    const auto pid = parseInt64(dir);
    if (pid && *pid > 0 && *pid <= INT32_MAX) pids.push_back(static_cast<int32_t>(*pid));
  }
  return pids;
}

std::string SocketOwnerFinder::processName(int32_t pid) const {
  const std::string dir = m_root.proc(std::to_string(pid));
  std::array<char, 4096> buffer{};
  const ssize_t n = ::readlink((dir + "/exe").c_str(), buffer.data(), buffer.size() - 1);
  if (n > 0) {
    std::string_view path(buffer.data(), static_cast<size_t>(n));
    if (path.ends_with(" (deleted)")) path.remove_suffix(10);
    return labelName(path.substr(path.rfind('/') + 1));
  }
  if (auto comm = SysRoot::readFile(dir + "/comm")) return labelName(trim(*comm));
  return "?";
}

std::map<uint64_t, SocketOwner> SocketOwnerFinder::find(const std::set<uint64_t>& inodes,
                                                        const std::set<int32_t>& likely) const {
  std::map<uint64_t, SocketOwner> owners;
  if (inodes.empty()) return owners;
  for (int32_t pid : searchOrder(processes(), likely)) {
    std::string name;
    forEachSocket(m_root.proc(std::to_string(pid) + "/fd"), [&](uint64_t inode) {
      if (inodes.count(inode) && !owners.count(inode)) {
        if (name.empty()) name = processName(pid);
        owners[inode] = SocketOwner{pid, name};
      }
      return owners.size() < inodes.size();
    });
    if (owners.size() == inodes.size()) break;
  }
  return owners;
}

}  // namespace pelmora
