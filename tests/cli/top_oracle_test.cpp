// `pelmora top --json` and `pelmora sample --json` against the kernel, with known workloads: a busy
// loop, a process holding 200 MiB, one with 8 threads, a loopback TCP pair at a known rate and a
// stopped child. The truth is read by this test itself, from /proc and the kernel's process CPU
// clocks, never through Pelmora's own parsers. The busy loop's share is compared over the very
// interval Pelmora measured it (the row's "interval_us" ending where its "cpu_us" was read), so
// other work on the machine changes both sides alike.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/child.h"
#include "common/eventually.h"
#include "common/loopback_pair.h"
#include "common/text_file.h"
#include "common/words.h"

namespace {

using pelmora::test::Child;
using pelmora::test::procState;
using pelmora::test::readText;
using pelmora::test::words;

constexpr size_t kResidentBytes = size_t{200} << 20;
constexpr int64_t kSendBytesPerTick = 10'000;  // every 10 ms: 1,000,000 B/s, 8 Mbit/s
constexpr double kSendBitsPerSecond = 8'000'000.0;

// "Threads:" and the like from /proc/PID/status.
int64_t statusValue(pid_t pid, const std::string& key) {
  return pelmora::test::keyedNumber("/proc/" + std::to_string(pid) + "/status", key);
}

std::set<pid_t> procPids() {
  std::set<pid_t> pids;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos) pids.insert(std::stoi(name));
  }
  return pids;
}

int64_t monotonic_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

// Real-time priority (root only) keeps the paced sender and its reader on time on a busy machine.
void realTime() {
  sched_param param{};
  param.sched_priority = 10;
  ::sched_setscheduler(0, SCHED_FIFO, &param);
}

