#pragma once
// Waiting for something another thread or process does. Every wait is bounded, so a broken
// component fails its test instead of hanging the run; the bounds are generous and never a
// measurement.
#include <chrono>
#include <thread>

#include "support/main_queue.h"

namespace pelmora::test {

// Polls pred until it holds or `limit` has passed; true when it held.
template <typename Pred>
bool eventually(Pred&& pred, std::chrono::milliseconds limit = std::chrono::seconds(30),
                std::chrono::milliseconds poll = std::chrono::milliseconds(2)) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(poll);
  }
  return true;
}

// The same, running the main run loop between polls: for what arrives as a posted job or broadcast.
template <typename Pred>
bool runUntil(Pred&& pred, std::chrono::milliseconds limit = std::chrono::seconds(60),
              std::chrono::milliseconds slice = std::chrono::milliseconds(5)) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    RunLoop::main().runFor(slice);
  }
  return true;
}

}  // namespace pelmora::test
