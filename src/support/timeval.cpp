#include "support/timeval.h"

#include <atomic>
#include <chrono>
#include <memory>

namespace pelmora {
namespace {

Timeval::Clock& clockOverride() {
  static Timeval::Clock clock;
  return clock;
}

std::atomic<int64_t> g_fake_now_us{1'000'000};

}  // namespace

int64_t Timeval::nowMicroseconds() {
  if (auto& clock = clockOverride()) return clock();
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

Timeval::Timeval() : m_us(nowMicroseconds()) {}

int64_t Timeval::elapsed() const { return nowMicroseconds() - m_us; }

void Timeval::setClockForTesting(Clock clock) { clockOverride() = std::move(clock); }

FakeClock::FakeClock() {
  g_fake_now_us = 1'000'000;
  Timeval::setClockForTesting([] { return g_fake_now_us.load(); });
}

FakeClock::~FakeClock() { Timeval::setClockForTesting(nullptr); }

void FakeClock::advance_us(int64_t us) { g_fake_now_us += us; }

int64_t FakeClock::now_us() const { return g_fake_now_us.load(); }

}  // namespace pelmora
