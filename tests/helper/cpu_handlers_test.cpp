// The processor and throttle requests against writable copies of fixture sysfs trees.
#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "helper/request_handler.h"
#include "helper/test_support.h"

namespace pelmora {
namespace {

using testing::readTrimmed;
using testing::TempDir;
namespace fs = std::filesystem;

class CpuHandlers : public ::testing::Test {
 protected:
  RequestHandler handlerFor(const std::string& fixture) {
    m_sys = m_dir->copyFixture(fixture);
    HelperOptions options;
    options.root = SysRoot("/proc", m_sys.string());
    return RequestHandler(options);
  }
  // The four counts "requestcpuinfo" answers.
  XPCDict counts(RequestHandler& handler) {
    const XPCDict reply = handler.handle({{"requestcpuinfo", ""}}, m_root);
    return xpcDict(reply, "cpuinfo") ? *xpcDict(reply, "cpuinfo") : XPCDict{};
  }
  fs::path cpuFile(int cpu, const char* leaf = "online") const {
    return m_sys / "devices/system/cpu" / ("cpu" + std::to_string(cpu)) / leaf;
  }
  // CPUs whose online file reads 1, among those that have one.
  std::set<int> onlineFiles() const {
    std::set<int> on;
    for (int cpu = 0; cpu < 16; ++cpu) {
      if (fs::exists(cpuFile(cpu)) && readTrimmed(cpuFile(cpu)) == "1") on.insert(cpu);
    }
    return on;
  }
  std::string smtControl() const { return readTrimmed(m_sys / "devices/system/cpu/smt/control"); }

