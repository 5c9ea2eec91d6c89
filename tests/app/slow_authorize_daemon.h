#pragma once
// The real helper daemon on a real Unix socket, one thread per connection, and a client connection
// for "authorize" that holds the request until the test gives the password (as a user typing it
// into the password dialog would), or until a minute has passed; the daemon then grants it.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "helper/helper_daemon.h"
#include "helper_link/helper_transport.h"
#include "support/socket_transport.h"

namespace pelmora::app_test {

class PasswordPrompt : public Authorizer {
 public:
  std::string authorize(const CallerIdentity&) override { return "OK"; }
  void wait() {
    std::unique_lock lock(m_mutex);
    ++m_waiting;
    m_answer.wait_for(lock, std::chrono::minutes(1), [this] { return m_password_given; });
    --m_waiting;
  }
  // "authorize" requests that are waiting for the password now.
  int waiting() {
    std::lock_guard lock(m_mutex);
    return m_waiting;
  }
  void givePassword() {
    std::lock_guard lock(m_mutex);
    m_password_given = true;
    m_answer.notify_all();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_answer;
  bool m_password_given = false;
  int m_waiting = 0;
};

class HeldAuthorizeTransport : public XPCTransport {
 public:
  HeldAuthorizeTransport(const std::string& path, std::shared_ptr<PasswordPrompt> prompt)
      : m_real(path, kAuthorizeTimeout_ms), m_prompt(std::move(prompt)) {}
  std::optional<XPCDict> exchange(const XPCDict& request) override {
    if (xpcHas(request, "authorize")) m_prompt->wait();
    return m_real.exchange(request);
  }
  void sendOneWay(const XPCDict& message) override { m_real.sendOneWay(message); }
  uint64_t connection() override { return m_real.connection(); }
  void interrupt() override { m_real.interrupt(); }

 private:
  SocketTransport m_real;
  std::shared_ptr<PasswordPrompt> m_prompt;
};

class SlowAuthorizeDaemon {
 public:
  SlowAuthorizeDaemon(const std::filesystem::path& socket, SysRoot root) : m_path(socket.string()) {
    std::string error;
    UniqueFd listen = HelperDaemon::bindSocket(m_path, &error);
    m_listening = listen.valid();
    HelperOptions options;
    options.root = std::move(root);
    options.authorizer = m_prompt;
    m_daemon = std::make_unique<HelperDaemon>(std::move(listen), false, std::move(options));
    m_thread = std::thread([this] { m_daemon->run(); });
  }
  ~SlowAuthorizeDaemon() {
    givePassword();
    m_daemon->stop();
    m_thread.join();
    ::unlink(m_path.c_str());
  }
  bool listening() const { return m_listening; }
  const std::string& path() const { return m_path; }
  // The connection the client's "authorize" goes over.
  std::unique_ptr<XPCTransport> authorizeTransport() {
    return std::make_unique<HeldAuthorizeTransport>(m_path, m_prompt);
  }
  int waiting() { return m_prompt->waiting(); }
  void givePassword() { m_prompt->givePassword(); }

 private:
  const std::string m_path;
  bool m_listening = false;
  std::shared_ptr<PasswordPrompt> m_prompt = std::make_shared<PasswordPrompt>();
  std::unique_ptr<HelperDaemon> m_daemon;
  std::thread m_thread;
};

}  // namespace pelmora::app_test
