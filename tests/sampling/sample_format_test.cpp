#include "sampling/sample_format.h"

#include <gtest/gtest.h>

#include <functional>

#include "sampling/gpu_collector.h"

using namespace pelmora;

namespace {

TEST(SampleFormat, BusyShareComesFromTheDifferences) {
  const struct {
    const char* label;
    std::vector<cpu_sample_t> previous, current;  // system, user, idle, frequency
    std::vector<std::optional<double>> expected;
  } cases[] = {
      {"quarter busy", {{100, 100, 100, 0}}, {{110, 115, 175, 0}}, {25.0}},
      {"all idle", {{5, 5, 5, 0}}, {{5, 5, 105, 0}}, {0.0}},
      {"all busy", {{0, 0, 9, 0}}, {{30, 70, 9, 0}}, {100.0}},
      {"nothing advanced", {{7, 7, 7, 0}}, {{7, 7, 7, 0}}, {std::nullopt}},
      // Went offline in between: its counters read zero now.
      {"went offline", {{7, 7, 7, 0}}, {{0, 0, 0, 0}}, {std::nullopt}},
      {"a processor without a previous sample", {{0, 0, 0, 0}}, {{0, 10, 10, 0}, {0, 10, 10, 0}}, {50.0, std::nullopt}},
  };
  for (const auto& c : cases) EXPECT_EQ(SampleFormat::cpuBusyPercent(c.previous, c.current), c.expected) << c.label;
}

// One second's rates are in the line below.
TEST(SampleFormat, RatesPerSecond) {
  const struct {
    const char* label;
    int64_t previous, current, interval_us;
    double expected;
  } cases[] = {
      {"half a second", 0, 500, 500'000, 1000.0},
      {"counter reset", 5000, 100, 1'000'000, 0.0},
      {"no time passed", 0, 100, 0, 0.0},
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(SampleFormat::ratePerSecond(c.previous, c.current, c.interval_us), c.expected) << c.label;
  }
}

TEST(SampleFormat, BytesInBinaryUnitsAndDurationsInHoursAndRoundedMinutes) {
  const std::pair<std::string, std::string> cases[] = {
      {SampleFormat::bytes(0), "0 B"},
      {SampleFormat::bytes(1023), "1023 B"},
      {SampleFormat::bytes(1536), "1.5 KiB"},
      {SampleFormat::bytes(3.0 * 1024 * 1024 * 1024), "3.0 GiB"},
      {SampleFormat::bytes(5.0 * 1024 * 1024 * 1024 * 1024 * 1024), "5120.0 TiB"},
      {SampleFormat::duration(0), "0:00"},
      {SampleFormat::duration(12266), "3:24"},
      {SampleFormat::duration(3599), "1:00"},
      {SampleFormat::duration(36000), "10:00"},
  };
  for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
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

// The line of step 2, after step 1 or alone, with the changes of each row.
TEST(SampleFormat, LineShowsRatesOnlyOnceThereIsAPreviousSample) {
  const struct {
    const char* label;
    bool after_step_one;
    std::function<void(SampleSet&)> change;
    std::vector<std::string> shown, not_shown;
  } cases[] = {
      // clang-format off
      {"the first sample has no rates", false, [](SampleSet&) {},
       {"cpu -- | mem 3.0 MiB / 4.0 MiB | sda r -- w -- | eth0 in -- out -- | load 1.50 0.25 0.12 | power 12.3 W"
        " | fans 2400 rpm (forced)"}, {"temp"}},
      {"the next one has", true, [](SampleSet&) {},
       {"cpu 50% | mem 3.0 MiB / 4.0 MiB | sda r 1.0 KiB/s w 0 B/s | eth0 in 2.0 KiB/s out 4.0 KiB/s"
        " | load 1.50 0.25 0.12 | power 12.3 W | fans 2400 rpm (forced)"}, {}},
      // A machine without a readable power source draws no "0.0 W".
      {"no power sensor", false, [](SampleSet& s) { s.power_stats = {}; },
       {"| load 1.50 0.25 0.12 | no power sensor | fans"}, {" W"}},
      {"a device that appeared has no rate yet", true, [](SampleSet& s) {
         s.net_stats.push_back({"wlan0", {100, 100}});
         s.gfx_cards.push_back(GpuCollector::makeCard("AMD GPU 1002:1636", 7, 10, 5));
         s.fan_stats.clear();
       }, {"| wlan0 in -- out --", "| AMD GPU 1002:1636 7%", "| fans none"}, {}},
      {"temperatures and batteries", false, [](SampleSet& s) {
         s.temp_stats = {{"acpitz", "other", 45000, 0, 0}, {"coretemp Package id 0", "cpu", 52000, 100000, 80000},
                         {"nvme Composite", "disk", 38850, 84850, 81850}};
         s.battery_stats = {{"BAT0", "5B10W13930", "discharging", 63.0, 9.8, 12266, 0, 92.98, 187}};
         s.device_batteries = {{"hidpp_battery_0", "MX Master 3", "discharging", 80.0, 0.0, 0, 0, 0.0, 0}};
       }, {" | temp coretemp Package id 0 52.0 \u00b0C, nvme Composite 38.9 \u00b0C | "
           "BAT0 63% discharging 9.8 W 3:24 to empty | MX Master 3 80%"}, {}},
  };  // clang-format on
  const auto first = sampleAt(1);
  for (const auto& c : cases) {
    auto sample = sampleAt(2);
    c.change(sample);
    const std::string text = SampleFormat::line(c.after_step_one ? &first : nullptr, sample,
                                                c.after_step_one ? 1'000'000 : 0, 4096, 4 << 20);
    for (const auto& part : c.shown) EXPECT_NE(text.find(part), std::string::npos) << c.label << ": " << text;
    for (const auto& part : c.not_shown) EXPECT_EQ(text.find(part), std::string::npos) << c.label << ": " << text;
  }
}

TEST(SampleFormat, JsonHoldsTheWholeSampleInItsOrder) {
  auto sample = sampleAt(3);
  sample.gfx_cards.push_back(GpuCollector::makeCard("card", 7, 100, 150));
  sample.proc_stats = {4, 5, 6, 1};
  sample.temp_stats = {{"coretemp Package id 0", "cpu", 52000, 100000, 80000}};
  sample.battery_stats = {{"BAT0", "5B10W13930", "discharging", 63.0, 9.8, 12266, 0, 92.98, 187}};
  sample.device_batteries = {{"hidpp_battery_0", "MX Master 3", "discharging", 80.0, 0.0, 0, 0, 0.0, 0}};
  const auto json = SampleFormat::toJson(sample);
  std::vector<std::string> keys;
  for (const auto& item : json.items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"cpu_stats", "dsk_stats", "gfx_cards", "mem_stats", "io_stats", "proc_stats",
                                            "net_stats", "load_avg", "power_stats", "fan_stats", "temp_stats",
                                            "battery_stats", "device_batteries"}));
  EXPECT_EQ(json["cpu_stats"][0]["totalIdleTime"], 60);
  EXPECT_EQ(json["dsk_stats"][0]["stats"]["bytes_read"], 3072);
  EXPECT_EQ(json["dsk_stats"][0]["name"], "ATA X");
  EXPECT_EQ(json["gfx_cards"][0]["active"], true);
  EXPECT_EQ(json["gfx_cards"][0]["stats"]["freeVRAM"], 0);  // more used than there is: none free
  EXPECT_EQ(json["net_stats"][0]["stats"]["bytes_out"], 12288);
  EXPECT_EQ(json["proc_stats"]["other"], 6);
  EXPECT_EQ(json["load_avg"]["fifteenMin"], 0.125);
  EXPECT_EQ(json["fan_stats"][0]["forced"], true);
  EXPECT_EQ(json["fan_stats"][0]["min"], 800);
  EXPECT_EQ(json["temp_stats"][0]["crit_mC"], 100000);
  EXPECT_EQ(json["battery_stats"][0]["time_to_empty_s"], 12266);
  EXPECT_EQ(json["device_batteries"][0]["model"], "MX Master 3");
  EXPECT_EQ(json["power_stats"]["total"], 12.34);
  // Without a power source: no figure rather than 0.
  sample.power_stats = {};
  EXPECT_TRUE(SampleFormat::toJson(sample)["power_stats"]["total"].is_null());
  EXPECT_EQ(SampleFormat::toJson(sample)["power_stats"]["sensor"], false);
}

}  // namespace
