#pragma once
// An owned file descriptor, closed on destruction.
#include <unistd.h>

#include <utility>

namespace pelmora {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return m_fd; }
  bool valid() const { return m_fd >= 0; }
  explicit operator bool() const { return valid(); }
  int release() { return std::exchange(m_fd, -1); }
  void reset(int fd = -1) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

}  // namespace pelmora
