// pelmora-helper: the privileged helper daemon. RUNS AS ROOT (under systemd, socket-activated), or
// in the foreground for development: pelmora-helper --foreground --socket PATH.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "helper/authorizer.h"
#include "helper/helper_daemon.h"
#include "support/socket_transport.h"
#include "support/text.h"

namespace {

pelmora::HelperDaemon* g_daemon = nullptr;

void onSignal(int) {
  if (g_daemon) g_daemon->stop();
}

int usage() {
  std::fprintf(stderr, "usage: pelmora-helper [--foreground] [--socket PATH] [--idle-timeout SECONDS]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = pelmora::SocketTransport::defaultPath();
  bool chosen_socket = false;
  pelmora::HelperDaemon::Timeouts timeouts;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--foreground") continue;  // the daemon never forks itself away
    if (arg == "--socket" && i + 1 < argc) {
      path = argv[++i];
      chosen_socket = true;
    } else if (arg == "--idle-timeout" && i + 1 < argc) {
      const auto seconds = pelmora::parseInt64(argv[++i]);
      if (!seconds || *seconds < 1 || *seconds > 86400) return usage();
      timeouts.idle_ms = static_cast<int>(*seconds * 1000);
      timeouts.transfer_ms = std::min(timeouts.transfer_ms, timeouts.idle_ms);
    } else {
      return usage();
    }
  }
  pelmora::UniqueFd listen = chosen_socket ? pelmora::UniqueFd() : pelmora::HelperDaemon::systemdSocket();
  const bool socket_activated = listen.valid();
  if (!listen) {
    std::string error;
    listen = pelmora::HelperDaemon::bindSocket(path, &error);
    if (!listen) {
      std::fprintf(stderr, "pelmora-helper: %s\n", error.c_str());
      return 1;
    }
  }
  if (::geteuid() != 0) std::fprintf(stderr, "pelmora-helper: not running as root; privileged requests will fail\n");
  pelmora::HelperOptions options;
  options.authorizer = std::make_shared<pelmora::PolkitAuthorizer>();
  pelmora::HelperDaemon daemon(std::move(listen), socket_activated, std::move(options));
  daemon.setTimeouts(timeouts);
  g_daemon = &daemon;
  struct sigaction action{};
  action.sa_handler = onSignal;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  std::fprintf(stderr, "pelmora-helper: serving on %s\n", socket_activated ? "the systemd socket" : path.c_str());
  const int status = daemon.run();
  g_daemon = nullptr;
  if (!socket_activated) ::unlink(path.c_str());
  return status;
}
