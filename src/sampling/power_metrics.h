#pragma once
// PowerMetrics: the processor frequencies the sampler copies into each processor's sample. On a
// timer of its own (a measurement takes a sizeable part of a second and needs root) it asks the
// helper for one frequency sample, reads the sampler child's text from the returned descriptor
// and keeps one value per processor line, in MHz and in output order.
//
// Threads: the measuring job runs on the timer thread "net.tandrel.pelmora.powermetrics"; start,
// stop and the readers run on the sampler's threads and the main thread. m_mutex guards every
// field. Every operation except setInterval_s() expects the caller to hold m_mutex; the sampler takes
// its own lock before this one, never after. The job holds m_mutex for its whole run except while
// blocked in read(), so the sampler's tick is not held up by the child's output.
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sampling/frequency_source.h"
#include "support/mutex.h"
#include "support/timer_queue.h"

namespace pelmora {

class Pelmora;

class PowerMetrics : public FrequencySource {
 public:
  static constexpr int64_t USEC = 1000000;  // microseconds per second
  static constexpr const char* kTimerLabel = "net.tandrel.pelmora.powermetrics";
  static constexpr int kDefaultInterval_s = 5;
  static constexpr int kDefaultSampleInterval_ms = 500;
  static constexpr size_t kReadBufferBytes = 4096;

  // The one reader of the program, over the shared helper client; never destroyed.
  static const std::shared_ptr<PowerMetrics>& shared();
  explicit PowerMetrics(Pelmora& helper);
  ~PowerMetrics() override;
  PowerMetrics(const PowerMetrics&) = delete;
  PowerMetrics& operator=(const PowerMetrics&) = delete;

  Mutex& mutex() override { return m_mutex; }
  // Creates and starts the timer unless it runs already.
  void start() override;
  // Stops the timer and empties the list. m_mutex is let go while the timer thread is joined, so a
  // job waiting for the lock can finish; what that job measured is dropped.
  void stop() override;
  // m_frequency[cpu], or 0 beyond the list.
  double frequency_mhz(size_t cpu) override;

  // Takes the lock itself. Seconds; below 1 is refused (logged) and changes nothing.
  void setInterval_s(int interval_s);
  int interval_s() const { return m_interval_s; }
  void setUsePowermetrics(bool use) { m_use_powermetrics = use; }
  // Milliseconds handed to the helper; the helper refuses values outside 1..10000.
  void setSampleInterval_ms(int sample_interval_ms) { m_sample_interval_ms = sample_interval_ms; }
  const std::vector<double>& frequencies() const { return m_frequency; }
  bool running() const { return m_timer != nullptr; }

  // One measurement on the calling thread, as the timer runs it. Takes m_mutex itself.
  void measure();

  // The tool's text to one value per processor line (pure; see the rules in the .cpp).
  static std::vector<double> parseFrequencies(std::string_view text);
  // One chunk as read: up to its first zero byte, with invalid UTF-8 replaced by U+FFFD.
  static std::string decodeChunk(const char* data, size_t size);

 private:
  void measureLocked(uint64_t generation);
  std::string readAllReleasingLock(int fd);

  std::vector<double> m_frequency;  // MHz, one per processor line of the last measurement
  Mutex m_mutex;
  std::unique_ptr<TimerQueue> m_timer;
  bool m_use_powermetrics = true;
  int m_interval_s = kDefaultInterval_s;                 // s, period of the timer
  int m_sample_interval_ms = kDefaultSampleInterval_ms;  // ms, handed to the helper
  uint64_t m_generation = 0;  // bumped by stop(): a job of a stopped timer keeps nothing
  Pelmora& m_helper;
};

}  // namespace pelmora
