#pragma once
// Exponential smoothing with a time constant: the weight of a new sample grows with the time step,
// so irregular sampling intervals still give a rate with the intended memory.
#include <cmath>

namespace pelmora {

struct WeightedStats {
  double last_sample = 0.0;  // the raw value of the last update
  double value = 0.0;        // the smoothed current value
  double time_constant_s = 0.0;
  double time_step_s = 0.0;
  bool seeded = false;       // false until the first sample

  // alpha = 1 - exp(-dt / tau); a zero or negative tau takes the sample as it is. The first sample
  // is taken as it is too: an average that started from 0 would show a steady rate far too low
  // for several time constants.
  void update(double sample, double time_constant_s_, double time_step_s_) {
    last_sample = sample;
    time_constant_s = time_constant_s_;
    time_step_s = time_step_s_;
    if (time_constant_s_ <= 0.0 || !seeded) {
      value = sample;
      seeded = true;
      return;
    }
    const double alpha = 1.0 - std::exp(-time_step_s_ / time_constant_s_);
    value += alpha * (sample - value);
  }
  double current() const { return value; }
};

}  // namespace pelmora
