// `pelmora top --json` and `pelmora sample --json` against the kernel, with known workloads: a busy
// loop, a process holding 200 MiB with 8 threads, a loopback TCP pair at a known rate and a stopped
// child. The truth is read by this test itself, from /proc, /sys and the kernel's process
// CPU clocks, never through Pelmora's own parsers. The busy loop's share is compared over the very
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
#include <optional>
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
#include "common/tool_process.h"
#include "common/words.h"

namespace {

namespace fs = std::filesystem;
using namespace pelmora::test;

constexpr size_t kResidentBytes = size_t{200} << 20;
constexpr int64_t kSendBytesPerTick = 10'000;  // every 10 ms: 1,000,000 B/s, 8 Mbit/s
constexpr double kSendBitsPerSecond = 8'000'000.0;

// "Threads:" and the like from /proc/PID/status.
int64_t statusValue(pid_t pid, const std::string& key) {
  return keyedNumber("/proc/" + std::to_string(pid) + "/status", key);
}

std::set<pid_t> procPids() {
  std::set<pid_t> pids;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) pids.insert(std::stoi(name));
  }
  return pids;
}

double clock_ns(clockid_t clock) {
  timespec ts{};
  ::clock_gettime(clock, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Real-time priority (root only) keeps the paced sender and its reader on time on a busy machine.
void realTime() {
  sched_param param{};
  param.sched_priority = 10;
  ::sched_setscheduler(0, SCHED_FIFO, &param);
}

// Calls `note` now, then from a thread every `period` until stop(), and once more then: what the
// kernel showed while the tool ran. What it notes is read only after stop().
class Watch {
 public:
  explicit Watch(std::function<void()> note, std::chrono::microseconds period = {}) : m_note(std::move(note)) {
    m_note();
    m_thread = std::thread([this, period] {
      while (!m_stop) {
        m_note();
        std::this_thread::sleep_for(period);
      }
    });
  }
  ~Watch() { stop(); }
  void stop() {
    m_stop = true;
    if (!m_thread.joinable()) return;
    m_thread.join();
    m_note();
  }

 private:
  std::function<void()> m_note;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

// A process's CPU clock against the monotonic one.
struct ClockPoint {
  double time_ns, cpu_ns;
};

// y at x on the line through (x0, y0) and (x1, y1).
double lerp(double x0, double y0, double x1, double y1, double x) {
  return x1 == x0 ? y1 : y0 + (y1 - y0) * (x - x0) / (x1 - x0);
}

std::optional<double> cpuAt(const std::vector<ClockPoint>& trace, double time_ns) {
  for (size_t i = 1; i < trace.size(); ++i) {
    const ClockPoint &a = trace[i - 1], &b = trace[i];
    if (a.time_ns <= time_ns && b.time_ns >= time_ns) return lerp(a.time_ns, a.cpu_ns, b.time_ns, b.cpu_ns, time_ns);
  }
  return std::nullopt;
}

// The share of one processor over the interval_us that ended when the clock read cpu_us. A process
// that was not running when it was read kept that clock value for a while, so the end of the
// interval is known only to lie in that stretch: the answer is the lowest and highest share over
// the possible ends (one value for a process that was running).
std::optional<std::pair<double, double>> shareBefore(const std::vector<ClockPoint>& trace, int64_t cpu_us,
                                                     int64_t interval_us) {
  const double cpu_end = static_cast<double>(cpu_us) * 1000, span_ns = static_cast<double>(interval_us) * 1000;
  std::optional<double> first_end, last_end;
  for (size_t i = 1; i < trace.size() && !last_end; ++i) {
    const ClockPoint &a = trace[i - 1], &b = trace[i];
    if (!first_end && b.cpu_ns >= cpu_end) first_end = lerp(a.cpu_ns, a.time_ns, b.cpu_ns, b.time_ns, cpu_end);
    if (a.cpu_ns <= cpu_end && b.cpu_ns > cpu_end) last_end = lerp(a.cpu_ns, a.time_ns, b.cpu_ns, b.time_ns, cpu_end);
  }
  const auto early = first_end ? cpuAt(trace, *first_end - span_ns) : std::nullopt;
  const auto late = last_end ? cpuAt(trace, *last_end - span_ns) : std::nullopt;
  if (!early || !late) return std::nullopt;
  const double a = (cpu_end - *early) / span_ns, b = (cpu_end - *late) / span_ns;
  return std::make_pair(std::min(a, b), std::max(a, b));
}

// `pelmora ARGS` run to its end, its errors aside; what it printed, as JSON, and its pid.
nlohmann::json runTool(const std::string& args, pid_t* pid = nullptr) {
  int out = -1;
  const std::string binary = std::string(PELMORA_BINARY_DIR) + "/src/cli/pelmora";
  const pid_t child = spawnTool({"/bin/sh", "-c", "exec " + binary + " " + args + " 2>/dev/null"}, {}, &out);
  const std::string text = readUntil(out);
  ::close(out);
  ::waitpid(child, nullptr, 0);
  if (pid) *pid = child;
  return nlohmann::json::parse(text, nullptr, false);
}

TEST(TopOracle, EveryFigureMatchesTheKernel) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the network tool sees every process's sockets only as root";
  const long page = ::sysconf(_SC_PAGESIZE);
  Child busy = Child::busy();
  Child big([] {
    void* memory = ::mmap(nullptr, kResidentBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) ::_exit(1);
    std::memset(memory, 1, kResidentBytes);
    std::vector<std::thread> seven;
    for (int i = 0; i < 7; ++i)
      seven.emplace_back([] {
        for (;;) ::pause();
      });
    for (;;) ::pause();
  });
  Child stopped = sleepingChild();
  ::kill(stopped.pid(), SIGSTOP);

  // Each end in a child of its own, so that each process's rate is the pair's alone.
  LoopbackPair pair;
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
  eventually([&] {
    return statusValue(big.pid(), "VmRSS") * 1024 >= static_cast<int64_t>(kResidentBytes) &&
           statusValue(big.pid(), "Threads") == 8 && procState(stopped.pid()) == 'T';
  });
  // A second of traffic before the tool starts, so both ends' counters run steadily.
  std::this_thread::sleep_for(std::chrono::seconds(1));

  clockid_t busy_clock{};
  ::clock_getcpuclockid(busy.pid(), &busy_clock);
  std::vector<ClockPoint> trace;
  Watch tracing(
      [&] {
        const double cpu_ns = clock_ns(busy_clock);
        trace.push_back({clock_ns(CLOCK_MONOTONIC), cpu_ns});
      },
      std::chrono::milliseconds(2));
  const std::set<pid_t> before = procPids();
  pid_t top_pid = -1;
  const auto out = runTool("top --json", &top_pid);
  const std::set<pid_t> after = procPids();
  tracing.stop();
  ASSERT_FALSE(out.is_discarded());
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
  for (pid_t pid : {big.pid(), stopped.pid()}) {
    ASSERT_TRUE(rows.count(pid));
    const auto statm = words(readText("/proc/" + std::to_string(pid) + "/statm"));
    EXPECT_EQ(rows[pid]["resident_bytes"], std::stoll(statm.at(1)) * page) << pid;
    EXPECT_EQ(rows[pid]["virtual_bytes"], std::stoll(statm.at(0)) * page) << pid;
    EXPECT_EQ(rows[pid]["uid"], statusValue(pid, "Uid"));
  }
  EXPECT_GE(rows[big.pid()]["resident_bytes"].get<int64_t>(), static_cast<int64_t>(kResidentBytes));
  EXPECT_EQ(rows[big.pid()]["threads"], 8);
  EXPECT_EQ(rows[stopped.pid()]["threads"], 1);

  // The stopped child used nothing, and was left as we left it.
  EXPECT_EQ(rows[stopped.pid()]["cpu_share"], 0.0);
  EXPECT_EQ(procState(stopped.pid()), 'T');

  // The busy loop's share over Pelmora's own interval, from the kernel's clock, within a point.
  ASSERT_TRUE(rows.count(busy.pid()));
  const auto& spin = rows[busy.pid()];
  ASSERT_TRUE(spin["interval_us"].is_number());
  const auto truth = shareBefore(trace, spin["cpu_us"].get<int64_t>(), spin["interval_us"].get<int64_t>());
  ASSERT_TRUE(truth);
  EXPECT_GE(spin["cpu_share"].get<double>(), truth->first - 0.01);
  EXPECT_LE(spin["cpu_share"].get<double>(), truth->second + 0.01);

  // The paced TCP pair, within 5 % each way.
  ASSERT_TRUE(rows.count(sender.pid()) && rows.count(receiver.pid()));
  EXPECT_NEAR(rows[sender.pid()]["net_out_bits_per_s"].get<double>(), kSendBitsPerSecond, 0.05 * kSendBitsPerSecond);
  EXPECT_NEAR(rows[receiver.pid()]["net_in_bits_per_s"].get<double>(), kSendBitsPerSecond,
              0.05 * kSendBitsPerSecond);
}

// A counter of the machine by the name `pelmora sample --json` gives it: "cpu0 totalUserTime",
// "vda bytes_read", "eth0 bytes_in".
using Counters = std::map<std::string, int64_t>;

// The machine-wide counters as the kernel keeps them, read here without any of our parsers.
Counters kernelCounters() {
  Counters k;
  const int64_t ns_per_tick = 1'000'000'000 / ::sysconf(_SC_CLK_TCK);
  std::istringstream stat(readText("/proc/stat"));
  for (std::string line; std::getline(stat, line);) {
    const auto w = words(line);
    if (w.size() < 8 || w[0].rfind("cpu", 0) != 0 || w[0] == "cpu") continue;
    auto t = [&](size_t i) { return std::stoll(w[i]) * ns_per_tick; };
    k[w[0] + " totalUserTime"] = t(1) + t(2);           // user + nice
    k[w[0] + " totalSystemTime"] = t(3) + t(6) + t(7);  // system + irq + softirq
    k[w[0] + " totalIdleTime"] = t(4) + t(5);           // idle + iowait
  }
  for (const auto& entry : fs::directory_iterator("/sys/block")) {
    const auto w = words(readText(entry.path() / "stat"));
    const std::string disk = entry.path().filename().string() + " ";
    if (w.size() < 7) continue;
    k[disk + "count_read"] = std::stoll(w[0]);
    k[disk + "bytes_read"] = std::stoll(w[2]) * 512;
    k[disk + "count_write"] = std::stoll(w[4]);
    k[disk + "bytes_write"] = std::stoll(w[6]) * 512;
  }
  for (const auto& entry : fs::directory_iterator("/sys/class/net"))
    for (auto [key, file] : {std::pair{" bytes_in", "rx_bytes"}, std::pair{" bytes_out", "tx_bytes"}}) {
      const auto w = words(readText(entry.path() / "statistics" / file));
      if (!w.empty()) k[entry.path().filename().string() + key] = std::stoll(w[0]);
    }
  return k;
}

// The same counters as one sample of the tool reports them.
Counters reportedCounters(const nlohmann::json& sample) {
  Counters r;
  for (size_t i = 0; i < sample["cpu_stats"].size(); ++i)
    for (const char* key : {"totalUserTime", "totalSystemTime", "totalIdleTime"})
      r["cpu" + std::to_string(i) + " " + key] = sample["cpu_stats"][i][key];
  for (const auto& disk : sample["dsk_stats"])
    for (const char* key : {"count_read", "bytes_read", "count_write", "bytes_write"})
      r[disk["bsdname"].get<std::string>() + " " + key] = disk["stats"][key];
  for (const auto& intf : sample["net_stats"])
    for (const char* key : {"bytes_in", "bytes_out"})
      r[intf["intf"].get<std::string>() + " " + key] = intf["stats"][key];
  return r;
}

int64_t sumOf(const Counters& counters, const std::string& suffix) {
  int64_t sum = 0;
  for (const auto& [name, value] : counters)
    if (name.ends_with(suffix)) sum += value;
  return sum;
}

// Every counter `pelmora sample --json` reports lies between the kernel's value just before the
// tool ran and just after: they only grow, so a wrong unit, field or device shows. A writer keeps
// the disk counters moving, so a stale or cached read shows too. Free memory moves both ways, by
// hundreds of megabytes when a compiler starts or ends beside it: it must lie near the range the
// kernel showed while the tool ran, read every millisecond (the tool's own start-up takes some).
// The process counts cover every process of the machine, each once: at least those that lived
// throughout, at most all that were seen (a task counted per thread would be far more).
TEST(SampleOracle, EveryCounterIsTheKernels) {
  const std::string file = ::testing::TempDir() + "/sample-oracle-" + std::to_string(::getpid());
  Child writer([&file] {
    std::vector<char> block(1 << 20, 'x');
    for (;;) {
      std::ofstream(file, std::ios::trunc).write(block.data(), static_cast<std::streamsize>(block.size()));
      ::sync();
    }
  });
  const std::set<pid_t> before_pids = procPids();
  const Counters before = kernelCounters();
  std::set<pid_t> seen;
  Watch pids([&] { seen.merge(procPids()); });
  int64_t free_low_bytes = INT64_MAX, free_high_bytes = 0;
  Watch free_memory(
      [&] {
        const int64_t free_bytes = keyedNumber("/proc/meminfo", "MemFree") * 1024;
        free_low_bytes = std::min(free_low_bytes, free_bytes);
        free_high_bytes = std::max(free_high_bytes, free_bytes);
      },
      std::chrono::milliseconds(1));
  const auto out = runTool("sample --count 1 --json");
  pids.stop();
  free_memory.stop();
  const Counters after = kernelCounters();
  const std::set<pid_t> after_pids = procPids();
  fs::remove(file);
  ASSERT_FALSE(out.is_discarded());

  EXPECT_EQ(out["cpu_stats"].size(), static_cast<size_t>(::sysconf(_SC_NPROCESSORS_ONLN))) << "one per processor";
  EXPECT_FALSE(out["dsk_stats"].empty()) << "this machine has a disk";
  const Counters reported = reportedCounters(out);
  for (const auto& [name, value] : reported) {
    ASSERT_TRUE(before.count(name)) << name << " is no counter of the kernel's";
    EXPECT_GE(value, before.at(name)) << name;
    EXPECT_LE(value, after.at(name)) << name;
  }
  EXPECT_FALSE(reported.count("lo bytes_in")) << "the loopback is no interface of the machine's";
  EXPECT_EQ(out["io_stats"]["bytes_read"].get<int64_t>(), sumOf(reported, " bytes_read")) << "the sum of the disks";
  EXPECT_EQ(out["io_stats"]["bytes_write"].get<int64_t>(), sumOf(reported, " bytes_write")) << "the sum of the disks";

  const int64_t page = ::sysconf(_SC_PAGESIZE), slack = int64_t{64} << 20;
  const int64_t free_bytes = out["mem_stats"]["free_count"].get<int64_t>() * page;
  EXPECT_GE(free_bytes, free_low_bytes - slack);
  EXPECT_LE(free_bytes, free_high_bytes + slack);

  const auto& counts = out["proc_stats"];
  const int64_t total = counts["user"].get<int64_t>() + counts["system"].get<int64_t>() +
                        counts["other"].get<int64_t>();
  std::set<pid_t> lived;
  std::set_intersection(before_pids.begin(), before_pids.end(), after_pids.begin(), after_pids.end(),
                        std::inserter(lived, lived.end()));
  EXPECT_GE(total, static_cast<int64_t>(lived.size()));
  EXPECT_LE(total, static_cast<int64_t>(seen.size()));
}

}  // namespace
