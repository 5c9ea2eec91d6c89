#include "support/default_settings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "common/temp_dir.h"
#include "support/logger.h"

namespace fs = std::filesystem;
using pelmora::DefaultSettings;

namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void write(const std::string& text) { std::ofstream(file) << text; }
  pelmora::test::TempDir temp{"pelmora-settings"};
  const fs::path& dir = temp.path();
  const fs::path file = dir / "defaults.json";
};

TEST_F(SettingsTest, CorruptHugeOrDeepFilesAreSetAsideLoggedAndStartFromDefaults) {
  const std::string million_deep = "{\"a\": " + std::string(1000000, '[') + std::string(1000000, ']') + "}";
  const std::string over_bound = "{\"a\": \"" + std::string(DefaultSettings::kMaxFileBytes, 'x') + "\"}";
  const struct {
    const char* name;
    std::string text;
  } cases[] = {
      {"truncated", "{\"a\": 1"},
      {"array", "[1, 2, 3]"},
      {"garbage", "\x01\x02garbage"},
      {"number", "42"},
      {"valid but a million deep", million_deep},
      {"valid but larger than the bound", over_bound},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(dir / "defaults.json.corrupt");
    write(c.text);
    pelmora::LogCapture log;
    DefaultSettings s(file);
    EXPECT_EQ(s.loadInt("a", 9), 9);
    EXPECT_EQ(fs::file_size(dir / "defaults.json.corrupt"), c.text.size());
    EXPECT_FALSE(fs::exists(file));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("moved aside"), std::string::npos);
    s.saveInt("a", 1);  // the program goes on and writes a fresh file
    EXPECT_EQ(DefaultSettings(file).loadInt("a", 9), 1);
  }
}

TEST_F(SettingsTest, ABadFileThatCannotBeSetAsideIsSaidSoAndKept) {
  // A folder in the way makes the rename fail.
  fs::create_directories(dir / "defaults.json.corrupt" / "occupied");
  write("{\"a\": 1");
  pelmora::LogCapture log;
  DefaultSettings s(file);
  EXPECT_EQ(s.loadInt("a", 9), 9);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].find("; moved aside"), std::string::npos) << log.lines()[0];
  EXPECT_NE(log.lines()[0].find("could not be moved aside"), std::string::npos) << log.lines()[0];
  s.saveInt("a", 2);
  std::ifstream in(file);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "{\"a\": 1");  // the user's file is intact
}

ino_t inodeOf(const fs::path& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST_F(SettingsTest, OnlyChangesAreWrittenAndABatchWritesOnce) {
  DefaultSettings s(file);
  s.saveInt("a", 1);
  s.saveDict("d", {{"x", 1}});
  ino_t written = inodeOf(file);  // each write renames a fresh file into place
  s.saveInt("a", 1);
  s.saveDict("d", {{"x", 1}});
  EXPECT_EQ(inodeOf(file), written) << "an unchanged save rewrote the file";
  {
    DefaultSettings::Batch batch(s);
    for (int i = 0; i < 50; ++i) {
      s.saveInt("k" + std::to_string(i), i);
      ASSERT_EQ(inodeOf(file), written) << "written inside the batch at save " << i;
    }
    EXPECT_EQ(s.loadInt("k49", -1), 49);  // the values change at once
  }
  EXPECT_NE(inodeOf(file), written);
  EXPECT_EQ(DefaultSettings(file).loadInt("k49", -1), 49);
}

TEST_F(SettingsTest, TheSameWriteFailureIsLoggedOnce) {
  DefaultSettings s(file);
  fs::create_directories(dir / "defaults.json.tmp" / "occupied");  // the temp file cannot be made
  pelmora::LogCapture log;
  for (int i = 0; i < 20; ++i) s.saveInt("a", i);
  EXPECT_EQ(log.lines().size(), 1u);
  fs::remove_all(dir / "defaults.json.tmp");
  s.saveInt("a", 100);
  EXPECT_EQ(DefaultSettings(file).loadInt("a", 0), 100);
  fs::create_directories(dir / "defaults.json.tmp" / "occupied");
  s.saveInt("a", 101);  // failing again after a success is news
  EXPECT_EQ(log.lines().size(), 2u);
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

}  // namespace
