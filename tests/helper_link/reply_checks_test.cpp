// The reply readers against hand-made replies: what each returns and exactly what it logs.
#include "helper_link/reply_checks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <vector>

#include "support/logger.h"

namespace pelmora {
namespace {

using Lines = std::vector<std::string>;

XPCData bytes(size_t n, uint8_t fill = 0x5a) { return XPCData(n, fill); }

TEST(ReplyChecks, CommandRepliesAndTheirLogLines) {
  using Check = std::function<CommandOutcome(const XPCDict&)>;
  const Check setcpu = [](const XPCDict& r) { return checkSetCpuResponse(r, "setcpu"); };
  const Check setpriority = [](const XPCDict& r) { return checkSetCpuResponse(r, "setpriority"); };
  const Check throttle_on = [](const XPCDict& r) { return checkThrottleReply(r, true); };
  const Check throttle_off = [](const XPCDict& r) { return checkThrottleReply(r, false); };
  const Check install = [](const XPCDict& r) { return checkApplyBootReply(r, true); };
  const Check uninstall = [](const XPCDict& r) { return checkApplyBootReply(r, false); };
  struct Case {
    const char* name;
    const Check& check;
    XPCDict reply;
    CommandOutcome outcome;
    Lines log;
  };
  const std::vector<Case> cases = {
      {"setcpu ok", setcpu, {{"setcpu", "OK"}}, CommandOutcome::kOk, {}},
      {"setcpu refused", setcpu, {{"setcpu", "cpu3: busy"}}, CommandOutcome::kRefused,
       {"setcpucount response: cpu3: busy."}},
      // The status under the request's own key is not recognised: no log, no failure.
      {"setcpu under request key", setcpu, {{"setcpucount", "boom"}}, CommandOutcome::kNoAnswer, {}},
      {"setcpu wrong type", setcpu, {{"setcpu", 1}}, CommandOutcome::kNoAnswer, {}},
      {"setcpu empty text", setcpu, {{"setcpu", ""}}, CommandOutcome::kRefused, {"setcpucount response: ."}},
      // "setpriority" shares the "setcpucount response: " routine.
      {"setpriority refused", setpriority, {{"setpriority", "Permission denied"}}, CommandOutcome::kRefused,
       {"setcpucount response: Permission denied."}},
      {"setpriority ok", setpriority, {{"setpriority", "OK"}}, CommandOutcome::kOk, {}},
      {"throttle on", throttle_on, {{"throttle", "OK"}}, CommandOutcome::kOk, {"Process throttling: enabled"}},
      {"throttle off", throttle_off, {{"throttle", "OK"}}, CommandOutcome::kOk, {"Process throttling: disabled"}},
      {"throttle refused", throttle_on, {{"throttle", "no"}}, CommandOutcome::kRefused, {"throttle response: no."}},
      {"throttle no answer", throttle_on, {{"applyboot", "OK"}}, CommandOutcome::kNoAnswer, {}},
      {"installed", install, {{"applyboot", "OK"}}, CommandOutcome::kOk, {"Set at boot installed"}},
      {"uninstalled", uninstall, {{"applyboot", "OK"}}, CommandOutcome::kOk, {"Set at boot uninstalled"}},
      {"boot refused", install, {{"applyboot", "bad path"}}, CommandOutcome::kRefused,
       {"applyboot response: bad path."}},
      {"boot no answer", uninstall, {}, CommandOutcome::kNoAnswer, {}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(c.check(c.reply), c.outcome) << c.name;
    EXPECT_EQ(log.lines(), c.log) << c.name;
  }
}

TEST(ReplyChecks, IsRunningIsOffsetByOne) {
  struct Case {
    XPCDict reply;
    bool default_value;
    bool expected;
  };
  const std::vector<Case> cases = {
      {{{"isrunning", 1}}, true, false},  {{{"isrunning", 2}}, false, true},
      {{{"isrunning", 7}}, false, true},  {{{"isrunning", 0}}, true, true},
      {{{"isrunning", 0}}, false, false}, {{}, true, true},
      {{{"isrunning", -4}}, true, true},  {{{"isrunning", "2"}}, false, false},
  };
  for (size_t i = 0; i < cases.size(); ++i)
    EXPECT_EQ(checkIsRunningReply(cases[i].reply, cases[i].default_value), cases[i].expected) << "case " << i;
}

TEST(ReplyChecks, CpuInfoFillsTheFourCountsInOrder) {
  const cpu_numbers_t current{9, 9, 9, 9};
  const XPCDict info = {{"logical_cpu_max", 16}, {"physical_cpu_max", 8}, {"logical_cpu", 12}, {"physical_cpu", 6}};
  EXPECT_EQ(checkCpuInfoReply({{"cpuinfo", info}}, current), (cpu_numbers_t{16, 8, 12, 6}));
  EXPECT_EQ(checkCpuInfoReply({}, current), current);
  EXPECT_EQ(checkCpuInfoReply({{"cpuinfo", 4}}, current), current);
  // A count missing inside the dictionary reads as 0, like any missing integer.
  EXPECT_EQ(checkCpuInfoReply({{"cpuinfo", XPCDict{{"logical_cpu", 3}}}}, current), (cpu_numbers_t{0, 0, 3, 0}));
}

TEST(ReplyChecksDeathTest, OutOfRange32BitValuesStopTheProgram) {
  const XPCDict too_big = {{"logical_cpu_max", int64_t{1} << 31}};
  EXPECT_DEATH(checkCpuInfoReply({{"cpuinfo", too_big}}, {}), "");
  const XPCDict too_small = {{"physical_cpu", int64_t{-1} - (int64_t{1} << 31)}};
  EXPECT_DEATH(checkCpuInfoReply({{"cpuinfo", too_small}}, {}), "");
  EXPECT_DEATH(checkPowerMetricsReply({{"result", 1}, {"pid", int64_t{1} << 40}}), "");
}

TEST(ReplyChecks, KillAndPidName) {
  EXPECT_EQ(checkKillReply({{"kill", 0}}), 0);
  EXPECT_EQ(checkKillReply({{"kill", 3}}), 3);
  EXPECT_EQ(checkKillReply({}), -1);
  EXPECT_EQ(checkKillReply({{"kill", int64_t{1} << 40}}), -1);
  EXPECT_EQ(checkPidNameReply({{"reply_pidname", "bash"}}), std::optional<std::string>("bash"));
  EXPECT_EQ(checkPidNameReply({{"reply_pidname", ""}}), std::nullopt);
  EXPECT_EQ(checkPidNameReply({{"pidname", "bash"}}), std::nullopt);
}

struct RecordCase {
  const char* name;
  XPCDict reply;
  int status;
  bool has_record;
  Lines log;
};

template <class Record, class Check>
void runRecordCases(const char* marker, const char* data_key, Check check) {
  const size_t size = sizeof(Record);
  const std::string missing = std::string("No ") + data_key + " data present";
  const std::vector<RecordCase> cases = {
      {"ok", {{marker, ""}, {"result", 1}, {data_key, bytes(size)}}, 0, true, {}},
      {"marker value is free", {{marker, "anything"}, {"result", 1}, {data_key, bytes(size)}}, 0, true, {}},
      {"no marker", {{"result", 1}, {data_key, bytes(size)}}, -1, false, {}},
      {"result 0", {{marker, ""}, {"result", 0}, {data_key, bytes(size)}}, -1, false, {}},
      {"no result", {{marker, ""}, {data_key, bytes(size)}}, -1, false, {}},
      {"error status", {{marker, ""}, {"result", 4}}, 3, false, {}},
      // For "taskallinfo" this is the 224-byte record of an older layout.
      {"short data", {{marker, ""}, {"result", 1}, {data_key, bytes(size - 8)}}, -1, false,
       {"Invalid data size: " + std::to_string(size - 8)}},
      {"long data", {{marker, ""}, {"result", 1}, {data_key, bytes(size + 1)}}, -1, false,
       {"Invalid data size: " + std::to_string(size + 1)}},
      {"no data", {{marker, ""}, {"result", 1}}, -1, false, {missing}},
      {"data of wrong type", {{marker, ""}, {"result", 1}, {data_key, "x"}}, -1, false, {missing}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    const auto got = check(c.reply);
    EXPECT_EQ(got.status, c.status) << data_key << ": " << c.name;
    EXPECT_EQ(got.record.has_value(), c.has_record) << data_key << ": " << c.name;
    EXPECT_EQ(log.lines(), c.log) << data_key << ": " << c.name;
    if (got.record) {
      Record expected;
      std::memset(&expected, 0x5a, sizeof expected);
      EXPECT_EQ(std::memcmp(&*got.record, &expected, sizeof expected), 0) << data_key;
    }
  }
}

TEST(ReplyChecks, RecordQueries) {
  runRecordCases<proc_taskinfo>("reply_taskinfo", "taskinfo", checkTaskInfoReply);
  runRecordCases<proc_taskallinfo>("reply_taskallinfo", "taskallinfo", checkTaskAllInfoReply);
  runRecordCases<rusage_info_v3>("reply_rusage", "rusage", checkRusageReply);
}

// A batch is used whole or not at all: one malformed entry could shift every row after it.
TEST(ReplyChecks, TaskListAllOrNothing) {
  const XPCData all = bytes(sizeof(proc_taskallinfo)), usage = bytes(sizeof(rusage_info_v3));
  const auto reply = [&](XPCArray pids, XPCArray infos, XPCArray usages, XPCArray names, XPCArray times) {
    return XPCDict{{"reply_tasklist", "tasklist"}, {"result", 1}, {"pids", pids}, {"taskallinfo", infos},
                   {"rusage", usages}, {"names", names}, {"times", times}};
  };
  const XPCDict good = reply({7, 9}, {all, all}, {usage, XPCData{}}, {"a", "b"}, {100, 200});
  struct Case {
    const char* name;
    XPCDict reply;
    bool answered;
  };
  XPCDict refused{{"reply_tasklist", "tasklist"}, {"result", 1 + 22}, {"error", "\"pids\" must hold 1 to 512 entries (0)"}};
  XPCDict no_times = good;
  no_times.erase("times");
  const Case cases[] = {
      {"good", good, true},
      {"refused", refused, false},
      {"no marker", XPCDict{{"result", 1}}, false},
      {"a missing array", no_times, false},
      {"arrays of different lengths", reply({7, 9}, {all}, {usage, usage}, {"a", "b"}, {1, 2}), false},
      {"a record of an older size", reply({7}, {bytes(224)}, {usage}, {"a"}, {1}), false},
      {"a pid as text", reply({"7"}, {all}, {usage}, {"a"}, {1}), false},
      {"a name as an integer", reply({7}, {all}, {usage}, {7}, {1}), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto got = checkTaskListReply(c.reply);
    ASSERT_EQ(got.has_value(), c.answered);
    if (!got) continue;
    ASSERT_EQ(got->size(), 2u);
    EXPECT_EQ(got->at(7).name, "a");
    EXPECT_TRUE(got->at(7).usage.has_value());
    EXPECT_FALSE(got->at(9).usage.has_value());  // refused: no usage, the row keeps its totals
    EXPECT_EQ(got->at(9).read_at_us, 200);
  }
}

TEST(ReplyChecks, PidFiles) {
  using Files = std::map<int, std::string>;
  struct Case {
    const char* name;
    XPCDict reply;
    std::optional<Files> files;
    Lines log;
  };
  const XPCValue null_path;  // a null element
  const std::vector<Case> cases = {
      {"paired", {{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{0, 1, 5}},
                  {"pidfiles", XPCArray{"/dev/null", "/tmp/a", "socket:[12]"}}},
       Files{{0, "/dev/null"}, {1, "/tmp/a"}, {5, "socket:[12]"}}, {}},
      {"three and two", {{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{0, 1, 2}},
                         {"pidfiles", XPCArray{"/a", "/b"}}},
       std::nullopt, {"pidfiles arrays are different sizes"}},
      {"no paths", {{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{0}}}, std::nullopt, {"pidfiles error"}},
      {"no fds", {{"reply_pidfiles", ""}, {"result", 1}, {"pidfiles", XPCArray{"/a"}}}, std::nullopt,
       {"pidfiles error"}},
      {"null skipped, later duplicate wins",
       {{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{3, 4, 3}},
        {"pidfiles", XPCArray{"/first", null_path, "/second"}}},
       Files{{3, "/second"}}, {}},
      {"no marker", {{"result", 1}, {"pidfds", XPCArray{0}}, {"pidfiles", XPCArray{"/a"}}}, std::nullopt, {}},
      {"failure status", {{"reply_pidfiles", ""}, {"result", 2}}, std::nullopt, {}},
      {"empty arrays", {{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{}}, {"pidfiles", XPCArray{}}},
       Files{}, {}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(checkPidFilesReply(c.reply).files, c.files) << c.name;
    EXPECT_EQ(log.lines(), c.log) << c.name;
  }
}

TEST(ReplyChecks, PowerMetricsReadsPidAndDescriptorOnlyOnSuccess) {
  int pipe_fds[2];
  ASSERT_EQ(::pipe(pipe_fds), 0);
  ::close(pipe_fds[1]);
  const XPCValue fd = XPCValue::descriptor(UniqueFd(pipe_fds[0]));

  auto ok = checkPowerMetricsReply({{"result", 1}, {"pid", 4321}, {"fd", fd}});
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.pid, 4321);
  ASSERT_TRUE(ok.fd.valid());
  EXPECT_NE(ok.fd.get(), pipe_fds[0]);  // a duplicate, owned by the caller
  struct stat a{}, b{};
  ASSERT_EQ(::fstat(ok.fd.get(), &a), 0);
  ASSERT_EQ(::fstat(pipe_fds[0], &b), 0);
  EXPECT_EQ(a.st_ino, b.st_ino);

  auto failed = checkPowerMetricsReply({{"result", 3}, {"pid", 4321}, {"fd", fd}});
  EXPECT_EQ(failed.status, 2);
  EXPECT_EQ(failed.pid, -1);
  EXPECT_FALSE(failed.fd.valid());

  auto none = checkPowerMetricsReply({});
  EXPECT_EQ(none.status, -1);
  EXPECT_EQ(none.pid, -1);
  EXPECT_FALSE(none.fd.valid());
}

TEST(ReplyChecks, EnergyReadingsAllOrNothing) {
  auto zone = [](XPCValue name, XPCValue energy, XPCValue range) {
    return XPCValue(XPCDict{{"zone", name}, {"energy_uj", energy}, {"max_energy_range_uj", range}});
  };
  using Readings = std::optional<std::vector<RaplReading>>;
  const struct {
    const char* what;
    XPCDict reply;
    Readings expected;
  } cases[] = {
      {"two packages", {{"energy", XPCArray{zone("intel-rapl:0", 5, 100), zone("intel-rapl:1", 7, 100)}}},
       std::vector<RaplReading>{{"intel-rapl:0", 5, 100}, {"intel-rapl:1", 7, 100}}},
      {"a machine without RAPL", {{"energy", XPCArray{}}}, std::vector<RaplReading>{}},
      {"the daemon could not read them", {{"energy", XPCArray{}}, {"error", "no"}}, std::nullopt},
      {"no answer", {}, std::nullopt},
      {"not a list", {{"energy", "5"}}, std::nullopt},
      {"negative counter", {{"energy", XPCArray{zone("intel-rapl:0", -5, 100)}}}, std::nullopt},
      {"counter as text", {{"energy", XPCArray{zone("intel-rapl:0", "5", 100)}}}, std::nullopt},
      {"no zone name", {{"energy", XPCArray{zone(1, 5, 100)}}}, std::nullopt},
      {"an entry that is no map", {{"energy", XPCArray{XPCValue(5)}}}, std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(checkEnergyReply(c.reply), c.expected) << c.what;
}

}  // namespace
}  // namespace pelmora
