// The power-metrics text on arbitrary output: the chunk decoder always yields valid UTF-8 without a
// zero byte, the line rules never crash and never yield a value that is not finite, and the
// /proc/cpuinfo reader of the helper's sampler keeps only positive finite clocks.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "helper/frequency_sampler.h"
#include "sampling/power_metrics.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string text = pelmora::PowerMetrics::decodeChunk(input.data(), input.size());
  if (text.size() > 3 * size || text.find('\0') != std::string::npos) std::abort();
  // Decoding valid UTF-8 again changes nothing.
  if (pelmora::PowerMetrics::decodeChunk(text.data(), text.size()) != text) std::abort();
  for (double mhz : pelmora::PowerMetrics::parseFrequencies(input))
    if (!std::isfinite(mhz)) std::abort();
  for (const auto& [cpu, mhz] : pelmora::parseCpuinfoMhz(input))
    if (cpu < 0 || !std::isfinite(mhz) || mhz <= 0) std::abort();
  return 0;
}
