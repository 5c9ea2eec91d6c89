// pelmora sample [--count N] [--json]: registers with the sampler like any window would, runs the
// main loop and prints each snapshot as it arrives. Ctrl-C and SIGTERM end it cleanly: the signals
// are blocked in every thread and taken by one waiting thread, which asks the main loop to quit.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>

#include "cli/cli_limiter.h"
#include "cli/commands.h"
#include "sampling/power_metrics.h"
#include "sampling/sample_format.h"
#include "sampling/system_stats.h"
#include "support/main_queue.h"
#include "support/text.h"
#include "support/timeval.h"

namespace pelmora::cli {
namespace {

struct SampleOptions {
  int64_t count = 0;  // 0: until interrupted
  bool json = false;
};

std::optional<SampleOptions> parseOptions(const std::vector<std::string>& args) {
  SampleOptions options;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--json") {
      options.json = true;
    } else if (args[i] == "--count" && i + 1 < args.size()) {
      auto n = parseInt64(args[++i]);
      if (!n || *n < 1) return std::nullopt;
      options.count = *n;
    } else {
      return std::nullopt;
    }
  }
  return options;
}

// " | MHz 2064 1800 ..." per processor, once the power-metrics reader has measured; "--" for a
// processor it has no value for.
std::string frequencyPart(const SampleSet& sample) {
  std::string out;
  bool any = false;
  for (const auto& cpu : sample.cpu_stats) {
    any = any || cpu.frequency > 0;
    out += cpu.frequency > 0 ? " " + std::to_string(std::llround(cpu.frequency)) : std::string(" --");
  }
  return any ? " | MHz" + out : std::string();
}

class PrintingClient : public SystemStatsClient {
 public:
  PrintingClient(SampleOptions options, int64_t page_size_bytes)
      : m_options(options),
        m_page_size(page_size_bytes),
        m_memory_total(static_cast<int64_t>(sysconf(_SC_PHYS_PAGES)) * page_size_bytes) {}

  void samplerRestarted() override { m_previous.reset(); }

  void statsUpdated(const SampleSet& sample) override {
    const Timeval now;
    std::string text;
    if (m_options.json) {
      text = SampleFormat::toJson(sample).dump();
    } else {
      const int64_t interval_us = m_previous ? m_previous_time.elapsedUntil(now) : 0;
      text = SampleFormat::line(m_previous ? &*m_previous : nullptr, sample, interval_us, m_page_size, m_memory_total);
      text += frequencyPart(sample);
    }
    m_previous = sample;
    m_previous_time = now;
    text += '\n';
    // A closed pipe (pelmora sample | head) ends the run like Ctrl-C.
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) m_failed = true;
    if (m_failed || (m_options.count > 0 && ++m_printed >= m_options.count)) RunLoop::main().quit();
  }

  bool failed() const { return m_failed; }

 private:
  const SampleOptions m_options;
  const int64_t m_page_size;
  const int64_t m_memory_total;
  std::optional<SampleSet> m_previous;
  Timeval m_previous_time;
  int64_t m_printed = 0;
  bool m_failed = false;
};

// Waits for SIGINT or SIGTERM (blocked everywhere) and has the main loop quit.
class SignalWaiter {
 public:
  SignalWaiter() {
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGINT);
    sigaddset(&m_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    m_thread = std::thread([this] { waitLoop(); });
  }
  ~SignalWaiter() {
    m_done = true;
    m_thread.join();
  }

 private:
  void waitLoop() {
    const timespec poll{0, 100'000'000};
    while (!m_done) {
      // Posted rather than called: run() clears a quit that arrives before it starts.
      if (sigtimedwait(&m_signals, nullptr, &poll) > 0) MainQueue::post([] { RunLoop::main().quit(); });
    }
  }
  sigset_t m_signals{};
  std::atomic<bool> m_done{false};
  std::thread m_thread;
};

}  // namespace

int runSampleCommand(const std::vector<std::string>& args) {
  auto options = parseOptions(args);
  if (!options) {
    std::fputs(usageText().c_str(), stderr);
    return kExitUsage;
  }
  signal(SIGPIPE, SIG_IGN);
  SignalWaiter signals;  // before the sampler's thread exists, so it inherits the blocked mask
  // Frequencies every second, like the samples (the reader's own default is every 5 s).
  PowerMetrics::shared()->setInterval_s(1);
  auto& sampler = SystemStats::shared();
  // The process counts come from the process table, which the limiter's timer keeps fresh.
  CliLimiter limiter;
  limiter->refresh();
  limiter->start();
  // Runs under the sampler's lock and takes the limiter's: the documented lock order.
  sampler.setProcessCensusProvider([&table = *limiter] { return table.owners(); });
  auto client = std::make_shared<PrintingClient>(*options, sampler.pageSize());
  sampler.addClient(client);
  RunLoop::main().run();
  sampler.removeClient(client);
  sampler.setProcessCensusProvider(nullptr);  // before the limiter it refers to goes
  return client->failed() ? kExitFailure : kExitOk;
}

}  // namespace pelmora::cli
