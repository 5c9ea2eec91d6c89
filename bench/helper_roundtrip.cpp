// "taskinfo" round trip to the real helper daemon (a child on a temporary socket) against a bare
// Unix-socket ping-pong that moves the same number of bytes each way, measured in the same run.
// Prints median and p99 of each and their ratio.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/socket_transport.h"
#include "support/xpc_codec.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWarmup = 500;
constexpr int kRounds = 20000;

bool readFull(int fd, uint8_t* data, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = ::read(fd, data + done, size - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool writeFull(int fd, const uint8_t* data, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

int listenAt(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 4) != 0) return -1;
  return fd;
}

int connectTo(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  for (int i = 0; i < 500; ++i) {
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::close(fd);
  return -1;
}

// A child process that answers every request_bytes with reply_bytes, like a server that does no work.
pid_t startEchoServer(const std::string& path, size_t request_bytes, size_t reply_bytes) {
  const int listener = listenAt(path);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int fd = ::accept(listener, nullptr, nullptr);
    std::vector<uint8_t> in(request_bytes), out(reply_bytes, 0x5A);
    while (readFull(fd, in.data(), in.size()) && writeFull(fd, out.data(), out.size())) {
    }
    ::_exit(0);
  }
  ::close(listener);
  return pid;
}

pid_t startDaemon(const std::string& path) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execl(PELMORA_HELPER_BINARY, "pelmora-helper", "--foreground", "--socket", path.c_str(), nullptr);
    ::_exit(127);
  }
  return pid;
}

struct Stats {
  double median_us = 0;
  double p99_us = 0;
};

Stats summarise(std::vector<double> samples_us) {
  std::sort(samples_us.begin(), samples_us.end());
  return {samples_us[samples_us.size() / 2], samples_us[samples_us.size() * 99 / 100]};
}

template <typename Step>
Stats measure(Step step) {
  for (int i = 0; i < kWarmup; ++i) step();
  std::vector<double> samples;
  samples.reserve(kRounds);
  for (int i = 0; i < kRounds; ++i) {
    const auto start = Clock::now();
    step();
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return summarise(std::move(samples));
}

}  // namespace

int main() {
  char dir_template[] = "/tmp/pelmora-bench-XXXXXX";
  const std::filesystem::path dir = ::mkdtemp(dir_template);
  const std::string daemon_socket = (dir / "helper.sock").string();
  const std::string echo_socket = (dir / "echo.sock").string();

  const pelmora::XPCDict request{{"taskinfo", "taskinfo"}, {"pid", int64_t{::getpid()}}};
  const pid_t daemon = startDaemon(daemon_socket);
  pelmora::SocketTransport transport(daemon_socket);
  for (int i = 0; i < 500 && !transport.connected(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  auto sample_reply = transport.exchange(request);
  if (!sample_reply || !pelmora::xpcData(*sample_reply, "taskinfo")) {
    std::fprintf(stderr, "the daemon did not answer \"taskinfo\"\n");
    ::kill(daemon, SIGTERM);
    return 1;
  }
  const size_t request_bytes = pelmora::xpcEncode(request)->frame.size();
  const size_t reply_bytes = pelmora::xpcEncode(*sample_reply)->frame.size();

  const Stats helper = measure([&] {
    auto reply = transport.exchange(request);
    benchmark::DoNotOptimize(reply);
  });

  const pid_t echo = startEchoServer(echo_socket, request_bytes, reply_bytes);
  const int fd = connectTo(echo_socket);
  std::vector<uint8_t> out(request_bytes, 0xA5), in(reply_bytes);
  const Stats bare = measure([&] {
    writeFull(fd, out.data(), out.size());
    readFull(fd, in.data(), in.size());
  });
  ::close(fd);

  std::printf("helper_roundtrip: %d rounds, request %zu bytes, reply %zu bytes\n", kRounds, request_bytes, reply_bytes);
  std::printf("%-28s %12s %12s\n", "", "median (us)", "p99 (us)");
  std::printf("%-28s %12.2f %12.2f\n", "pelmora-helper \"taskinfo\"", helper.median_us, helper.p99_us);
  std::printf("%-28s %12.2f %12.2f\n", "bare Unix-socket ping-pong", bare.median_us, bare.p99_us);
  std::printf("%-28s %12.2f %12.2f\n", "ratio (helper / bare)", helper.median_us / bare.median_us,
              helper.p99_us / bare.p99_us);

  ::kill(daemon, SIGTERM);
  ::kill(echo, SIGTERM);
  ::waitpid(daemon, nullptr, 0);
  ::waitpid(echo, nullptr, 0);
  std::filesystem::remove_all(dir);
  return 0;
}
