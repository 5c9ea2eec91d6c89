#include "support/default_settings.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "support/logger.h"

namespace fs = std::filesystem;
using pelmora::DefaultSettings;

namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("pelmora-settings-" + std::to_string(::getpid()) + "-" +
                                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir);
    fs::create_directories(dir);
    file = dir / "defaults.json";
  }
  void TearDown() override { fs::remove_all(dir); }
  void write(const std::string& text) { std::ofstream(file) << text; }
  fs::path dir, file;
};

TEST_F(SettingsTest, MissingFileReadsDefaultsAndSavesSurviveAReload) {
  DefaultSettings s(file);
  EXPECT_TRUE(s.loadBool("b", true));
  EXPECT_EQ(s.loadInt("UPDATE_PROCESSES", 5000), 5000);
  s.saveInt("UPDATE_PROCESSES", 2000);
  s.saveBool("b", false);
  s.saveDouble("PID_proportional", 0.75);
  s.saveString("graph_label_font", "DejaVu Sans,10");
  s.saveDict("limited", {{"AC Power", {{"yes", 0.5}}}});

  DefaultSettings again(file);
  EXPECT_EQ(again.loadInt("UPDATE_PROCESSES", 5000), 2000);
  EXPECT_FALSE(again.loadBool("b", true));
  EXPECT_DOUBLE_EQ(again.loadDouble("PID_proportional", 0.5), 0.75);
  EXPECT_EQ(again.loadString("graph_label_font", ""), "DejaVu Sans,10");
  EXPECT_DOUBLE_EQ(again.loadDict("limited")["AC Power"]["yes"].get<double>(), 0.5);
  EXPECT_FALSE(fs::exists(dir / "defaults.json.tmp"));
}

TEST_F(SettingsTest, WrongTypesReadAsTheDefault) {
  write(R"({"i": "text", "s": 3, "d": "x", "dict": [1,2], "b": "yes", "f": 2.0})");
  DefaultSettings s(file);
  EXPECT_EQ(s.loadInt("i", 7), 7);
  EXPECT_EQ(s.loadString("s", "def"), "def");
  EXPECT_DOUBLE_EQ(s.loadDouble("d", 1.5), 1.5);
  EXPECT_TRUE(s.loadDict("dict").empty());
  EXPECT_TRUE(s.loadBool("b", true));
  EXPECT_EQ(s.loadInt("f", 0), 2);           // a whole double is still a usable integer
  EXPECT_DOUBLE_EQ(s.loadDouble("i", 0.25), 0.25);
}

TEST_F(SettingsTest, CorruptFileIsSetAsideLoggedAndStartsFromDefaults) {
  const std::vector<std::string> corrupt = {"{\"a\": 1", "[1, 2, 3]", "\x01\x02garbage", "42"};
  for (const auto& text : corrupt) {
    fs::remove(dir / "defaults.json.corrupt");
    write(text);
    pelmora::LogCapture log;
    DefaultSettings s(file);
    EXPECT_EQ(s.loadInt("a", 9), 9) << text;
    EXPECT_TRUE(fs::exists(dir / "defaults.json.corrupt")) << text;
    EXPECT_FALSE(fs::exists(file)) << text;
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("moved aside"), std::string::npos);
    s.saveInt("a", 1);  // the program goes on and writes a fresh file
    EXPECT_EQ(DefaultSettings(file).loadInt("a", 9), 1);
  }
}

TEST_F(SettingsTest, ConcurrentSavesFromSeveralThreadsAllLand) {
  DefaultSettings s(file);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&s, t] {
      for (int i = 0; i < 25; ++i) s.saveInt("k" + std::to_string(t) + "_" + std::to_string(i), i);
    });
  for (auto& th : threads) th.join();
  DefaultSettings again(file);
  for (int t = 0; t < 4; ++t) EXPECT_EQ(again.loadInt("k" + std::to_string(t) + "_24", -1), 24);
}

TEST_F(SettingsTest, RemoveDeletesOnlyThatKey) {
  DefaultSettings s(file);
  s.saveInt("a", 1);
  s.saveInt("b", 2);
  s.remove("a");
  DefaultSettings again(file);
  EXPECT_FALSE(again.contains("a"));
  EXPECT_EQ(again.loadInt("b", 0), 2);
}

}  // namespace
