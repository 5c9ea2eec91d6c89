#include "helper/cpu_selection.h"

#include <gtest/gtest.h>

namespace pelmora {
namespace {

// 4 cores, 8 threads, siblings i and i+4, cpu0 without an online file.
std::vector<CpuTopologyEntry> spreadSiblings() {
  std::vector<CpuTopologyEntry> cpus;
  for (int i = 0; i < 8; ++i) cpus.push_back({i, 0, 0, i % 4, i != 0, true});
  return cpus;
}

// 2 packages x 2 cores x 2 threads, siblings adjacent; every CPU hot-pluggable.
std::vector<CpuTopologyEntry> adjacentSiblings() {
  std::vector<CpuTopologyEntry> cpus;
  for (int i = 0; i < 8; ++i) cpus.push_back({i, i / 4, 0, (i / 2) % 2, true, true});
  return cpus;
}

// CPU 3 cannot be switched off, and 4 and 5 have unknown cores (offline, topology never seen).
std::vector<CpuTopologyEntry> mixed() {
  return {{0, 0, 0, 0, true, true}, {1, 0, 0, 0, true, true}, {2, 0, 0, 1, true, true},
          {3, 0, 0, 1, false, true}, {4, -1, -1, -1, true, false}, {5, -1, -1, -1, true, false}};
}

std::vector<CpuTopologyEntry> reversed(std::vector<CpuTopologyEntry> cpus) {
  std::reverse(cpus.begin(), cpus.end());
  return cpus;
}

TEST(CpuSelection, ChoosesWhichProcessorsStayOn) {
  const struct {
    const char* name;
    std::vector<CpuTopologyEntry> cpus;
    int count;
    bool hyper, prefer_physical;
    std::vector<int> expected;
  } cases[] = {
      {"all", spreadSiblings(), 8, true, false, {0, 1, 2, 3, 4, 5, 6, 7}},
      {"count above present", spreadSiblings(), 100, true, true, {0, 1, 2, 3, 4, 5, 6, 7}},
      {"lowest numbers first", adjacentSiblings(), 3, true, false, {0, 1, 2}},
      {"one thread per core first", adjacentSiblings(), 4, true, true, {0, 2, 4, 6}},
      {"then siblings in order", adjacentSiblings(), 6, true, true, {0, 1, 2, 3, 4, 6}},
      {"no hyper-threads caps at cores", adjacentSiblings(), 8, false, false, {0, 2, 4, 6}},
      {"no hyper-threads, fewer", adjacentSiblings(), 2, false, true, {0, 2}},
      {"no hyper-threads, spread siblings", spreadSiblings(), 8, false, false, {0, 1, 2, 3}},
      {"zero keeps one", adjacentSiblings(), 0, true, false, {0}},
      {"negative keeps one", adjacentSiblings(), -3, false, true, {0}},
      {"fixed CPU counts towards the count", mixed(), 1, true, false, {3}},
      {"fixed CPU plus the lowest", mixed(), 2, true, false, {0, 3}},
      {"fixed sibling stays on without hyper", mixed(), 6, false, false, {0, 2, 3, 4, 5}},
      {"unknown cores are cores of their own", mixed(), 3, false, true, {0, 2, 3}},
      {"the order of the topology does not matter", reversed(adjacentSiblings()), 4, true, true, {0, 2, 4, 6}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(chooseOnlineCpus(c.cpus, c.count, c.hyper, c.prefer_physical), c.expected) << c.name;
  }
}

}  // namespace
}  // namespace pelmora
