#include "support/xpc_socket.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "support/xpc_codec.h"

namespace pelmora {
namespace {

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

// Moves the descriptors of every SCM_RIGHTS message into fds. False when the kernel truncated them.
bool collectDescriptors(msghdr& msg, std::vector<UniqueFd>& fds) {
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
      fds.emplace_back(fd);
    }
  }
  return (msg.msg_flags & MSG_CTRUNC) == 0;
}

// Reads exactly size bytes, gathering any descriptors that arrive with them.
bool readExactly(int socket_fd, uint8_t* data, size_t size, std::vector<UniqueFd>& fds, std::string* error) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kXPCMaxDescriptors)];
  size_t done = 0;
  while (done < size) {
    iovec iov{data + done, size - done};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(socket_fd, &msg, MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      setError(error, std::string("receive failed: ") + std::strerror(errno));
      return false;
    }
    if (!collectDescriptors(msg, fds) || fds.size() > kXPCMaxDescriptors) {
      setError(error, "too many descriptors");
      return false;
    }
    if (n == 0) {
      setError(error, done == 0 ? "closed" : "truncated frame");
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool xpcSendMessage(int socket_fd, const XPCDict& message, std::string* error) {
  auto encoded = xpcEncode(message, error);
  if (!encoded) return false;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kXPCMaxDescriptors)] = {};
  size_t done = 0;
  while (done < encoded->frame.size()) {
    iovec iov{encoded->frame.data() + done, encoded->frame.size() - done};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (done == 0 && !encoded->fds.empty()) {
      const size_t bytes = sizeof(int) * encoded->fds.size();
      msg.msg_control = control;
      msg.msg_controllen = CMSG_SPACE(bytes);
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SCM_RIGHTS;
      c->cmsg_len = CMSG_LEN(bytes);
      std::memcpy(CMSG_DATA(c), encoded->fds.data(), bytes);
    }
    const ssize_t n = ::sendmsg(socket_fd, &msg, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      setError(error, std::string("send failed: ") + std::strerror(errno));
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

std::optional<XPCDict> xpcReceiveMessage(int socket_fd, std::string* error) {
  std::vector<UniqueFd> fds;
  uint8_t prefix[kXPCLengthBytes];
  if (!readExactly(socket_fd, prefix, sizeof prefix, fds, error)) return std::nullopt;
  const uint32_t length = xpcFrameLength(std::span<const uint8_t, kXPCLengthBytes>(prefix));
  if (length == 0 || length > kXPCMaxFrameBytes) {
    setError(error, length == 0 ? "empty frame" : "frame larger than 1 MiB");
    return std::nullopt;
  }
  std::vector<uint8_t> body(length);
  if (!readExactly(socket_fd, body.data(), body.size(), fds, error)) return std::nullopt;
  return xpcDecode(body, fds, error);
}

}  // namespace pelmora
