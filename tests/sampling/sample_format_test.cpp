#include "sampling/sample_format.h"

#include <gtest/gtest.h>

#include "sampling/gpu_collector.h"

using namespace pelmora;

namespace {

TEST(SampleFormat, BusyShareComesFromTheDifferences) {
  const struct {
    const char* label;
    cpu_sample_t previous, current;  // system, user, idle, frequency
    std::optional<double> expected;
  } cases[] = {
      {"quarter busy", {100, 100, 100, 0}, {110, 115, 175, 0}, 25.0},
      {"all idle", {5, 5, 5, 0}, {5, 5, 105, 0}, 0.0},
      {"all busy", {0, 0, 9, 0}, {30, 70, 9, 0}, 100.0},
      {"nothing advanced", {7, 7, 7, 0}, {7, 7, 7, 0}, std::nullopt},
      // Went offline in between: its counters read zero now.
      {"went offline", {7, 7, 7, 0}, {0, 0, 0, 0}, std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SampleFormat::cpuBusyPercent({c.previous}, {c.current}), std::vector{c.expected}) << c.label;
  }
}

TEST(SampleFormat, AProcessorWithoutAPreviousSampleHasNoBusyShare) {
  const auto busy = SampleFormat::cpuBusyPercent({{0, 0, 0, 0}}, {{0, 10, 10, 0}, {0, 10, 10, 0}});
  ASSERT_EQ(busy.size(), 2u);
  EXPECT_EQ(busy[0], 50.0);
  EXPECT_EQ(busy[1], std::nullopt);
}

TEST(SampleFormat, RatesPerSecond) {
  const struct {
    const char* label;
    int64_t previous, current, interval_us;
    double expected;
  } cases[] = {
      {"one second", 1000, 3048, 1'000'000, 2048.0},
      {"half a second", 0, 500, 500'000, 1000.0},
      {"counter reset", 5000, 100, 1'000'000, 0.0},
      {"no time passed", 0, 100, 0, 0.0},
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(SampleFormat::ratePerSecond(c.previous, c.current, c.interval_us), c.expected) << c.label;
  }
}

TEST(SampleFormat, BytesUseBinaryUnits) {
  EXPECT_EQ(SampleFormat::bytes(0), "0 B");
  EXPECT_EQ(SampleFormat::bytes(1023), "1023 B");
  EXPECT_EQ(SampleFormat::bytes(1536), "1.5 KiB");
  EXPECT_EQ(SampleFormat::bytes(3.0 * 1024 * 1024 * 1024), "3.0 GiB");
  EXPECT_EQ(SampleFormat::bytes(5.0 * 1024 * 1024 * 1024 * 1024 * 1024), "5120.0 TiB");
}

SampleSet sampleAt(int64_t step) {
  SampleSet s;
  s.cpu_stats = {{static_cast<uint64_t>(step) * 10, static_cast<uint64_t>(step) * 10, static_cast<uint64_t>(step) * 20, 0}};
  s.dsk_stats = {{0, "sda", "ATA X", {step * 1024, 0, step, 0}}};
  s.net_stats = {{"eth0", {step * 2048, step * 4096}}};
  s.mem_stats = {256, 0, 0, 0};
  s.load_avg = {1.5, 0.25, 0.125};
  s.power_stats = {12.34, 0, 0, true};
  s.fan_stats = {{true, 2400, 5000, 800}};
  return s;
}

TEST(SampleFormat, LineShowsRatesOnlyOnceThereIsAPreviousSample) {
  const int64_t page = 4096, total = 4 * 1024 * 1024;
  const auto first = sampleAt(1), second = sampleAt(2);
  EXPECT_EQ(SampleFormat::line(nullptr, first, 0, page, total),
            "cpu -- | mem 3.0 MiB / 4.0 MiB | sda r -- w -- | eth0 in -- out -- | load 1.50 0.25 0.12 | power 12.3 W"
            " | fans 2400 rpm (forced)");
  EXPECT_EQ(SampleFormat::line(&first, second, 1'000'000, page, total),
            "cpu 50% | mem 3.0 MiB / 4.0 MiB | sda r 1.0 KiB/s w 0 B/s | eth0 in 2.0 KiB/s out 4.0 KiB/s"
            " | load 1.50 0.25 0.12 | power 12.3 W | fans 2400 rpm (forced)");
}

// A machine without a readable power source draws no "0.0 W".
TEST(SampleFormat, NoPowerSensorIsSaidNotShownAsZero) {
  auto sample = sampleAt(1);
  sample.power_stats = {};
  const auto text = SampleFormat::line(nullptr, sample, 0, 4096, 4 << 20);
  EXPECT_NE(text.find("| load 1.50 0.25 0.12 | no power sensor | fans"), std::string::npos) << text;
  EXPECT_EQ(text.find(" W"), std::string::npos) << text;
  const auto json = SampleFormat::toJson(sample);
  EXPECT_TRUE(json["power_stats"]["total"].is_null());
  EXPECT_EQ(json["power_stats"]["sensor"], false);
  EXPECT_EQ(SampleFormat::toJson(sampleAt(1))["power_stats"]["total"], 12.34);
}

TEST(SampleFormat, ADeviceThatAppearedHasNoRateYet) {
  const auto first = sampleAt(1);
  auto second = sampleAt(2);
  second.net_stats.push_back({"wlan0", {100, 100}});
  second.gfx_cards.push_back(GpuCollector::makeCard("AMD GPU 1002:1636", 7, 10, 5));
  second.fan_stats.clear();
  const auto text = SampleFormat::line(&first, second, 1'000'000, 4096, 4 << 20);
  EXPECT_NE(text.find("| wlan0 in -- out --"), std::string::npos) << text;
  EXPECT_NE(text.find("| AMD GPU 1002:1636 7%"), std::string::npos) << text;
  EXPECT_NE(text.find("| fans none"), std::string::npos) << text;
}

TEST(SampleFormat, JsonHoldsTheWholeSampleInItsOrder) {
  auto sample = sampleAt(3);
  sample.gfx_cards.push_back(GpuCollector::makeCard("card", 7, 100, 150));
  sample.proc_stats = {4, 5, 6, 1};
  const auto json = SampleFormat::toJson(sample);
  std::vector<std::string> keys;
  for (const auto& item : json.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"cpu_stats", "dsk_stats", "gfx_cards", "mem_stats", "io_stats", "proc_stats",
                                            "net_stats", "load_avg", "power_stats", "fan_stats", "temp_stats",
                                            "battery_stats", "device_batteries"}));
  EXPECT_EQ(json["cpu_stats"][0]["totalIdleTime"], 60);
  EXPECT_EQ(json["dsk_stats"][0]["stats"]["bytes_read"], 3072);
  EXPECT_EQ(json["dsk_stats"][0]["name"], "ATA X");
  EXPECT_EQ(json["gfx_cards"][0]["stats"]["freeVRAM"], 0);
  EXPECT_EQ(json["net_stats"][0]["stats"]["bytes_out"], 12288);
  EXPECT_EQ(json["proc_stats"]["other"], 6);
  EXPECT_EQ(json["load_avg"]["fifteenMin"], 0.125);
  EXPECT_EQ(json["fan_stats"][0]["forced"], true);
  EXPECT_EQ(json["fan_stats"][0]["min"], 800);
}

