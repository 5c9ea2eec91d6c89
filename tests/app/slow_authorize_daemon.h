#pragma once
// A test double of the helper daemon: the real request handler behind a real Unix socket, one thread
// per connection, except that "authorize" is held until the test gives the password (as a user
// typing it would), or until a minute has passed.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "helper/helper_daemon.h"
#include "helper/request_handler.h"
#include "support/xpc_socket.h"

namespace pelmora::app_test {

class SlowAuthorizeDaemon {
 public:
  SlowAuthorizeDaemon(const std::filesystem::path& socket, SysRoot root)
      : m_path(socket.string()), m_handler(options(std::move(root))) {
    std::string error;
    m_listen = HelperDaemon::bindSocket(m_path, &error);
    m_accept = std::thread([this] { acceptLoop(); });
  }
  ~SlowAuthorizeDaemon() {
    givePassword();
    m_stop = true;
    m_accept.join();
    {
      std::lock_guard lock(m_mutex);
      for (int fd : m_live) ::shutdown(fd, SHUT_RDWR);
    }
    for (auto& t : m_threads) t.join();
    ::unlink(m_path.c_str());
  }
  bool listening() const { return m_listen.valid(); }
  const std::string& path() const { return m_path; }
  // "authorize" requests that are waiting for the password now.
  int waiting() {
    std::lock_guard lock(m_mutex);
    return m_waiting;
  }
  // Stop and continue requests served so far.
  int signalsServed() const { return m_signals; }
  void givePassword() {
    std::lock_guard lock(m_mutex);
    m_password_given = true;
    m_answer.notify_all();
  }

 private:
  static HelperOptions options(SysRoot root) {
    HelperOptions o;
    o.root = std::move(root);
    return o;
  }
  void acceptLoop() {
    while (!m_stop) {
      pollfd p{m_listen.get(), POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      const int fd = ::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      std::lock_guard lock(m_mutex);
      m_live.insert(fd);
      m_threads.emplace_back([this, fd] { serve(fd); });
    }
  }
  void serve(int fd) {
    if (auto connection = Connection::fromSocket(fd)) {
      while (auto request = xpcReceiveMessage(fd)) {
        XPCDict reply = xpcHas(*request, "authorize") ? holdAuthorize() : m_handler.handle(*request, *connection);
        m_signals += xpcHas(*request, "kill") && xpcInt(reply, "kill") == int64_t{0};
        if (connection->closeRequested() || !xpcSendMessage(fd, reply)) break;
      }
    }
    std::lock_guard lock(m_mutex);
    m_live.erase(fd);
    ::close(fd);
  }
  XPCDict holdAuthorize() {
    std::unique_lock lock(m_mutex);
    ++m_waiting;
    m_answer.wait_for(lock, std::chrono::minutes(1), [this] { return m_password_given; });
    --m_waiting;
    return {{"authorize", "OK"}};
  }

  const std::string m_path;
  RequestHandler m_handler;
  UniqueFd m_listen;
  std::atomic<bool> m_stop{false};
  std::atomic<int> m_signals{0};
  std::thread m_accept;
  std::mutex m_mutex;
  std::condition_variable m_answer;
  bool m_password_given = false;
  int m_waiting = 0;
  std::set<int> m_live;
  std::vector<std::thread> m_threads;
};

}  // namespace pelmora::app_test