  std::unique_ptr<TempDir> m_dir = std::make_unique<TempDir>();
  fs::path m_sys;
  Connection m_root{CallerIdentity{0, 1234, 1}};
  Connection m_user{CallerIdentity{1000, 1235, 1}};
};

XPCDict setCpuCount(int64_t count, int64_t hyper, int64_t prefer) {
  return {{"setcpucount", ""}, {"count", count}, {"hyper", hyper}, {"prefer_phys", prefer}};
}

TEST_F(CpuHandlers, SetCpuCountWritesTheChosenOnlineFiles) {
  const struct {
    const char* fixture;
    int count, hyper, prefer;
    std::set<int> online;  // among CPUs with an online file
    const char* smt;       // expected smt/control, "" when the tree has none
    int64_t logical_online, physical_online;
    bool smt_off_before = false;  // hardware threads switched off by an earlier request
  } cases[] = {
      {"cpu-smt-4c8t", 4, 1, 0, {1, 2, 3}, "on", 4, 4},
      {"cpu-smt-4c8t", 8, 0, 0, {1, 2, 3}, "off", 4, 4},
      {"cpu-smt-4c8t", 100, 1, 1, {1, 2, 3, 4, 5, 6, 7}, "on", 8, 4},
      {"cpu-smt-4c8t", 1, 1, 0, {}, "on", 1, 1},
      {"cpu-smt-4c8t", 8, 1, 0, {1, 2, 3, 4, 5, 6, 7}, "on", 8, 4, true},  // the siblings come back
      {"cpu-2pkg-adjacent", 4, 1, 1, {0, 2, 4, 6}, "on", 4, 4},
      {"cpu-2pkg-adjacent", 3, 1, 0, {0, 1, 2}, "on", 3, 2},
      {"cpu-2pkg-adjacent", 1, 1, 1, {0}, "on", 1, 1},
      {"cpu-nosmt-4c", 10, 1, 0, {1, 2, 3}, "", 4, 4},
      {"cpu-nosmt-4c", 2, 0, 1, {1}, "", 2, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.fixture) + " count " + std::to_string(c.count));
    m_dir = std::make_unique<TempDir>();  // a clean copy per case
    RequestHandler handler = handlerFor(c.fixture);
    if (c.smt_off_before) {
      ASSERT_EQ(*xpcString(handler.handle(setCpuCount(8, 0, 0), m_root), "setcpu"), "OK");
      ASSERT_EQ(smtControl(), "off");
    }
    EXPECT_EQ(handler.handle(setCpuCount(c.count, c.hyper, c.prefer), m_root), (XPCDict{{"setcpu", "OK"}}));
    EXPECT_EQ(onlineFiles(), c.online);
    if (*c.smt) {
      EXPECT_EQ(smtControl(), c.smt);
    }
    const XPCDict now = counts(handler);
    EXPECT_EQ(xpcInt(now, "logical_cpu"), c.logical_online);
    EXPECT_EQ(xpcInt(now, "physical_cpu"), c.physical_online);
  }
}

TEST_F(CpuHandlers, OfflineCpusKeepTheTopologySeenWhileOnline) {
  RequestHandler handler = handlerFor("cpu-2pkg-adjacent");
  ASSERT_EQ(*xpcString(handler.handle(setCpuCount(2, 1, 0), m_root), "setcpu"), "OK");
  // The kernel drops topology/ of an offline CPU; the handler has seen it already.
  for (int cpu = 2; cpu < 8; ++cpu) fs::remove_all(cpuFile(cpu, "topology"));
  EXPECT_EQ(counts(handler),
            (XPCDict{{"logical_cpu_max", 8}, {"physical_cpu_max", 4}, {"logical_cpu", 2}, {"physical_cpu", 1}}));
}

TEST_F(CpuHandlers, AFailingWriteRollsBackEveryChange) {
  const struct {
    const char* name;
    std::vector<int> initially_off;
    int count;
    std::set<int> online_after;  // the initial state, restored
  } cases[] = {
      {"failing while switching off", {}, 2, {0, 1, 2, 3, 4, 5, 6, 7}},
      {"failing after switching on", {1, 2}, 4, {0, 3, 4, 5, 6, 7}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    m_dir = std::make_unique<TempDir>();
    RequestHandler handler = handlerFor("cpu-2pkg-adjacent");
    for (int cpu : c.initially_off) testing::writeText(cpuFile(cpu), "0\n");
    // cpu5's online file becomes a symlink, which the writer never follows: that write fails.
    testing::writeText(cpuFile(5, "online-real"), "1\n");
    fs::remove(cpuFile(5));
    fs::create_symlink("online-real", cpuFile(5));
    const std::string reply = *xpcString(handler.handle(setCpuCount(c.count, 1, 0), m_root), "setcpu");
    EXPECT_NE(reply, "OK");
    EXPECT_NE(reply.find("cpu5"), std::string::npos) << reply;
    EXPECT_EQ(onlineFiles(), c.online_after);
  }
}

// Every field is checked before anything is written; any user may ask whether a CPU runs.
TEST_F(CpuHandlers, ArgumentsAreCheckedBeforeAnythingChanges) {
  RequestHandler handler = handlerFor("cpu-smt-4c8t");
  testing::writeText(cpuFile(3), "0\n");
  const std::string wbt = readTrimmed(m_sys / "block/sda/queue/wbt_lat_usec");
  auto isRunning = [](const XPCValue& cpu) { return testing::with({{"isrunning", ""}}, "cpu", cpu); };
  auto throttle = [](const XPCValue& enable) { return XPCDict{{"throttle", ""}, {"enable", enable}}; };
  const struct {
    XPCDict request;
    const char* key;
    XPCValue want;  // an integer, or the start of a text
  } cases[] = {
      {isRunning(0), "isrunning", 2},  // no online file: always running
      {isRunning(1), "isrunning", 2},
      {isRunning(3), "isrunning", 1},
      {isRunning(8), "error", "no processor 8"},
      {isRunning(-1), "error", "\"cpu\""},
      {isRunning("1"), "error", "\"cpu\""},
      {isRunning(XPCValue()), "error", "missing \"cpu\""},
      {setCpuCount(0, 1, 0), "setcpu", "\"count\""},  // would leave no CPU
      {setCpuCount(-1, 1, 0), "setcpu", "\"count\""},
      {setCpuCount(4, 2, 0), "setcpu", "\"hyper\""},
      {setCpuCount(4, 1, -1), "setcpu", "\"prefer_phys\""},
      {{{"setcpucount", ""}, {"count", "4"}, {"hyper", 1}, {"prefer_phys", 0}}, "setcpu", "\"count\""},
      {{{"setcpucount", ""}, {"count", XPCData{4}}, {"hyper", 1}, {"prefer_phys", 0}}, "setcpu", "\"count\""},
      {{{"setcpucount", ""}, {"count", 4}, {"hyper", 1}}, "setcpu", "missing \"prefer_phys\""},
      {throttle(2), "throttle", "\"enable\""},
      {throttle(-1), "throttle", "\"enable\""},
      {throttle("1"), "throttle", "\"enable\""},
  };
  for (const auto& c : cases) EXPECT_EQ(testing::mismatch(handler.handle(c.request, m_user), c.key, c.want), "");
  EXPECT_EQ(onlineFiles(), (std::set<int>{1, 2, 4, 5, 6, 7}));
  EXPECT_EQ(readTrimmed(m_sys / "block/sda/queue/wbt_lat_usec"), wbt);
}

// Grants polkit's answer and counts how often it was asked.
class CountingAuthorizer : public Authorizer {
 public:
  std::string authorize(const CallerIdentity&) override {
    ++asked;
    return "OK";
  }
  int asked = 0;
};

TEST_F(CpuHandlers, AGrantHoldsForEveryConnectionOfTheProcessUntilDeauthorize) {
  m_sys = m_dir->copyFixture("cpu-smt-4c8t");
  auto authorizer = std::make_shared<CountingAuthorizer>();
  HelperOptions options;
  options.root = SysRoot("/proc", m_sys.string());
  options.authorizer = authorizer;
  RequestHandler handler(options);
  const uint64_t start = ProcTaskReader().readStat(::getpid())->starttime_ticks;
  // An ordinary user's process (this one, so that its start time is real), a second connection of
  // it, the same pid recycled by a later process, and another process of the same user.
  Connection first(CallerIdentity{1000, ::getpid(), start}), second(CallerIdentity{1000, ::getpid(), start});
  Connection recycled(CallerIdentity{1000, ::getpid(), start + 1}), other(CallerIdentity{1000, ::getppid(), 5});
  auto throttle = [&](Connection& c) { return *xpcString(handler.handle({{"throttle", ""}, {"enable", 1}}, c), "throttle"); };
  auto authorize = [&](Connection& c, int64_t interactive) {
    return *xpcString(handler.handle({{"authorize", ""}, {"interactive", interactive}}, c), "authorize");
  };
  EXPECT_EQ(authorize(other, 0), "not authorised: no grant held") << "asking without a dialog never asks polkit";
  EXPECT_EQ(authorizer->asked, 0);
  EXPECT_EQ(authorize(first, 1), "OK");
  EXPECT_EQ(authorizer->asked, 1);
  const struct {
    Connection* caller;
    bool authorised;
  } after_grant[] = {{&first, true}, {&second, true}, {&recycled, false}, {&other, false}};
  for (const auto& c : after_grant) {
    EXPECT_EQ(throttle(*c.caller) == "OK", c.authorised) << c.caller->caller().start_ticks;
    EXPECT_EQ(authorize(*c.caller, 0) == "OK", c.authorised);
  }
  EXPECT_EQ(authorize(second, 1), "OK");
  EXPECT_EQ(authorizer->asked, 1) << "the grant answers; polkit is not asked again";
  EXPECT_EQ(*xpcString(handler.handle({{"deauthorize", ""}}, second), "deauthorize"), "OK");
  EXPECT_NE(throttle(first), "OK") << "deauthorize on one connection ends the grant for all";
}

TEST_F(CpuHandlers, ThrottleWritesEveryPhysicalDisk) {
  RequestHandler handler = handlerFor("cpu-smt-4c8t");
  const struct {
    int64_t enable;
    const char* value;
  } cases[] = {{0, "0"}, {1, "-1"}};
  for (const auto& c : cases) {
    EXPECT_EQ(handler.handle({{"throttle", ""}, {"enable", c.enable}}, m_root), (XPCDict{{"throttle", "OK"}}));
    EXPECT_EQ(readTrimmed(m_sys / "block/sda/queue/wbt_lat_usec"), c.value);
    EXPECT_EQ(readTrimmed(m_sys / "block/nvme0n1/queue/wbt_lat_usec"), c.value);
    EXPECT_EQ(readTrimmed(m_sys / "block/loop0/queue/wbt_lat_usec"), "2000");  // virtual: untouched
  }
}

}  // namespace
}  // namespace pelmora
