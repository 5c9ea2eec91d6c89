#include "sampling/nvml_gpus.h"

#include <dlfcn.h>

#include <cstring>
#include <string>

#include "sampling/gpu_collector.h"
#include "sampling/temperature_collector.h"
#include "support/logger.h"

namespace pelmora {
namespace {

constexpr unsigned kNameLength = 96;

template <typename Fn>
bool bind(void* library, const char* symbol, Fn& out) {
  out = reinterpret_cast<Fn>(dlsym(library, symbol));
  return out != nullptr;
}

}  // namespace

NvmlGpus::NvmlGpus(const nvml::Api& api) : m_api(api) {}

NvmlGpus::~NvmlGpus() {
  if (m_ready && m_api.shutdown) m_api.shutdown();
  if (m_library) dlclose(m_library);
}

bool NvmlGpus::loadLocked() {
  m_library = dlopen("libnvidia-ml.so.1", RTLD_NOW | RTLD_LOCAL);
  if (!m_library) return false;
  nvml::Api& api = m_api;
  const bool bound = bind(m_library, "nvmlInit_v2", api.init) && bind(m_library, "nvmlShutdown", api.shutdown) &&
                     bind(m_library, "nvmlDeviceGetCount_v2", api.count) &&
                     bind(m_library, "nvmlDeviceGetHandleByIndex_v2", api.handle) &&
                     bind(m_library, "nvmlDeviceGetName", api.name) &&
                     bind(m_library, "nvmlDeviceGetUtilizationRates", api.utilization) &&
                     bind(m_library, "nvmlDeviceGetMemoryInfo", api.memory);
  // Temperatures are a bonus: a driver without the call still reports its cards.
  (void)bind(m_library, "nvmlDeviceGetTemperature", api.temperature);
  if (bound) return true;
  Log("NVIDIA management library lacks an entry point; NVIDIA cards are not sampled.");
  dlclose(m_library);
  m_library = nullptr;
  return false;
}

bool NvmlGpus::initLocked() {
  if (m_tried) return m_ready;
  m_tried = true;
  if (!m_api.init && !loadLocked()) return false;
  if (!m_api.count || !m_api.handle || !m_api.utilization || !m_api.memory) return false;
  if (m_api.init() != nvml::kSuccess) {
    Log("NVIDIA management library did not initialise; NVIDIA cards are not sampled.");
    return false;
  }
  m_ready = true;
  return true;
}

std::vector<graphicsCard> NvmlGpus::read(std::vector<temperatureStats>* temperatures) {
  MutexLock lock(m_mutex);
  std::vector<graphicsCard> cards;
  if (!initLocked()) return cards;
  unsigned int count = 0;
  if (m_api.count(&count) != nvml::kSuccess) return cards;
  for (unsigned int i = 0; i < count; ++i) {
    nvml::Device device = nullptr;
    char name[kNameLength] = {};
    nvml::Utilization util{};
    nvml::Memory memory{};
    if (m_api.handle(i, &device) != nvml::kSuccess || m_api.utilization(device, &util) != nvml::kSuccess ||
        m_api.memory(device, &memory) != nvml::kSuccess)
      continue;
    if (!m_api.name || m_api.name(device, name, kNameLength) != nvml::kSuccess) name[0] = '\0';
    std::string label(name, strnlen(name, kNameLength));
    if (label.empty()) label = "NVIDIA GPU " + std::to_string(i);
    cards.push_back(GpuCollector::makeCard(label, util.gpu, static_cast<int64_t>(memory.total),
                                           static_cast<int64_t>(memory.used)));
    unsigned int degrees = 0;
    if (temperatures && m_api.temperature && m_api.temperature(device, nvml::kTemperatureGpu, &degrees) == nvml::kSuccess)
      temperatures->push_back({label, TemperatureCollector::kGpu, int64_t{degrees} * 1000, 0, 0});
  }
  return cards;
}

}  // namespace pelmora
