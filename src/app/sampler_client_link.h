#pragma once
// The sampler holds its clients through shared pointers, while windows and the live icon are owned by
// Qt. A link is the shared object the sampler keeps: it forwards to its owner until the owner cuts it,
// so a sample job that is already queued can never reach a destroyed window. Main thread only.
#include <functional>
#include <memory>

#include "sampling/sample_records.h"

namespace pelmora {

class SamplerClientLink : public SystemStatsClient {
 public:
  using Restarted = std::function<void()>;
  using Updated = std::function<void(const SampleSet&)>;

  SamplerClientLink(Restarted restarted, Updated updated)
      : m_restarted(std::move(restarted)), m_updated(std::move(updated)) {}

  // The owner is going away: later calls do nothing.
  void cut() {
    m_restarted = nullptr;
    m_updated = nullptr;
  }

  void samplerRestarted() override {
    if (m_restarted) m_restarted();
  }
  void statsUpdated(const SampleSet& sample) override {
    if (m_updated) m_updated(sample);
  }

 private:
  Restarted m_restarted;
  Updated m_updated;
};

// Appends a value and drops the oldest entries beyond cap, so a history never outgrows it.
template <typename Vec, typename T>
void appendCapped(Vec& history, T&& value, size_t cap) {
  history.push_back(std::forward<T>(value));
  if (history.size() > cap) history.erase(history.begin(), history.begin() + (history.size() - cap));
}

}  // namespace pelmora
