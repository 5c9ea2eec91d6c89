#pragma once
// Where the processor collector gets per-processor frequencies from: the power-metrics reader, which
// measures on a timer of its own. Every call except mutex() expects the caller to hold mutex(), and
// the sampler always takes its own lock before this one, never the reverse.
#include <cstddef>

#include "support/mutex.h"

namespace pelmora {

class FrequencySource {
 public:
  virtual ~FrequencySource() = default;
  virtual Mutex& mutex() = 0;
  virtual void start() = 0;
  virtual void stop() = 0;
  // Frequency of processor `cpu` in MHz from the last measurement; 0 when there is none for it.
  virtual double frequency_mhz(size_t cpu) = 0;
};

}  // namespace pelmora
