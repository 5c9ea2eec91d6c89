#pragma once
// The real helper daemon on a real Unix socket, one thread per connection, and a client connection
// for "authorize" that holds the request until the test gives the password (as a user typing it
// into the password dialog would), or until a minute has passed; the daemon then grants it.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "helper/helper_daemon.h"
#include "helper_link/helper_transport.h"
#include "support/socket_transport.h"

namespace pelmora::app_test {

struct PasswordPrompt : Authorizer {
  std::string authorize(const CallerIdentity&) override { return "OK"; }
  void give() {
    std::call_once(given, [this] { password.set_value(); });
  }
  std::promise<void> password;
  std::shared_future<void> typed = password.get_future().share();
  std::once_flag given;
  std::atomic<int> waiting{0};  // "authorize" requests waiting for the password now
};

class HeldAuthorizeTransport : public XPCTransport {
 public:
  HeldAuthorizeTransport(const std::string& path, std::shared_ptr<PasswordPrompt> prompt)
      : m_real(path, kAuthorizeTimeout_ms), m_prompt(std::move(prompt)) {}
  std::optional<XPCDict> exchange(const XPCDict& request) override {
    if (xpcHas(request, "authorize")) {
      ++m_prompt->waiting;
      m_prompt->typed.wait_for(std::chrono::minutes(1));
      --m_prompt->waiting;
    }
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
  int waiting() const { return m_prompt->waiting; }
  void givePassword() { m_prompt->give(); }

 private:
  const std::string m_path;
  bool m_listening = false;
  std::shared_ptr<PasswordPrompt> m_prompt = std::make_shared<PasswordPrompt>();
  std::unique_ptr<HelperDaemon> m_daemon;
  std::thread m_thread;
};

}  // namespace pelmora::app_test
