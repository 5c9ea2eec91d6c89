#include "nettop/socket_owners.h"

#include <unistd.h>

#include <array>

#include "support/text.h"

namespace pelmora {
namespace {

std::optional<std::string> readLink(const std::string& path) {
  std::array<char, 256> buffer{};
  const ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size() - 1);
  if (n <= 0) return std::nullopt;
  return std::string(buffer.data(), static_cast<size_t>(n));
}

std::string processName(const SysRoot& root, const std::string& dir) {
  if (auto exe = readLink(root.proc(dir + "/exe"))) {
    std::string_view path = *exe;
    if (path.ends_with(" (deleted)")) path.remove_suffix(10);
    return std::string(path.substr(path.rfind('/') + 1));
  }
  if (auto comm = root.readProc(dir + "/comm")) return std::string(trim(*comm));
  return "?";
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

std::map<uint64_t, SocketOwner> readSocketOwners(const SysRoot& root) {
  std::map<uint64_t, SocketOwner> owners;
  for (const auto& dir : root.listProc("")) {
    const auto pid = parseInt64(dir);
    if (!pid || *pid <= 0 || *pid > INT32_MAX) continue;
    std::string name;
    for (const auto& fd : SysRoot::listDir(root.proc(dir + "/fd"))) {
      const auto link = readLink(root.proc(dir + "/fd/" + fd));
      const auto inode = link ? socketInode(*link) : std::nullopt;
      if (!inode || owners.count(*inode)) continue;
      if (name.empty()) name = labelName(processName(root, dir));
      owners[*inode] = SocketOwner{static_cast<int32_t>(*pid), name};
    }
  }
  return owners;
}

}  // namespace pelmora
