// pelmora-nettop: once a second, one line per process that owns TCP sockets:
//   "HH:MM:SS.uuuuuu,name.pid,,,bytes_in,bytes_out"
// with cumulative byte counts since this tool started watching. Bytes of sockets that closed stay
// counted; a socket is attributed to the first process found holding it.
//   pelmora-nettop [--count N] [--interval-ms MS]
#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <thread>

#include "nettop/socket_owners.h"
#include "nettop/tcp_socket_table.h"
#include "support/text.h"

using namespace pelmora;

namespace {

volatile sig_atomic_t g_stop = 0;

struct ProcessBytes {
  std::string name;
  uint64_t in = 0;
  uint64_t out = 0;
};

struct Totals {
  std::map<uint64_t, TcpSocketBytes> last;  // per socket inode, at the previous poll
  std::map<int32_t, ProcessBytes> by_pid;
};

std::string timeOfDay() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  std::tm tm{};
  localtime_r(&tv.tv_sec, &tm);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%06ld", tm.tm_hour, tm.tm_min, tm.tm_sec,
                static_cast<long>(tv.tv_usec));
  return buffer;
}

// Adds what every owned socket moved since the last poll to its owner's totals.
void poll(Totals& totals, const SysRoot& root) {
  auto sockets = readTcpSockets();
  if (!sockets) return;
  const auto owners = readSocketOwners(root);
  for (const auto& [inode, bytes] : *sockets) {
    auto owner = owners.find(inode);
    if (owner == owners.end()) continue;
    TcpSocketBytes before{};
    if (auto it = totals.last.find(inode); it != totals.last.end()) before = it->second;
    auto& p = totals.by_pid[owner->second.pid];
    p.name = owner->second.name;
    // A recycled inode starts again from zero.
    p.in += bytes.received >= before.received ? bytes.received - before.received : bytes.received;
    p.out += bytes.acked >= before.acked ? bytes.acked - before.acked : bytes.acked;
  }
  totals.last = std::move(*sockets);
}

void print(const Totals& totals) {
  const std::string now = timeOfDay();
  for (const auto& [pid, p] : totals.by_pid)
    std::printf("%s,%s.%d,,,%llu,%llu\n", now.c_str(), p.name.c_str(), pid, static_cast<unsigned long long>(p.in),
                static_cast<unsigned long long>(p.out));
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  int64_t count = -1, interval_ms = 1000;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const int64_t value = i + 1 < argc ? parseInt64(argv[i + 1]).value_or(0) : 0;
    if ((arg == "--count" || arg == "--interval-ms") && value > 0) {
      (arg == "--count" ? count : interval_ms) = value;
      ++i;
      continue;
    }
    std::fprintf(stderr, "usage: pelmora-nettop [--count N] [--interval-ms MS]\n");
    return 2;
  }
  struct sigaction sa{};
  sa.sa_handler = [](int) { g_stop = 1; };
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  signal(SIGPIPE, SIG_DFL);
  const SysRoot root = SysRoot::fromEnvironment();
  Totals totals;
  auto next = std::chrono::steady_clock::now();
  while (!g_stop && count != 0) {
    poll(totals, root);
    print(totals);
    if (count > 0) --count;
    next += std::chrono::milliseconds(interval_ms);
    while (!g_stop && std::chrono::steady_clock::now() < next) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return 0;
}