// The kernel's CPU clock of one process, sampled every 2 ms from a thread, with the monotonic time.
class CpuClockTrace {
 public:
  explicit CpuClockTrace(pid_t pid) {
    ::clock_getcpuclockid(pid, &m_clock);
    m_thread = std::thread([this] {
      while (!m_stop) {
        timespec cpu{};
        ::clock_gettime(m_clock, &cpu);
        const auto now = static_cast<double>(monotonic_ns());
        {
          std::lock_guard lock(m_mutex);
          m_points.push_back({now, static_cast<double>(int64_t{cpu.tv_sec} * 1'000'000'000 + cpu.tv_nsec)});
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    });
  }
  ~CpuClockTrace() { stop(); }
  void stop() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
  }
  // The share of one processor over the interval_us that ended when the clock read cpu_us. A
  // process that was not running when it was read kept that clock value for a while, so the end of
  // the interval is known only to lie in that stretch: the answer is the lowest and highest share
  // over the possible ends (one value for a process that was running).
  std::optional<std::pair<double, double>> shareBefore(int64_t cpu_us, int64_t interval_us) {
    std::lock_guard lock(m_mutex);
    const double cpu_end = static_cast<double>(cpu_us) * 1000, span_ns = static_cast<double>(interval_us) * 1000;
    std::optional<double> first_end, last_end;
    for (size_t i = 1; i < m_points.size() && !last_end; ++i) {
      const Point &a = m_points[i - 1], &b = m_points[i];
      if (!first_end && b.cpu_ns >= cpu_end) first_end = lerp(a.cpu_ns, a.time_ns, b.cpu_ns, b.time_ns, cpu_end);
      if (a.cpu_ns <= cpu_end && b.cpu_ns > cpu_end) last_end = lerp(a.cpu_ns, a.time_ns, b.cpu_ns, b.time_ns, cpu_end);
    }
    const auto early = first_end ? cpuAt(*first_end - span_ns) : std::nullopt;
    const auto late = last_end ? cpuAt(*last_end - span_ns) : std::nullopt;
    if (!early || !late) return std::nullopt;
    const double a = (cpu_end - *early) / span_ns, b = (cpu_end - *late) / span_ns;
    return std::make_pair(std::min(a, b), std::max(a, b));
  }

 private:
  struct Point {
    double time_ns;
    double cpu_ns;
  };
  // y at x on the line through (x0, y0) and (x1, y1).
  static double lerp(double x0, double y0, double x1, double y1, double x) {
    return x1 == x0 ? y1 : y0 + (y1 - y0) * (x - x0) / (x1 - x0);
  }
  std::optional<double> cpuAt(double time_ns) const {
    for (size_t i = 1; i < m_points.size(); ++i) {
      const Point &a = m_points[i - 1], &b = m_points[i];
      if (a.time_ns <= time_ns && b.time_ns >= time_ns) return lerp(a.time_ns, a.cpu_ns, b.time_ns, b.cpu_ns, time_ns);
    }
    return std::nullopt;
  }

  clockid_t m_clock{};
  std::atomic<bool> m_stop{false};
  std::mutex m_mutex;
  std::vector<Point> m_points;
  std::thread m_thread;
};

// Every pid that /proc listed while it ran, looked at every few milliseconds, so that most of the
// short-lived processes of a busy machine are seen too.
class PidWatcher {
 public:
  PidWatcher() : m_seen(procPids()) {
    m_thread = std::thread([this] {
      while (!m_stop) {
        const auto now = procPids();
        std::lock_guard lock(m_mutex);
        m_seen.insert(now.begin(), now.end());
      }
    });
  }
  std::set<pid_t> stop() {
    m_stop = true;
    m_thread.join();
    return m_seen;
  }

 private:
  std::atomic<bool> m_stop{false};
  std::mutex m_mutex;
  std::set<pid_t> m_seen;
  std::thread m_thread;
};

// Runs the real tool; its standard output, and its pid.
std::string runPelmora(const std::vector<std::string>& args, pid_t* pid_out) {
  const std::string binary = std::string(PELMORA_BINARY_DIR) + "/src/cli/pelmora";
  int out[2];
  if (::pipe(out) != 0) return {};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::close(out[0]);
    std::vector<char*> argv{const_cast<char*>("pelmora")};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(binary.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(out[1]);
  if (pid_out) *pid_out = pid;
  std::string text;
  char buffer[65536];
  ssize_t n;
  while ((n = ::read(out[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  ::close(out[0]);
  ::waitpid(pid, nullptr, 0);
  return text;
}

class TopOracle : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the network tool sees every process's sockets only as root";
  }
};

TEST_F(TopOracle, EveryFigureMatchesTheKernel) {
  const long page = ::sysconf(_SC_PAGESIZE);
  Child busy([] {
    volatile uint64_t spin = 0;
    for (;;) spin = spin + 1;
  });
  Child resident([] {
    void* memory = ::mmap(nullptr, kResidentBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) ::_exit(1);
    std::memset(memory, 1, kResidentBytes);
    for (;;) ::pause();
  });
  Child threads([] {
    std::vector<std::thread> seven;
    for (int i = 0; i < 7; ++i) seven.emplace_back([] { for (;;) ::pause(); });
    for (;;) ::pause();
  });
  Child stopped([] { for (;;) ::pause(); });
  ::kill(stopped.pid(), SIGSTOP);

  // Each end in a child of its own, so that each process's rate is the pair's alone.
  pelmora::test::LoopbackPair pair;
  Child receiver([&] {
    realTime();
    pair.client.reset();
    char buffer[65536];
    while (::read(pair.server.get(), buffer, sizeof buffer) > 0) {
    }
  });
  Child sender([&] {
    realTime();
    pair.server.reset();
    static char chunk[kSendBytesPerTick];
    timespec next{};
    ::clock_gettime(CLOCK_MONOTONIC, &next);
    for (;;) {
      if (::write(pair.client.get(), chunk, sizeof chunk) != static_cast<ssize_t>(sizeof chunk)) ::_exit(1);
      next.tv_nsec += 10'000'000;
      next.tv_sec += next.tv_nsec / 1'000'000'000;
      next.tv_nsec %= 1'000'000'000;
      ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
  });
  pair.client.reset();
  pair.server.reset();
  pelmora::test::eventually([&] {
    return statusValue(resident.pid(), "VmRSS") * 1024 >= static_cast<int64_t>(kResidentBytes) &&
           statusValue(threads.pid(), "Threads") == 8 && procState(stopped.pid()) == 'T';
  });
  // A second of traffic before the tool starts, so both ends' counters run steadily.
  std::this_thread::sleep_for(std::chrono::seconds(1));

  CpuClockTrace trace(busy.pid());
  const std::set<pid_t> before = procPids();
  pid_t top_pid = -1;
  const std::string text = runPelmora({"top", "--json"}, &top_pid);
  const std::set<pid_t> after = procPids();
  trace.stop();
  const auto out = nlohmann::json::parse(text, nullptr, false);
  ASSERT_FALSE(out.is_discarded()) << text.substr(0, 200);
  std::map<pid_t, nlohmann::json> rows;
  for (const auto& row : out["processes"]) rows[row["pid"].get<pid_t>()] = row;

  // Every process that lived through the run is in the table: init, kernel threads, the tool itself.
  for (pid_t pid : before) {
    if (after.count(pid)) {
      EXPECT_TRUE(rows.count(pid)) << "process " << pid << " missing";
    }
  }
  ASSERT_TRUE(rows.count(1) && rows.count(2) && rows.count(top_pid));
  EXPECT_NE(rows[1]["kind"], "kernel");
  EXPECT_EQ(rows[2]["kind"], "kernel");
  EXPECT_EQ(rows[2]["name"], "kthreadd");
  EXPECT_EQ(rows[top_pid]["name"], "pelmora");

  // Sizes and counts exact.
  for (pid_t pid : {resident.pid(), threads.pid()}) {
    ASSERT_TRUE(rows.count(pid));
    const auto statm = words(readText("/proc/" + std::to_string(pid) + "/statm"));
    EXPECT_EQ(rows[pid]["resident_bytes"], std::stoll(statm.at(1)) * page) << pid;
    EXPECT_EQ(rows[pid]["virtual_bytes"], std::stoll(statm.at(0)) * page) << pid;
    EXPECT_EQ(rows[pid]["uid"], statusValue(pid, "Uid"));
  }
  EXPECT_GE(rows[resident.pid()]["resident_bytes"].get<int64_t>(), static_cast<int64_t>(kResidentBytes));
  EXPECT_EQ(rows[threads.pid()]["threads"], 8);

  // The stopped child is listed, used nothing, and was left as we left it.
  ASSERT_TRUE(rows.count(stopped.pid()));
  EXPECT_EQ(rows[stopped.pid()]["cpu_share"], 0.0);
  EXPECT_EQ(procState(stopped.pid()), 'T');

  // The busy loop's share over Pelmora's own interval, from the kernel's clock, within a point.
  ASSERT_TRUE(rows.count(busy.pid()));
  const auto& spin = rows[busy.pid()];
  ASSERT_TRUE(spin["interval_us"].is_number());
  const auto truth = trace.shareBefore(spin["cpu_us"].get<int64_t>(), spin["interval_us"].get<int64_t>());
  ASSERT_TRUE(truth);
  EXPECT_GE(spin["cpu_share"].get<double>(), truth->first - 0.01);
  EXPECT_LE(spin["cpu_share"].get<double>(), truth->second + 0.01);

  // The paced TCP pair, within 5 % each way.
  ASSERT_TRUE(rows.count(sender.pid()) && rows.count(receiver.pid()));
  EXPECT_NEAR(rows[sender.pid()]["net_out_bits_per_s"].get<double>(), kSendBitsPerSecond, 0.05 * kSendBitsPerSecond);
  EXPECT_NEAR(rows[receiver.pid()]["net_in_bits_per_s"].get<double>(), kSendBitsPerSecond,
              0.05 * kSendBitsPerSecond);
}

// The sampler's process counts are the table's: every process of the machine, each counted once.
TEST_F(TopOracle, SampleCountsEveryProcess) {
  const std::set<pid_t> before = procPids();
  PidWatcher watcher;
  const std::string text = runPelmora({"sample", "--count", "1", "--json"}, nullptr);
  const std::set<pid_t> seen = watcher.stop();
  const std::set<pid_t> after = procPids();
  const auto out = nlohmann::json::parse(text.substr(0, text.find('\n')), nullptr, false);
  ASSERT_FALSE(out.is_discarded()) << text.substr(0, 200);
  const auto& counts = out["proc_stats"];
  const int64_t total = counts["user"].get<int64_t>() + counts["system"].get<int64_t>() + counts["other"].get<int64_t>();
  std::set<pid_t> lived;
  for (pid_t pid : before)
    if (after.count(pid)) lived.insert(pid);
  // Processes come and go while it runs: at least those that lived throughout, at most all that
  // were seen (a task counted per thread would be far more).
  EXPECT_GE(total, static_cast<int64_t>(lived.size()));
  EXPECT_LE(total, static_cast<int64_t>(seen.size()));
}

// The machine-wide counters as the kernel keeps them, read here without any of our parsers.
struct KernelCounters {
  std::map<std::string, std::vector<int64_t>> cpu_ns;  // "cpu0" -> user, system, idle as the sampler sums them
  std::map<std::string, std::vector<int64_t>> disk;    // "vda" -> reads, bytes read, writes, bytes written
  std::map<std::string, std::vector<int64_t>> net;     // "eth0" -> bytes in, bytes out
};

KernelCounters readKernel() {
  KernelCounters k;
  const int64_t ns_per_tick = 1'000'000'000 / ::sysconf(_SC_CLK_TCK);
  std::istringstream stat(readText("/proc/stat"));
  for (std::string line; std::getline(stat, line);) {
    const auto w = words(line);
    if (w.size() < 8 || w[0].rfind("cpu", 0) != 0 || w[0] == "cpu") continue;
    auto t = [&](size_t i) { return std::stoll(w[i]) * ns_per_tick; };
    // user + nice; system + irq + softirq; idle + iowait
    k.cpu_ns[w[0]] = {t(1) + t(2), t(3) + t(6) + t(7), t(4) + t(5)};
  }
  for (const auto& entry : std::filesystem::directory_iterator("/sys/block")) {
    const auto w = words(readText(entry.path() / "stat"));
    if (w.size() >= 7) {
      k.disk[entry.path().filename()] = {std::stoll(w[0]), std::stoll(w[2]) * 512, std::stoll(w[4]),
                                         std::stoll(w[6]) * 512};
    }
  }
  for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net")) {
    const auto in = words(readText(entry.path() / "statistics/rx_bytes"));
    const auto out = words(readText(entry.path() / "statistics/tx_bytes"));
    if (!in.empty() && !out.empty()) k.net[entry.path().filename()] = {std::stoll(in[0]), std::stoll(out[0])};
  }
  return k;
}

// Free memory moves both ways while the tool runs, by hundreds of megabytes when a compiler or another
// test starts or ends beside it: what holds the tool's one reading is the range the kernel showed
// during the run, read every millisecond, not its two ends.
class FreeMemoryRange {
 public:
  FreeMemoryRange() {
    note();
    m_thread = std::thread([this] {
      while (!m_done) {
        note();
        ::usleep(1000);
      }
    });
  }
  ~FreeMemoryRange() { stop(); }
  void stop() {
    m_done = true;
    if (m_thread.joinable()) m_thread.join();
    note();
  }
  int64_t low_bytes = INT64_MAX, high_bytes = 0;

 private:
  void note() {
    const int64_t free_bytes = pelmora::test::keyedNumber("/proc/meminfo", "MemFree") * 1024;
    low_bytes = std::min(low_bytes, free_bytes);
    high_bytes = std::max(high_bytes, free_bytes);
  }
  std::atomic<bool> m_done{false};
  std::thread m_thread;
};

// Every counter `pelmora sample --json` reports lies between the kernel's value just before the
// tool ran and just after: they only grow, so a wrong unit, field or device shows. A writer keeps
// the disk counters moving, so a stale or cached read shows too. Free memory must lie near the range the kernel showed
// while the tool ran (the tool's own start-up takes some).
TEST(SampleOracle, EveryCounterIsTheKernels) {
  const std::string file = ::testing::TempDir() + "/sample-oracle-" + std::to_string(::getpid());
  Child writer([&file] {
    std::vector<char> block(1 << 20, 'x');
    for (;;) {
      std::ofstream out(file, std::ios::trunc);
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
      out.flush();
      out.close();
      ::sync();
    }
  });
  const KernelCounters before = readKernel();
  FreeMemoryRange free_memory;
  const std::string text = runPelmora({"sample", "--count", "1", "--json"}, nullptr);
  free_memory.stop();
  const KernelCounters after = readKernel();
  std::filesystem::remove(file);
  const auto out = nlohmann::json::parse(text.substr(0, text.find('\n')), nullptr, false);
  ASSERT_FALSE(out.is_discarded()) << text.substr(0, 200);
  auto within = [](int64_t value, int64_t low, int64_t high, const std::string& what) {
    EXPECT_GE(value, low) << what;
    EXPECT_LE(value, high) << what;
  };

  const auto& cpus = out["cpu_stats"];
  ASSERT_EQ(cpus.size(), before.cpu_ns.size()) << "one record per processor (all online here)";
  for (size_t i = 0; i < cpus.size(); ++i) {
    const std::string name = "cpu" + std::to_string(i);
    size_t field = 0;
    for (const char* key : {"totalUserTime", "totalSystemTime", "totalIdleTime"}) {
      within(cpus[i][key].get<int64_t>(), before.cpu_ns.at(name)[field], after.cpu_ns.at(name)[field],
             name + " " + key);
      ++field;
    }
  }

  int64_t io[4] = {0, 0, 0, 0};
  ASSERT_FALSE(out["dsk_stats"].empty()) << "this machine has a disk";
  for (const auto& disk : out["dsk_stats"]) {
    const std::string name = disk["bsdname"];
    ASSERT_TRUE(before.disk.count(name)) << name << " is not a kernel block device";
    size_t field = 0;
    for (const char* key : {"count_read", "bytes_read", "count_write", "bytes_write"}) {
      const int64_t value = disk["stats"][key].get<int64_t>();
      within(value, before.disk.at(name)[field], after.disk.at(name)[field], name + " " + key);
      io[field++] += value;
    }
  }
  EXPECT_EQ(out["io_stats"]["bytes_read"].get<int64_t>(), io[1]) << "the total is the sum of the disks";
  EXPECT_EQ(out["io_stats"]["bytes_write"].get<int64_t>(), io[3]) << "the total is the sum of the disks";

  for (const auto& intf : out["net_stats"]) {
    const std::string name = intf["intf"];
    ASSERT_TRUE(before.net.count(name)) << name;
    EXPECT_NE(name, "lo") << "the loopback is no interface of the machine's";
    within(intf["stats"]["bytes_in"].get<int64_t>(), before.net.at(name)[0], after.net.at(name)[0], name + " in");
    within(intf["stats"]["bytes_out"].get<int64_t>(), before.net.at(name)[1], after.net.at(name)[1], name + " out");
  }

  const int64_t page = ::sysconf(_SC_PAGESIZE);
  const int64_t slack = int64_t{64} << 20;
  within(out["mem_stats"]["free_count"].get<int64_t>() * page, free_memory.low_bytes - slack,
         free_memory.high_bytes + slack, "free memory");
}

}  // namespace