TEST(SampleFormat, TemperaturesAndBatteriesWhereTheMachineHasThem) {
  auto sample = sampleAt(1);
  const std::string without = SampleFormat::line(nullptr, sample, 0, 4096, 4 << 20);
  EXPECT_EQ(without.find("temp"), std::string::npos) << without;
  sample.temp_stats = {{"acpitz", "other", 45000, 0, 0},
                       {"coretemp Package id 0", "cpu", 52000, 100000, 80000},
                       {"nvme Composite", "disk", 38850, 84850, 81850}};
  sample.battery_stats = {{"BAT0", "5B10W13930", "discharging", 63.0, 9.8, 12266, 0, 92.98, 187}};
  sample.device_batteries = {{"hidpp_battery_0", "MX Master 3", "discharging", 80.0, 0.0, 0, 0, 0.0, 0}};
  const std::string text = SampleFormat::line(nullptr, sample, 0, 4096, 4 << 20);
  EXPECT_NE(text.find(" | temp coretemp Package id 0 52.0 \u00b0C, nvme Composite 38.9 \u00b0C | "
                      "BAT0 63% discharging 9.8 W 3:24 to empty | MX Master 3 80%"),
            std::string::npos)
      << text;
  const auto json = SampleFormat::toJson(sample);
  EXPECT_EQ(json["temp_stats"][1]["crit_mC"], 100000);
  EXPECT_EQ(json["battery_stats"][0]["time_to_empty_s"], 12266);
  EXPECT_EQ(json["device_batteries"][0]["model"], "MX Master 3");
}

TEST(SampleFormat, DurationsInHoursAndRoundedMinutes) {
  EXPECT_EQ(SampleFormat::duration(0), "0:00");
  EXPECT_EQ(SampleFormat::duration(12266), "3:24");
  EXPECT_EQ(SampleFormat::duration(3599), "1:00");
  EXPECT_EQ(SampleFormat::duration(36000), "10:00");
}

}  // namespace
