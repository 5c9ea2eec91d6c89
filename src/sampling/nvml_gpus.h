#pragma once
// NVIDIA cards through NVML, loaded at run time with dlopen("libnvidia-ml.so.1") so that neither
// the build nor a machine without the driver needs it. Only the versioned entry points are used,
// declared here by hand (no SDK header at build time). The library is loaded and initialised once,
// at the first read, and kept for the life of the process.
#include <vector>

#include "sampling/sample_records.h"
#include "support/mutex.h"

namespace pelmora {

class NvmlGpus {
 public:
  NvmlGpus() = default;
  ~NvmlGpus();
  NvmlGpus(const NvmlGpus&) = delete;
  NvmlGpus& operator=(const NvmlGpus&) = delete;

  // Empty when the driver is absent or refuses; a card whose utilisation or memory cannot be read
  // is skipped.
  std::vector<graphicsCard> read();

 private:
  struct Api;
  bool loadLocked();

  Mutex m_mutex;
  bool m_tried = false;
  void* m_library = nullptr;
  Api* m_api = nullptr;
};

}  // namespace pelmora
