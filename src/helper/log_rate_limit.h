#pragma once
// Keeps a flood of similar events (a user sending thousands of bad frames a second) from becoming a
// flood of log lines. Runs as root in the daemon; pure arithmetic over the times it is given.
#include <chrono>
#include <cstddef>

namespace pelmora {

class LogRateLimit {
 public:
  using Clock = std::chrono::steady_clock;
  // At most `burst` lines in each `window`.
  LogRateLimit(size_t burst, Clock::duration window) : m_burst(burst), m_window(window) {}

  // Whether a line may be written at `now`. When it may, *dropped is the number of lines held back
  // since the last one written, for the line to mention.
  bool allow(Clock::time_point now, size_t* dropped);

 private:
  const size_t m_burst;
  const Clock::duration m_window;
  Clock::time_point m_window_start{};
  size_t m_in_window = 0;
  size_t m_dropped = 0;
};

}  // namespace pelmora
