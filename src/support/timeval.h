#pragma once
// A point in time with microsecond resolution. Intervals (elapsed) come from the monotonic clock so a
// wall-clock step never makes a rate negative; tests replace the clock with a fake one.
#include <cstdint>
#include <functional>

namespace pelmora {

class Timeval {
 public:
  using Clock = std::function<int64_t()>;  // returns microseconds on a monotonic scale

  Timeval();  // now
  static Timeval now() { return Timeval(); }
  static Timeval fromMicroseconds(int64_t us) { Timeval t; t.m_us = us; return t; }

  int64_t microseconds() const { return m_us; }
  // Microseconds from this instant to now (negative if this lies in the future).
  int64_t elapsed() const;
  // Microseconds from this instant to a later one.
  int64_t elapsedUntil(const Timeval& later) const { return later.m_us - m_us; }

  bool operator==(const Timeval&) const = default;

  // Tests only: replace the clock (pass nullptr to restore the real one). Not thread-safe against
  // concurrent now() calls; install it before starting threads.
  static void setClockForTesting(Clock clock);
  static int64_t nowMicroseconds();

 private:
  int64_t m_us;
};

// A fake monotonic clock for tests: starts at 1 s and only moves when told.
class FakeClock {
 public:
  FakeClock();
  ~FakeClock();
  void advance_us(int64_t us);
  int64_t now_us() const;
};

}  // namespace pelmora
