// One sampler tick on this machine, against what the same reads cost without the sampler: the same
// files read with a plain open/read/close loop in-process, and by a `cat` child over the same files
// (what a shell script polling these files pays). Prints the medians side by side.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "median_table.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "sampling/disk_collector.h"
#include "sampling/network_collector.h"
#include "sampling/system_stats.h"
#include "support/main_queue.h"
#include "support/sys_root.h"

extern char** environ;

namespace {

using pelmora::SysRoot;

// The files one tick reads on this machine.
std::vector<std::string> tickFiles() {
  const SysRoot& root = SysRoot::current();
  std::vector<std::string> files = {root.proc("stat"), root.proc("meminfo"), root.proc("loadavg"),
                                    root.sys("devices/system/cpu/present")};
  auto add = [&](const std::string& path) {
    if (access(path.c_str(), R_OK) == 0) files.push_back(path);
  };
  for (const auto& disk : root.listSys("block"))
    if (pelmora::DiskCollector::isPhysicalName(disk))
      for (const char* f : {"/dev", "/stat", "/hidden", "/device/vendor", "/device/model"}) add(root.sys("block/" + disk + f));
  for (const auto& intf : root.listSys("class/net"))
    if (pelmora::NetworkCollector::isReported(intf))
      for (const char* f : {"/statistics/rx_bytes", "/statistics/tx_bytes"}) add(root.sys("class/net/" + intf + f));
  for (const auto& zone : root.listSys("class/powercap"))
    for (const char* f : {"/energy_uj", "/max_energy_range_uj"}) add(root.sys("class/powercap/" + zone + f));
  for (const auto& hwmon : root.listSys("class/hwmon"))
    for (const auto& f : root.listSys("class/hwmon/" + hwmon))
      if (f.rfind("fan", 0) == 0 || f.rfind("pwm", 0) == 0 || f.rfind("power", 0) == 0) add(root.sys("class/hwmon/" + hwmon + "/" + f));
  return files;
}

void BM_SamplerTick(benchmark::State& state) {
  auto sampler = pelmora::SystemStats::create(SysRoot::current());
  for (auto _ : state) {
    sampler->tick();
    state.PauseTiming();
    pelmora::RunLoop::main().runUntilIdle();  // the delivery job: no clients, so it only checks
    state.ResumeTiming();
  }
}

void BM_PlainReadLoop(benchmark::State& state) {
  const auto files = tickFiles();
  char buffer[16384];
  for (auto _ : state) {
    size_t total = 0;
    for (const auto& path : files) {
      const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) total += static_cast<size_t>(n);
      close(fd);
    }
    benchmark::DoNotOptimize(total);
  }
  state.counters["files"] = static_cast<double>(files.size());
}

void BM_CatProcess(benchmark::State& state) {
  const auto files = tickFiles();
  std::vector<char*> argv = {const_cast<char*>("cat")};
  for (const auto& f : files) argv.push_back(const_cast<char*>(f.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  for (auto _ : state) {
    pid_t pid = -1;
    if (posix_spawnp(&pid, "cat", &actions, nullptr, argv.data(), environ) != 0) {
      state.SkipWithError("cannot start cat");
      break;
    }
    int status = 0;
    waitpid(pid, &status, 0);
  }
  posix_spawn_file_actions_destroy(&actions);
}

constexpr int kRepetitions = 9;
BENCHMARK(BM_SamplerTick)->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_PlainReadLoop)->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_CatProcess)->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);

void printTable(const std::map<std::string, double>& medians_us) {
  pelmora::bench::printMedianTable(medians_us, "one sample of this machine", "vs tick",
                                   {{"BM_SamplerTick", "sampler tick (parse + records)"},
                                    {"BM_PlainReadLoop", "same files, plain read loop"},
                                    {"BM_CatProcess", "same files, one cat process"}},
                                   34);
  std::printf("files read per tick: %zu; the tick's budget on its deadline thread is 5000 us\n", tickFiles().size());
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  pelmora::bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  printTable(reporter.medians_us);
  return 0;
}
