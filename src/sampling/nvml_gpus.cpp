#include "sampling/nvml_gpus.h"

#include <dlfcn.h>

#include <cstring>
#include <string>

#include "sampling/gpu_collector.h"
#include "support/logger.h"

namespace pelmora {
namespace {

// The few NVML types we touch, laid out as the driver's ABI has them.
using nvmlReturn_t = int;
using nvmlDevice_t = struct nvmlDevice_st*;
struct nvmlUtilization_t {
  unsigned int gpu;     // percent
  unsigned int memory;  // percent
};
struct nvmlMemory_t {
  unsigned long long total;  // bytes
  unsigned long long free;
  unsigned long long used;
};
constexpr nvmlReturn_t kNvmlSuccess = 0;
constexpr unsigned kNameLength = 96;

}  // namespace

struct NvmlGpus::Api {
  nvmlReturn_t (*init)() = nullptr;
  nvmlReturn_t (*shutdown)() = nullptr;
  nvmlReturn_t (*count)(unsigned int*) = nullptr;
  nvmlReturn_t (*handle)(unsigned int, nvmlDevice_t*) = nullptr;
  nvmlReturn_t (*name)(nvmlDevice_t, char*, unsigned int) = nullptr;
  nvmlReturn_t (*utilization)(nvmlDevice_t, nvmlUtilization_t*) = nullptr;
  nvmlReturn_t (*memory)(nvmlDevice_t, nvmlMemory_t*) = nullptr;
};

namespace {

template <typename Fn>
bool bind(void* library, const char* symbol, Fn& out) {
  out = reinterpret_cast<Fn>(dlsym(library, symbol));
  return out != nullptr;
}

}  // namespace

NvmlGpus::~NvmlGpus() {
  if (m_api && m_api->shutdown) m_api->shutdown();
  delete m_api;
  if (m_library) dlclose(m_library);
}

bool NvmlGpus::loadLocked() {
  if (m_tried) return m_api != nullptr;
  m_tried = true;
  m_library = dlopen("libnvidia-ml.so.1", RTLD_NOW | RTLD_LOCAL);
  if (!m_library) return false;
  auto api = new Api;
  const bool bound = bind(m_library, "nvmlInit_v2", api->init) && bind(m_library, "nvmlShutdown", api->shutdown) &&
                     bind(m_library, "nvmlDeviceGetCount_v2", api->count) &&
                     bind(m_library, "nvmlDeviceGetHandleByIndex_v2", api->handle) &&
                     bind(m_library, "nvmlDeviceGetName", api->name) &&
                     bind(m_library, "nvmlDeviceGetUtilizationRates", api->utilization) &&
                     bind(m_library, "nvmlDeviceGetMemoryInfo", api->memory);
  if (!bound || api->init() != kNvmlSuccess) {
    Log("NVIDIA management library present but unusable; NVIDIA cards are not sampled.");
    delete api;
    dlclose(m_library);
    m_library = nullptr;
    return false;
  }
  m_api = api;
  return true;
}

std::vector<graphicsCard> NvmlGpus::read() {
  MutexLock lock(m_mutex);
  std::vector<graphicsCard> cards;
  if (!loadLocked()) return cards;
  unsigned int count = 0;
  if (m_api->count(&count) != kNvmlSuccess) return cards;
  for (unsigned int i = 0; i < count; ++i) {
    nvmlDevice_t device = nullptr;
    char name[kNameLength] = {};
    nvmlUtilization_t util{};
    nvmlMemory_t memory{};
    if (m_api->handle(i, &device) != kNvmlSuccess || m_api->utilization(device, &util) != kNvmlSuccess ||
        m_api->memory(device, &memory) != kNvmlSuccess)
      continue;
    if (m_api->name(device, name, kNameLength) != kNvmlSuccess) name[0] = '\0';
    std::string label(name, strnlen(name, kNameLength));
    cards.push_back(GpuCollector::makeCard(label.empty() ? "NVIDIA GPU " + std::to_string(i) : label,
                                           util.gpu, static_cast<int64_t>(memory.total),
                                           static_cast<int64_t>(memory.used)));
  }
  return cards;
}

}  // namespace pelmora
