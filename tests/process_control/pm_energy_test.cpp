// The energy-impact weights: which table is used, and the formula.
#include "process_control/pm_energy.h"
#include "common/temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>

namespace pelmora {
namespace {

TEST(PMEnergy, BoardTableElseTheProgramsOwnElseNothing) {
  const test::TempDir dir;
  const SysRoot root((dir / "proc").string(), (dir / "sys").string());
  const auto boards = dir / "boards";
  const auto fallback = dir.write("pmenergy.json", R"({"energy_constants": {"kcpu_time": 2.0}})");
  dir.write("boards/X570 AORUS.json", R"({"energy_constants": {"kcpu_time": 3.0}})");
  struct Case {
    const char* what;
    const char* board_name;  // /sys/class/dmi/id/board_name, or null
    const char* dt_model;    // device-tree model (written with its terminating zero), or null
    std::string expected_board;
    double kcpu;
  };
  const Case cases[] = {
      {"board with a table", "X570 AORUS\n", nullptr, "X570 AORUS", 3.0},
      {"board without one", "B450\n", nullptr, "B450", 2.0},
      {"device tree", nullptr, "Pine64 / Rock", "Pine64 _ Rock", 2.0},
      {"nothing known", nullptr, nullptr, "default", 2.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::filesystem::remove_all(dir / "sys");
    if (c.board_name) dir.write("sys/class/dmi/id/board_name", c.board_name);
    if (c.dt_model) dir.write("sys/firmware/devicetree/base/model", std::string(c.dt_model) + '\0');
    EXPECT_EQ(PMEnergy::boardName(root), c.expected_board);
    EXPECT_EQ(PMEnergy(root, boards, fallback).coefficient("kcpu_time"), c.kcpu);
  }
  // No file at all, or a file without "energy_constants": every weight is 0.
  EXPECT_TRUE(PMEnergy(root, boards, dir / "missing.json").constants().empty());
  dir.write("pmenergy.json", R"({"other": {"kcpu_time": 2.0}})");
  EXPECT_TRUE(PMEnergy(root, boards, fallback).constants().empty());
}

TEST(PMEnergy, TheShippedTableHasTheFourWeights) {
  std::ifstream in(std::string(PELMORA_SOURCE_RESOURCES) + "/pmenergy.json");
  const auto constants = PMEnergy::constantsOf(nlohmann::json::parse(in));
  for (const char* key : {"kcpu_time", "kcpu_wakeups", "kdiskio_bytesread", "kdiskio_byteswritten"}) {
    ASSERT_TRUE(constants.contains(key)) << key;
    EXPECT_GT(constants[key].get<double>(), 0.0) << key;
  }
}

TEST(PMEnergy, ImpactIsTheWeightedSumTimesAHundred) {
  const test::TempDir dir;
  const auto file = dir.write("e.json", R"({"energy_constants": {"kcpu_time": 1.5, "kcpu_wakeups": 0.01,
                  "kdiskio_bytesread": 0.001, "kdiskio_byteswritten": "heavy"}})");
  const PMEnergy energy(SysRoot((dir / "proc").string(), (dir / "sys").string()), dir / "none", file);
  EXPECT_EQ(energy.coefficient("kdiskio_byteswritten"), 0.0);  // not a number
  procinfo p;
  p.pid = 42;
  p.pctCPU = 0.5;
  p.idleWakeupsPerSec = 100;
  p.readPerSec.update(2000, 0, 1);
  p.writePerSec.update(1e9, 0, 1);
  energy.energyImpact(p);
  EXPECT_DOUBLE_EQ(p.energyImpact, (1.5 * 0.5 + 0.01 * 100 + 0.001 * 2000) * 100);
  p.pid = 0;  // the kernel's idle task
  energy.energyImpact(p);
  EXPECT_EQ(p.energyImpact, 0.0);
}

}  // namespace
}  // namespace pelmora
