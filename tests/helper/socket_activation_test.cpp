// The daemon under systemd socket activation: it takes fd 3 from LISTEN_FDS, serves, and ends when
// its last connection closes.
#include <gtest/gtest.h>

#include "helper/daemon_harness.h"

namespace pelmora {
namespace {

using namespace pelmora::testing;

pid_t startActivated(const std::string& path) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 8) != 0 || ::dup2(listener.get(), 3) != 3) {
      ::_exit(126);
    }
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) ::dup2(null, 2);
    const std::string binary = std::string(PELMORA_BINARY_DIR) + "/src/helper/pelmora-helper";
    ::execl(binary.c_str(), "pelmora-helper", nullptr);
    ::_exit(127);
  }
  return pid;
}

bool exited(pid_t pid) {
  int status = 0;
  return ::waitpid(pid, &status, WNOHANG) == pid;
}

TEST(HelperSocketActivation, ServesUntilTheLastConnectionCloses) {
  TempDir dir;
  const std::string path = (dir.path() / "activated.sock").string();
  const pid_t daemon = startActivated(path);
  auto first = std::make_unique<SocketTransport>(path);
  SocketTransport second(path);
  ASSERT_TRUE(eventually([&] { return first->exchange({{"requestcpuinfo", ""}}).has_value(); }));
  ASSERT_TRUE(second.exchange({{"requestcpuinfo", ""}}));
  first.reset();
  // One connection is left: the daemon goes on serving it.
  EXPECT_TRUE(second.exchange({{"isrunning", ""}, {"cpu", 0}}));
  EXPECT_FALSE(exited(daemon));
  second.sendOneWay({{"quit", ""}});
  const bool ended = eventually([&] { return exited(daemon); });
  EXPECT_TRUE(ended);
  if (!ended) {
    ::kill(daemon, SIGKILL);
    ::waitpid(daemon, nullptr, 0);
  }
}

}  // namespace
}  // namespace pelmora
