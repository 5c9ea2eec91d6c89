#include "graphs/graph_palette.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "common/temp_dir.h"
#include "graphs/graph_switches.h"
#include "support/default_settings.h"

namespace fs = std::filesystem;
using namespace pelmora;

namespace {

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (GraphClass g : kAllGraphClasses) GraphPalette::colors(g) = GraphPalette::defaults(g);
  }
  test::TempDir dir{"pelmora-graphs"};
  const fs::path file = dir / "defaults.json";
};

TEST(GraphColors, TextRoundTripAndRejects) {
  EXPECT_EQ(colorToText({1, 2, 255, 128}), "#0102FF80");
  EXPECT_EQ(colorFromText("#0102FF80"), (GraphColor{1, 2, 255, 128}));
  EXPECT_EQ(colorFromText("#0102ff"), (GraphColor{1, 2, 255, 255}));
  for (const char* bad : {"", "#", "0102FF", "#0102F", "#0102FG", "#01 2FF", "#0102FF8", "red"})
    EXPECT_FALSE(colorFromText(bad)) << bad;
  EXPECT_EQ(adjustColourAndAlpha({10, 20, 30, 255}, 0.5).a, 128);
  EXPECT_EQ(adjustColourAndAlpha({10, 20, 30, 200}, 0.75), (GraphColor{10, 20, 30, 50}));
}

// Each class under a key of its own (two sharing one would overwrite each other's colours), with a
// colour for each of its series.
TEST(GraphColors, EveryClassHasItsOwnKeyAndAColourPerSeries) {
  std::map<std::string, size_t> series;
  for (GraphClass graph : kAllGraphClasses) series[GraphPalette::key(graph).key] = GraphPalette::defaults(graph).size();
  EXPECT_EQ(series, (std::map<std::string, size_t>{{"cpu_colors", 2},
                                                   {"mem_colors", 3},
                                                   {"gfx_colors", 2},
                                                   {"io_colors", 2},
                                                   {"net_colors", 4},
                                                   {"loadavg_colors", 3},
                                                   {"proc_colors", 4},
                                                   {"power_colors", 3},
                                                   {"fan_colors", 3},
                                                   {"temp_colors", 3},
                                                   {"battery_colors", 2}}));
}

TEST_F(StoreTest, AChangedColourIsSavedUnderTheClassKeyAndOnlyAWellFormedArrayIsLoadedBack) {
  DefaultSettings store(file);
  GraphPalette::setColor(GraphClass::net, 2, {1, 2, 3, 255}, store);
  GraphPalette::setColor(GraphClass::net, -1, {9, 9, 9, 255}, store);  // a stranger's well changes nothing
  GraphPalette::setColor(GraphClass::net, 4, {9, 9, 9, 255}, store);
  EXPECT_EQ(store.loadValue("net_colors"), (nlohmann::json{"#007AFFFF", "#34C759FF", "#010203FF", "#AF52DEFF"}));
  EXPECT_FALSE(store.contains("cpu_colors"));

  GraphPalette::colors(GraphClass::net) = GraphPalette::defaults(GraphClass::net);
  DefaultSettings again(file);
  GraphPalette::load(GraphClass::net, again);
  EXPECT_EQ(GraphPalette::colors(GraphClass::net)[2], (GraphColor{1, 2, 3, 255}));
  const nlohmann::json bad[] = {"#FF0000", nlohmann::json::array({"#FF0000"}), nlohmann::json::array({"#FF0000", 3}),
                                nlohmann::json::array({"#FF0000", "x"})};
  for (const auto& value : bad) {
    again.saveDict("cpu_colors", value);
    GraphPalette::load(GraphClass::cpu, again);
    EXPECT_EQ(GraphPalette::colors(GraphClass::cpu), GraphPalette::defaults(GraphClass::cpu)) << value;
  }
}

TEST_F(StoreTest, GraphSettingsDefaultsRangesAndRoundTrip) {
  DefaultSettings store(file);
  const GraphSwitches defaults = GraphSwitches::load(store);
  EXPECT_EQ(defaults, GraphSwitches{});
  EXPECT_EQ(defaults.updateInterval_us(), 5'000'000);

  struct Case {
    const char* key;
    int64_t stored, loaded;
    int64_t GraphSwitches::*member;
  } cases[] = {
      {"graph_max_cpu_rows", 0, 1, &GraphSwitches::max_cpu_rows},
      {"graph_max_cpu_rows", 500, 128, &GraphSwitches::max_cpu_rows},
      {"graph_freq_sample_interval", 9999, 5000, &GraphSwitches::freq_sample_interval_ms},
      {"graph_time_grid", -3, 1, &GraphSwitches::time_grid},
      {"graph_scale_grid", 101, 100, &GraphSwitches::scale_grid},
      {"graph_scale_grid", 0, 0, &GraphSwitches::scale_grid},
      {"graph_update_interval", 0, 0, &GraphSwitches::update_interval},
      {"graph_update_interval", 7, 2, &GraphSwitches::update_interval},
      {"graph_net_avg", 2, 2, &GraphSwitches::net_avg},
      {"graph_net_avg", 9, 2, &GraphSwitches::net_avg},
      {"graph_net_avg", -1, 2, &GraphSwitches::net_avg},
  };
  for (const auto& c : cases) {
    store.saveInt(c.key, c.stored);
    EXPECT_EQ(GraphSwitches::load(store).*c.member, c.loaded) << c.key << " " << c.stored;
  }

  GraphSwitches changed;
  changed.fill_graph = false;
  changed.radio_default = false;
  changed.radio_dark = true;
  changed.scale_grid = 10;
  changed.save(store);
  DefaultSettings again(file);
  EXPECT_EQ(GraphSwitches::load(again), changed);
  EXPECT_FALSE(again.loadBool("graph_fill_graph", true));
}

}  // namespace
