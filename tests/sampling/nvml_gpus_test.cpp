// NVML's read loop over a fake driver: which cards are reported, how they are named and converted.
#include "sampling/nvml_gpus.h"

#include <gtest/gtest.h>

#include <cstring>

#include "sampling/gpu_collector.h"

using namespace pelmora;

namespace {

// A fake driver with three cards: 0 is complete, 1 cannot report its utilisation, 2 has no name.
struct FakeDriver {
  static inline nvml::Return init_result = nvml::kSuccess;
  static inline nvml::Return count_result = nvml::kSuccess;
  static inline int inits = 0;
  static inline int shutdowns = 0;

  static void reset() {
    init_result = count_result = nvml::kSuccess;
    inits = shutdowns = 0;
  }
  static nvml::Device device(unsigned i) { return reinterpret_cast<nvml::Device>(static_cast<uintptr_t>(i + 1)); }
  static unsigned index(nvml::Device d) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(d) - 1); }

  static nvml::Api api() {
    nvml::Api a;
    a.init = [] { return ++inits, init_result; };
    a.shutdown = [] { return ++shutdowns, nvml::kSuccess; };
    a.count = [](unsigned* n) { return *n = 3, count_result; };
    a.handle = [](unsigned i, nvml::Device* d) { return *d = device(i), nvml::kSuccess; };
    a.name = [](nvml::Device d, char* out, unsigned length) -> nvml::Return {
      if (index(d) == 2) return 3;  // not supported
      std::strncpy(out, "NVIDIA GeForce RTX 3060", length);
      return nvml::kSuccess;
    };
    a.utilization = [](nvml::Device d, nvml::Utilization* u) -> nvml::Return {
      if (index(d) == 1) return 3;
      *u = {41, 10};
      return nvml::kSuccess;
    };
    a.memory = [](nvml::Device, nvml::Memory* m) {
      *m = {12ull << 30, 8ull << 30, 4ull << 30};
      return nvml::kSuccess;
    };
    a.temperature = [](nvml::Device d, int sensor, unsigned* degrees) -> nvml::Return {
      if (index(d) == 2 || sensor != nvml::kTemperatureGpu) return 3;  // card 2 has no sensor
      *degrees = 67;
      return nvml::kSuccess;
    };
    return a;
  }
};

class Nvml : public ::testing::Test {
 protected:
  void SetUp() override { FakeDriver::reset(); }
};

TEST_F(Nvml, ReportsReadableCardsNamesTheNamelessByIndexAndTheirDieTemperatures) {
  {
    NvmlGpus gpus(FakeDriver::api());
    std::vector<temperatureStats> temps;
    const auto cards = gpus.read(&temps);
    const int64_t total = 12LL << 30, used = 4LL << 30;
    EXPECT_EQ(cards, (std::vector<graphicsCard>{GpuCollector::makeCard("NVIDIA GeForce RTX 3060", 41, total, used),
                                                GpuCollector::makeCard("NVIDIA GPU 2", 41, total, used)}));
    EXPECT_EQ(temps, (std::vector<temperatureStats>{{"NVIDIA GeForce RTX 3060", "gpu", 67000, 0, 0}}));
    EXPECT_EQ(gpus.read().size(), 2u);
    EXPECT_EQ(FakeDriver::inits, 1);
  }
  EXPECT_EQ(FakeDriver::shutdowns, 1);
}

// A driver that refuses is asked once and never shut down; one that cannot count gives no cards.
TEST_F(Nvml, AFailingDriverGivesNoCards) {
  const struct {
    nvml::Return init, count;
    int shutdowns;
  } cases[] = {{9 /* driver not loaded */, nvml::kSuccess, 0}, {nvml::kSuccess, 999, 1}};
  for (const auto& c : cases) {
    FakeDriver::reset();
    FakeDriver::init_result = c.init;
    FakeDriver::count_result = c.count;
    {
      NvmlGpus gpus(FakeDriver::api());
      EXPECT_TRUE(gpus.read().empty());
      EXPECT_TRUE(gpus.read().empty());
      EXPECT_EQ(FakeDriver::inits, 1);
    }
    EXPECT_EQ(FakeDriver::shutdowns, c.shutdowns);
  }
}

}  // namespace
