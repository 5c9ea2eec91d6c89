#pragma once
// NVIDIA cards through NVML, loaded at run time with dlopen("libnvidia-ml.so.1") so that neither
// the build nor a machine without the driver needs it. Only the versioned entry points are used,
// declared here by hand (no SDK header at build time). The library is loaded and initialised once,
// at the first read, and kept for the life of the process.
#include <vector>

#include "sampling/sample_records.h"
#include "support/mutex.h"

namespace pelmora {

// The few NVML types we touch, laid out as the driver's ABI has them.
namespace nvml {
using Return = int;  // nvmlReturn_t; 0 is success
using Device = struct Device_st*;
struct Utilization {
  unsigned int gpu;     // percent
  unsigned int memory;  // percent
};
struct Memory {
  unsigned long long total;  // bytes
  unsigned long long free;
  unsigned long long used;
};
constexpr Return kSuccess = 0;

// The entry points, bound by dlsym (or supplied by a test).
struct Api {
  Return (*init)() = nullptr;              // nvmlInit_v2
  Return (*shutdown)() = nullptr;          // nvmlShutdown
  Return (*count)(unsigned int*) = nullptr;  // nvmlDeviceGetCount_v2
  Return (*handle)(unsigned int, Device*) = nullptr;  // nvmlDeviceGetHandleByIndex_v2
  Return (*name)(Device, char*, unsigned int) = nullptr;  // nvmlDeviceGetName
  Return (*utilization)(Device, Utilization*) = nullptr;  // nvmlDeviceGetUtilizationRates
  Return (*memory)(Device, Memory*) = nullptr;  // nvmlDeviceGetMemoryInfo
  // nvmlDeviceGetTemperature; optional. The sensor is NVML_TEMPERATURE_GPU (0), in whole °C.
  Return (*temperature)(Device, int, unsigned int*) = nullptr;
};
constexpr int kTemperatureGpu = 0;
}  // namespace nvml

class NvmlGpus {
 public:
  // Loads the driver's library at the first read.
  NvmlGpus() = default;
  // Uses the given entry points instead (tests); init is called at the first read as usual.
  explicit NvmlGpus(const nvml::Api& api);
  ~NvmlGpus();
  NvmlGpus(const NvmlGpus&) = delete;
  NvmlGpus& operator=(const NvmlGpus&) = delete;

  // Empty when the driver is absent or refuses; a card whose utilisation or memory cannot be read
  // is skipped. With temperatures, each reported card's die temperature is added there under the
  // card's name, where the driver tells it.
  std::vector<graphicsCard> read(std::vector<temperatureStats>* temperatures = nullptr);

 private:
  bool loadLocked();
  bool initLocked();

  Mutex m_mutex;
  bool m_tried = false;
  bool m_ready = false;
  void* m_library = nullptr;
  nvml::Api m_api;
};

}  // namespace pelmora
