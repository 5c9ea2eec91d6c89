#include "app/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <optional>

#include "support/logger.h"

namespace pelmora {

namespace {

constexpr const char* kName = "net.tandrel.pelmora";

struct Address {
  sockaddr_un address{};
  socklen_t length = 0;
};

// A path name, or with `abstract` a name in the abstract namespace (no file; gone with the process).
std::optional<Address> addressOf(const std::string& name, bool abstract) {
  Address a;
  a.address.sun_family = AF_UNIX;
  const size_t offset = abstract ? 1 : 0;
  if (name.size() + offset >= sizeof a.address.sun_path) return std::nullopt;
  std::memcpy(a.address.sun_path + offset, name.data(), name.size());
  a.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + name.size() + (abstract ? 0 : 1));
  return a;
}

UniqueFd listenOn(const Address& a) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&a.address), a.length) != 0 ||
      ::listen(fd.get(), 4) != 0) {
    return {};
  }
  return fd;
}

UniqueFd connectTo(const Address& a) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd || ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&a.address), a.length) != 0) return {};
  return fd;
}

// No SIGPIPE if the first instance hangs up meanwhile.
void askToShow(const UniqueFd& peer) { [[maybe_unused]] auto n = ::send(peer.get(), "show\n", 5, MSG_NOSIGNAL); }

}  // namespace

bool isPrivateRuntimeDir(const std::string& dir) {
  struct stat st{};
  return !dir.empty() && ::lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::getuid() &&
         (st.st_mode & 077) == 0;
}

InstanceLock InstanceLock::claim(const std::string& runtime_dir) {
  if (isPrivateRuntimeDir(runtime_dir)) return claimInRuntimeDir(runtime_dir);
  return claimAbstract();
}

InstanceLock InstanceLock::claimInRuntimeDir(const std::string& dir) {
  InstanceLock out;
  const std::string base = dir + "/" + kName;
  const auto address = addressOf(base + ".sock", false);
  out.m_lock = UniqueFd(::open((base + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!address || !out.m_lock) return claimAbstract();
  if (::flock(out.m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
    // The lock is held: the first instance runs (its socket may just not be listening yet).
    if (UniqueFd peer = connectTo(*address)) askToShow(peer);
    out.m_outcome = Outcome::kOtherRunning;
    return out;
  }
  ::unlink(address->address.sun_path);  // left by a run that crashed; the lock says it is not in use
  out.m_listen = listenOn(*address);
  out.m_outcome = Outcome::kFirst;
  return out;
}

InstanceLock InstanceLock::claimAbstract() {
  InstanceLock out;
  const auto address = addressOf(std::string(kName) + "-" + std::to_string(::getuid()), true);
  if (!address) return out;
  if ((out.m_listen = listenOn(*address))) {
    out.m_outcome = Outcome::kFirst;
    return out;
  }
  UniqueFd peer = connectTo(*address);
  ucred cred{};
  socklen_t size = sizeof cred;
  if (peer && ::getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &cred, &size) == 0 && cred.uid == ::getuid()) {
    askToShow(peer);
    out.m_outcome = Outcome::kOtherRunning;
    return out;
  }
  Log("Another user holds this user's single-instance name; starting without the check.");
  return out;
}

}  // namespace pelmora
