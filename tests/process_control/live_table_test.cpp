// The process table over the real /proc, served in-process, with the real pelmora-nettop: a child
// that reads and writes a file and moves bytes over a loopback TCP pair shows disk and network
// rates on the second refresh.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "common/child.h"
#include "common/eventually.h"
#include "common/loopback_pair.h"
#include "common/sim_helper.h"
#include "helper_link/in_process_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"

namespace pelmora {
namespace {

using test::eventually;

// Runs in the forked child: only system calls, no allocation.
[[noreturn]] void churn(const char* file, int tx, int rx, char* buffer, size_t size) {
  for (;;) {
    const int fd = ::open(file, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      if (::write(fd, buffer, size) > 0) ::fdatasync(fd);
      ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);  // so the read goes to the disk
      if (::pread(fd, buffer, size, 0) < 0) _exit(3);
      ::close(fd);
    }
    if (::send(tx, buffer, 65536, 0) < 0) _exit(4);
    for (size_t got = 0; got < 65536;) {
      const ssize_t n = ::recv(rx, buffer, 65536 - got, 0);
      if (n <= 0) _exit(5);
      got += static_cast<size_t>(n);
    }
    const timespec pause{0, 50'000'000};
    ::nanosleep(&pause, nullptr);
  }
}

TEST(LiveTable, ChildShowsDiskAndNetworkRatesOnTheSecondRefresh) {
  test::SimRoot dir;
  const std::string file = (dir.dir() / "churn.bin").string();
  std::vector<char> buffer(1 << 20, 'p');
  const test::LoopbackPair pair;
  const test::Child churning(
      [&] { churn(file.c_str(), pair.client.get(), pair.server.get(), buffer.data(), buffer.size()); });
  const pid_t child = churning.pid();
  Pelmora helper(std::make_unique<InProcessTransport>());
  DefaultSettings settings(dir.settingsFile());
  CPULimiter limiter(helper, SysRoot::current(), settings,
                     {std::string(PELMORA_BINARY_DIR) + "/src/nettop/pelmora-nettop", dir.journalDir()});
  ASSERT_TRUE(limiter.start());
  EXPECT_TRUE(limiter.nettopRunning());

  limiter.refresh();
  const auto first = limiter.rowFor(child);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->readPerSec.current(), 0.0);
  EXPECT_EQ(first->pctCPU, 0.0);
  EXPECT_FALSE(first->name.empty());
  EXPECT_EQ(first->uid, getuid());
  // Two lines of the tool give the first network rate.
  EXPECT_TRUE(eventually([&] {
    const auto net = limiter.netUse();
    auto it = net.find(child);
    return it != net.end() && it->second.rx_rate.current() > 0 && it->second.tx_rate.current() > 0;
  }));
  limiter.refresh();
  const auto second = limiter.rowFor(child);
  ASSERT_TRUE(second);
  EXPECT_GT(second->readPerSec.current(), 0.0);
  EXPECT_GT(second->writePerSec.current(), 0.0);
  EXPECT_GT(second->netReadPerSec, 0.0);
  EXPECT_GT(second->netWritePerSec, 0.0);
  EXPECT_GT(second->pctCPU, 0.0);
  EXPECT_GT(second->energyImpact, 0.0);
  EXPECT_GE(limiter.diskRates().writePerSec, second->writePerSec.current());
#if defined(__x86_64__)
  EXPECT_EQ(second->kind, "x86_64");
#endif

  // Sleep and wake: stop ends the tool, start brings it back while the timer ran on.
  limiter.stop();
  EXPECT_FALSE(limiter.nettopRunning());
  EXPECT_TRUE(limiter.start());
  EXPECT_TRUE(limiter.nettopRunning());

  // On demand (the application): the tool runs only while a window shows the table; the timer makes
  // light passes while someone asks for the owners, and full ones again for a window.
  limiter.setTableOnDemand(true);
  EXPECT_FALSE(limiter.nettopRunning());
  limiter.addTableClient();
  EXPECT_TRUE(limiter.nettopRunning());
  limiter.addTableClient();
  limiter.removeTableClient();
  EXPECT_TRUE(limiter.nettopRunning());
  limiter.removeTableClient();
  EXPECT_FALSE(limiter.nettopRunning());
  limiter.owners();
  const RefreshCounts before = limiter.refreshCounts();
  limiter.setProcessesInterval_ms(100);
  EXPECT_TRUE(eventually([&] { return limiter.refreshCounts().light > before.light; }));
  limiter.addTableClient();
  EXPECT_TRUE(eventually([&] { return limiter.refreshCounts().full > before.full; }));
  EXPECT_TRUE(limiter.nettopRunning());
  limiter.removeTableClient();
  limiter.stop();
}

}  // namespace
}  // namespace pelmora
