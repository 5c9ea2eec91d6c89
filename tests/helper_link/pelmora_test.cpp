// Pelmora's operations over a fake transport: the request each one sends, what it makes of each
// reply the helper may give (or of none at all), and exactly what it logs; its local reads, and
// its authorisation state. The reply readers are driven through the operations that use them.
#include "helper_link/pelmora.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>

#include "common/eventually.h"
#include "fake_transport.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/main_queue.h"

namespace pelmora {
namespace {

using test::FakeWire;
using Lines = std::vector<std::string>;

struct Client {
  std::shared_ptr<FakeWire> wire = std::make_shared<FakeWire>();
  Pelmora pelmora{std::make_unique<test::FakeTransport>(wire)};
  // None: the helper cannot be reached.
  void answer(std::optional<XPCDict> reply) {
    wire->answer = [reply](const XPCDict&) { return reply; };
  }
};

// What an operation returned, written out.
std::string show(bool v) { return v ? "yes" : "no"; }
std::string show(int v) { return std::to_string(v); }
std::string show(const std::string& v) { return "'" + v + "'"; }
std::string show(const cpu_numbers_t& n) {
  return show(n.logical_cpu_max) + " " + show(n.physical_cpu_max) + " " + show(n.logical_cpu) + " " +
         show(n.physical_cpu);
}
// "record" when every byte is the 0x5a the reply carried: the record was copied whole.
std::string filled(const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  return std::all_of(bytes, bytes + size, [](uint8_t b) { return b == 0x5a; }) ? "record" : "garbled record";
}
std::string show(const proc_taskinfo& r) { return filled(&r, sizeof r); }
std::string show(const proc_taskallinfo& r) { return filled(&r, sizeof r); }
std::string show(const rusage_info_v3& r) { return filled(&r, sizeof r); }
std::string show(const std::map<int, std::string>& files) {
  std::string out;
  for (const auto& [fd, path] : files) out += show(fd) + "=" + path + " ";
  return out;
}
std::string show(const std::map<int32_t, ProcessRecord>& rows) {
  std::string out;
  for (const auto& [pid, r] : rows)
    out += show(pid) + ":" + r.name + ":" + show(r.all) + ":" + (r.usage ? show(*r.usage) : "-") + ":" +
           show(static_cast<int>(r.read_at_us)) + " ";
  return out;
}
std::string show(const std::vector<RaplReading>& readings) {
  std::string out;
  for (const auto& r : readings)
    out += r.zone + "=" + std::to_string(r.energy_uj) + "/" + std::to_string(r.max_energy_range_uj) + " ";
  return out;
}
std::string show(const PowerMetricsReply& r) {
  return "status " + show(r.status) + " pid " + show(r.pid) + (r.fd.valid() ? " fd" : "");
}
template <class T>
std::string show(const std::optional<T>& v) {
  return v ? show(*v) : "none";
}

XPCData bytes(size_t n) { return XPCData(n, 0x5a); }

// An operation with fixed arguments and the request it must send (empty: nothing is sent).
struct Op {
  std::function<std::string(Pelmora&)> call;
  XPCDict request;
};

TEST(PelmoraReplies, EachOperationSendsItsRequestAndReadsItsReply) {
  // The operations and the replies as tables, a row a line.
  // clang-format off
  const Op cpuinfo{[](Pelmora& p) { return show(p.requestCpuInfo({9, 9, 9, 9})); }, {{"requestcpuinfo", ""}}};
  const Op running_unless_told{[](Pelmora& p) { return show(p.isRunning(3, true)); }, {{"isrunning", ""}, {"cpu", 3}}};
  const Op stopped_unless_told{[](Pelmora& p) { return show(p.isRunning(3, false)); },
                               {{"isrunning", ""}, {"cpu", 3}}};
  const Op setcpu{[](Pelmora& p) { return show(p.setCpuCount(6, true, false)); },
                  {{"setcpucount", ""}, {"count", 6}, {"hyper", 1}, {"prefer_phys", 0}}};
  const Op setcpu_prefer{[](Pelmora& p) { return show(p.setCpuCount(2, false, true)); },
                         {{"setcpucount", ""}, {"count", 2}, {"hyper", 0}, {"prefer_phys", 1}}};
  const Op throttle_on{[](Pelmora& p) { return show(p.setThrottle(true)); }, {{"throttle", ""}, {"enable", 1}}};
  const Op throttle_off{[](Pelmora& p) { return show(p.setThrottle(false)); }, {{"throttle", ""}, {"enable", 0}}};
  const Op setpriority{[](Pelmora& p) { return show(p.setPriority(1234, -5)); },
                       {{"setpriority", ""}, {"pid", 1234}, {"priority", -5}}};
  const Op kill{[](Pelmora& p) { return show(p.sendSignal(1234, SIGSTOP)); },
                {{"kill", "kill"}, {"pid", 1234}, {"signal", SIGSTOP}}};
  // Pids travel sign-extended.
  const Op pidname{[](Pelmora& p) { return show(p.pidName(-7, true)); },
                   {{"pidname", "pidname"}, {"pid", int64_t{-7}}}};
  const Op taskinfo{[](Pelmora& p) { return show(p.taskInfo(42, true)); }, {{"taskinfo", "taskinfo"}, {"pid", 42}}};
  const Op taskallinfo{[](Pelmora& p) { return show(p.taskAllInfo(42, true)); },
                       {{"taskallinfo", "taskallinfo"}, {"pid", 42}}};
  const Op rusage{[](Pelmora& p) { return show(p.rusage(42, true)); }, {{"rusage", "rusage"}, {"pid", 42}}};
  const Op negative_pids{[](Pelmora& p) {
                           return show(p.taskInfo(-1, true)) + show(p.taskAllInfo(-1, true)) +
                                  show(p.rusage(-3, true)) + show(p.taskInfo(-1, false)) + show(p.pidFiles(-1, true));
                         },
                         {}};
  const Op pidfiles{[](Pelmora& p) { return show(p.pidFiles(42, true)); }, {{"pidfiles", "pidfiles"}, {"pid", 42}}};
  const Op tasklist{[](Pelmora& p) { return show(p.records({7, 0, 9}, true)); },
                    {{"tasklist", "tasklist"}, {"pids", XPCArray{7, 9}}}};
  const Op powermetrics{[](Pelmora& p) { return show(p.powerMetrics(1000)); },
                        {{"powermetrics", "powermetrics"}, {"sample_interval", 1000}}};
  const Op energy{[](Pelmora& p) { return show(p.energy()); }, {{"energy", "energy"}}};
  const Op authorize{[](Pelmora& p) { return show(p.authorize()); }, {{"authorize", ""}, {"interactive", 1}}};
  const Op deauthorize{[](Pelmora& p) { return p.deauthorize(), std::string(); }, {{"deauthorize", ""}}};

  const XPCData all = bytes(sizeof(proc_taskallinfo)), usage = bytes(sizeof(rusage_info_v3));
  const auto tasks = [&](XPCArray pids, XPCArray infos, XPCArray usages, XPCArray names, XPCArray times) {
    return XPCDict{{"reply_tasklist", "tasklist"}, {"result", 1}, {"pids", pids}, {"taskallinfo", infos},
                   {"rusage", usages}, {"names", names}, {"times", times}};
  };
  XPCDict tasks_without_times = tasks({7}, {all}, {usage}, {"a"}, {1});
  tasks_without_times.erase("times");
  const auto files = [](XPCArray fds, XPCArray paths) {
    return XPCDict{{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", fds}, {"pidfiles", paths}};
  };
  const auto zone = [](XPCValue name, XPCValue energy_uj, XPCValue range_uj) {
    return XPCValue(XPCDict{{"zone", name}, {"energy_uj", energy_uj}, {"max_energy_range_uj", range_uj}});
  };
  const XPCDict info = {{"logical_cpu_max", 16}, {"physical_cpu_max", 8}, {"logical_cpu", 12}, {"physical_cpu", 6}};
  const size_t task_size = sizeof(proc_taskinfo);

  struct Case {
    const char* name;
    const Op& op;
    std::optional<XPCDict> reply;  // none: the helper cannot be reached
    std::string result;
    Lines log = {};
  };
  const Case cases[] = {
      // Commands: "OK" or the helper's reason under an agreed key, which is not always the request's.
      {"setcpu ok", setcpu, XPCDict{{"setcpu", "OK"}}, "yes"},
      {"setcpu refused", setcpu, XPCDict{{"setcpu", "cpu3: busy"}}, "no", {"setcpucount response: cpu3: busy."}},
      {"setcpu under request key", setcpu_prefer, XPCDict{{"setcpucount", "OK"}}, "no"},
      {"setcpu wrong type", setcpu, XPCDict{{"setcpu", 1}}, "no"},
      {"setcpu empty text", setcpu, XPCDict{{"setcpu", ""}}, "no", {"setcpucount response: ."}},
      {"setcpu unreachable", setcpu, std::nullopt, "no"},
      // "setpriority" shares the "setcpucount response: " routine.
      {"setpriority refused", setpriority, XPCDict{{"setpriority", "Permission denied"}}, "no",
       {"setcpucount response: Permission denied."}},
      {"setpriority ok", setpriority, XPCDict{{"setpriority", "OK"}, {"setcpu", "no"}}, "yes"},
      {"throttle on", throttle_on, XPCDict{{"throttle", "OK"}}, "yes", {"Process throttling: enabled"}},
      {"throttle off", throttle_off, XPCDict{{"throttle", "OK"}}, "yes", {"Process throttling: disabled"}},
      {"throttle refused", throttle_on, XPCDict{{"throttle", "no"}}, "no", {"throttle response: no."}},
      {"throttle no answer", throttle_on, XPCDict{{"applyboot", "OK"}}, "no"},
      // "isrunning" is offset by one: 1 not running, 2 and more running, else the default.
      {"isrunning 1", running_unless_told, XPCDict{{"isrunning", 1}}, "no"},
      {"isrunning 2", stopped_unless_told, XPCDict{{"isrunning", 2}}, "yes"},
      {"isrunning 7", stopped_unless_told, XPCDict{{"isrunning", 7}}, "yes"},
      {"isrunning 0, default yes", running_unless_told, XPCDict{{"isrunning", 0}}, "yes"},
      {"isrunning 0, default no", stopped_unless_told, XPCDict{{"isrunning", 0}}, "no"},
      {"isrunning missing", running_unless_told, XPCDict{}, "yes"},
      {"isrunning negative", running_unless_told, XPCDict{{"isrunning", -4}}, "yes"},
      {"isrunning as text", stopped_unless_told, XPCDict{{"isrunning", "2"}}, "no"},
      {"isrunning unreachable, default yes", running_unless_told, std::nullopt, "yes"},
      {"isrunning unreachable, default no", stopped_unless_told, std::nullopt, "no"},
      // "cpuinfo": the four counts in order; a count missing inside reads as 0.
      {"cpuinfo", cpuinfo, XPCDict{{"cpuinfo", info}}, "16 8 12 6"},
      {"cpuinfo missing", cpuinfo, XPCDict{}, "9 9 9 9"},
      {"cpuinfo not a map", cpuinfo, XPCDict{{"cpuinfo", 4}}, "9 9 9 9"},
      {"cpuinfo one count", cpuinfo, XPCDict{{"cpuinfo", XPCDict{{"logical_cpu", 3}}}}, "0 0 3 0"},
      {"cpuinfo unreachable", cpuinfo, std::nullopt, "9 9 9 9"},
      {"kill 0", kill, XPCDict{{"kill", 0}}, "0"},
      {"kill 3", kill, XPCDict{{"kill", 3}}, "3"},
      {"kill missing", kill, XPCDict{}, "-1"},
      {"kill beyond an int", kill, XPCDict{{"kill", int64_t{1} << 40}}, "-1"},
      {"kill unreachable", kill, std::nullopt, "-1"},
      {"pidname", pidname, XPCDict{{"reply_pidname", "bash"}}, "'bash'"},
      {"pidname empty", pidname, XPCDict{{"reply_pidname", ""}}, "none"},
      {"pidname under request key", pidname, XPCDict{{"pidname", "bash"}}, "none"},
      // Record queries: a success with data of the record's exact size, or nothing.
      {"taskinfo", taskinfo, XPCDict{{"reply_taskinfo", ""}, {"result", 1}, {"taskinfo", bytes(task_size)}}, "record"},
      {"taskinfo, marker value free", taskinfo,
       XPCDict{{"reply_taskinfo", "x"}, {"result", 1}, {"taskinfo", bytes(task_size)}}, "record"},
      {"taskinfo, no marker", taskinfo, XPCDict{{"result", 1}, {"taskinfo", bytes(task_size)}}, "none"},
      {"taskinfo, no result", taskinfo, XPCDict{{"reply_taskinfo", ""}, {"taskinfo", bytes(task_size)}}, "none"},
      {"taskinfo, error status", taskinfo, XPCDict{{"reply_taskinfo", ""}, {"result", 4}}, "none"},
      {"taskinfo, short data", taskinfo,
       XPCDict{{"reply_taskinfo", ""}, {"result", 1}, {"taskinfo", bytes(task_size - 8)}}, "none",
       {"Invalid data size: " + std::to_string(task_size - 8)}},
      {"taskinfo, long data", taskinfo,
       XPCDict{{"reply_taskinfo", ""}, {"result", 1}, {"taskinfo", bytes(task_size + 1)}}, "none",
       {"Invalid data size: " + std::to_string(task_size + 1)}},
      {"taskinfo, no data", taskinfo, XPCDict{{"reply_taskinfo", ""}, {"result", 1}}, "none",
       {"No taskinfo data present"}},
      {"taskinfo, data as text", taskinfo, XPCDict{{"reply_taskinfo", ""}, {"result", 1}, {"taskinfo", "x"}}, "none",
       {"No taskinfo data present"}},
      {"taskallinfo", taskallinfo, XPCDict{{"reply_taskallinfo", ""}, {"result", 1}, {"taskallinfo", all}}, "record"},
      // The 224-byte record of an older layout.
      {"taskallinfo, older size", taskallinfo,
       XPCDict{{"reply_taskallinfo", ""}, {"result", 1}, {"taskallinfo", bytes(224)}}, "none",
       {"Invalid data size: 224"}},
      {"rusage", rusage, XPCDict{{"reply_rusage", ""}, {"result", 1}, {"rusage", usage}}, "record"},
      {"negative pids ask nothing", negative_pids, XPCDict{}, "nonenonenonenonenone"},
      // "tasklist" is used whole or not at all: one malformed entry could shift every row after it.
      {"tasklist", tasklist, tasks({7, 9}, {all, all}, {usage, XPCData{}}, {"a", "b"}, {100, 200}),
       "7:a:record:record:100 9:b:record:-:200 "},
      {"tasklist refused", tasklist, XPCDict{{"reply_tasklist", "tasklist"}, {"result", 1 + 22}, {"error", "too many"}},
       "", {"tasklist failed: too many."}},
      {"tasklist, no marker", tasklist, XPCDict{{"result", 1}}, ""},
      {"tasklist, a missing array", tasklist, tasks_without_times, "", {"tasklist reply malformed."}},
      {"tasklist, lengths differ", tasklist, tasks({7, 9}, {all}, {usage, usage}, {"a", "b"}, {1, 2}), "",
       {"tasklist reply malformed."}},
      {"tasklist, older record", tasklist, tasks({7}, {bytes(224)}, {usage}, {"a"}, {1}), "",
       {"tasklist reply malformed."}},
      {"tasklist, pid as text", tasklist, tasks({"7"}, {all}, {usage}, {"a"}, {1}), "", {"tasklist reply malformed."}},
      {"tasklist, name as integer", tasklist, tasks({7}, {all}, {usage}, {7}, {1}), "",
       {"tasklist reply malformed."}},
      // "pidfiles": descriptor -> path; a null path is skipped, a later duplicate wins.
      {"pidfiles", pidfiles, files({0, 1, 5}, {"/dev/null", "/tmp/a", "socket:[12]"}),
       "0=/dev/null 1=/tmp/a 5=socket:[12] "},
      {"pidfiles, null skipped", pidfiles, files({3, 4, 3}, {"/first", XPCValue(), "/second"}), "3=/second "},
      {"pidfiles, sizes differ", pidfiles, files({0, 1, 2}, {"/a", "/b"}), "none",
       {"pidfiles arrays are different sizes"}},
      {"pidfiles, no paths", pidfiles, XPCDict{{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{0}}}, "none",
       {"pidfiles error"}},
      {"pidfiles, no fds", pidfiles, XPCDict{{"reply_pidfiles", ""}, {"result", 1}, {"pidfiles", XPCArray{"/a"}}},
       "none", {"pidfiles error"}},
      {"pidfiles, no marker", pidfiles, XPCDict{{"result", 1}, {"pidfds", XPCArray{0}}, {"pidfiles", XPCArray{"/a"}}},
       "none"},
      {"pidfiles, failure status", pidfiles, XPCDict{{"reply_pidfiles", ""}, {"result", 2}}, "none"},
      {"pidfiles, none open is no answer", pidfiles, files({}, {}), "none"},
      // "powermetrics": the pid (and descriptor) only when "result" is exactly 1.
      {"powermetrics", powermetrics, XPCDict{{"result", 1}, {"pid", 4321}}, "status 0 pid 4321"},
      {"powermetrics failed", powermetrics, XPCDict{{"result", 3}, {"pid", 4321}}, "status 2 pid -1"},
      {"powermetrics missing", powermetrics, XPCDict{}, "status -1 pid -1"},
      // "energy": every package zone, or none when any reading is malformed.
      {"energy", energy, XPCDict{{"energy", XPCArray{zone("intel-rapl:0", 5, 100), zone("intel-rapl:1", 7, 90)}}},
       "intel-rapl:0=5/100 intel-rapl:1=7/90 "},
      {"energy without RAPL", energy, XPCDict{{"energy", XPCArray{}}}, ""},
      {"energy, daemon could not read", energy, XPCDict{{"energy", XPCArray{}}, {"error", "no"}}, "none"},
      {"energy missing", energy, XPCDict{}, "none"},
      {"energy not a list", energy, XPCDict{{"energy", "5"}}, "none"},
      {"energy negative", energy, XPCDict{{"energy", XPCArray{zone("intel-rapl:0", -5, 100)}}}, "none"},
      {"energy as text", energy, XPCDict{{"energy", XPCArray{zone("intel-rapl:0", "5", 100)}}}, "none"},
      {"energy, range missing", energy, XPCDict{{"energy", XPCArray{zone("intel-rapl:0", 5, "")}}}, "none"},
      {"energy, no zone name", energy, XPCDict{{"energy", XPCArray{zone(1, 5, 100)}}}, "none"},
      {"energy, entry no map", energy, XPCDict{{"energy", XPCArray{XPCValue(5)}}}, "none"},
      {"authorize unreachable", authorize, std::nullopt, "'no answer from the privileged helper'"},
      {"authorize", authorize, XPCDict{{"authorize", "OK"}}, "'OK'"},
      {"deauthorize", deauthorize, XPCDict{}, ""},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Client client;
    client.answer(c.reply);
    LogCapture log;
    EXPECT_EQ(c.op.call(client.pelmora), c.result);
    EXPECT_EQ(log.lines(), c.log);
    EXPECT_EQ(client.wire->requests,
              c.op.request.empty() ? std::vector<XPCDict>{} : std::vector<XPCDict>{c.op.request});
    EXPECT_TRUE(client.wire->one_way.empty());
  }
  Client client;
  client.pelmora.quit();
  EXPECT_EQ(client.wire->one_way, (std::vector<XPCDict>{XPCDict{{"quit", ""}}}));
  EXPECT_TRUE(client.wire->requests.empty());
}

// The descriptor is the caller's own copy: it outlives the reply it came in.
TEST(PelmoraReplies, PowerMetricsHandsOverItsOwnDescriptor) {
  int pipe_fds[2];
  ASSERT_EQ(::pipe(pipe_fds), 0);
  ::close(pipe_fds[1]);
  Client client;
  client.answer(XPCDict{{"result", 1}, {"pid", 4321}, {"fd", XPCValue::descriptor(UniqueFd(pipe_fds[0]))}});
  const auto got = client.pelmora.powerMetrics(1000);
  client.answer(std::nullopt);  // the reply and its descriptor go
  char byte;
  EXPECT_EQ(::read(got.fd.get(), &byte, 1), 0) << "not an open pipe at its end: " << std::strerror(errno);
}

TEST(PelmoraRepliesDeathTest, OutOfRange32BitValuesStopTheProgram) {
  EXPECT_DEATH(checkCpuInfoReply({{"cpuinfo", XPCDict{{"logical_cpu_max", int64_t{1} << 31}}}}, {}), "");
  EXPECT_DEATH(checkCpuInfoReply({{"cpuinfo", XPCDict{{"physical_cpu", int64_t{-1} - (int64_t{1} << 31)}}}}, {}), "");
  EXPECT_DEATH(checkPowerMetricsReply({{"result", 1}, {"pid", int64_t{1} << 40}}), "");
}

TEST(PelmoraLocalReads, ReadOwnProcessWithoutTheHelper) {
  Client client;
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const auto task = client.pelmora.taskInfo(::getpid(), false);
  const auto all = client.pelmora.taskAllInfo(::getpid(), false);
  const auto files = client.pelmora.pidFiles(::getpid(), false);
  ::close(fd);
  EXPECT_TRUE(client.pelmora.rusage(::getpid(), false));
  EXPECT_TRUE(client.wire->requests.empty());
  ASSERT_TRUE(task && all && files);
  EXPECT_GE(task->pti_threadnum, 1);
  EXPECT_EQ(all->pbsd.pbi_pid, static_cast<uint32_t>(::getpid()));
  EXPECT_EQ(files->at(fd), "/dev/null");
}

TEST(PelmoraAuthorisation, EachChangeIsBroadcastOnTheMainQueue) {
  Client client;
  int delivered = 0;
  AddListener("net.tandrel.pelmora.authchanged", "test", [&](const std::string&) { ++delivered; });
  RunLoop::main().runUntilIdle();
  client.pelmora.setAuthorised(true);
  EXPECT_EQ(delivered, 0);  // asynchronous: delivered by the main queue, not the caller
  RunLoop::main().runUntilIdle();
  client.pelmora.setAuthorised(false);
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(delivered, 2);
  RemoveListener("net.tandrel.pelmora.authchanged", "test");
  EXPECT_TRUE(client.wire->requests.empty());  // the client never asks the helper about it
}

// The daemon keeps its grant per client process, and a daemon started anew has none. "authorize"
// goes over a connection of its own (it may wait minutes for a password); after the main transport
// reconnects, a client that holds the authorised flag asks, without any dialog, whether the grant
// still holds before its next request, and drops the flag when it does not.
using Keys = std::vector<std::string>;

// The operation key of each request, in the order sent; a non-interactive "authorize" is "check".
Keys keysOf(const std::vector<XPCDict>& requests) {
  Keys keys;
  for (const XPCDict& r : requests) {
    if (xpcHas(r, "authorize"))
      keys.push_back(xpcInt(r, "interactive") == int64_t{0} ? "check" : "authorize");
    else
      keys.push_back(xpcHas(r, "deauthorize") ? "deauthorize" : "throttle");
  }
  return keys;
}

TEST(PelmoraReauthorise, AsksAgainWithoutADialogOnlyAfterANewConnection) {
  struct Case {
    const char* name;
    bool authorised;  // the user unlocked before the reconnect
    bool reconnect;
    bool still_granted;  // the daemon's answer to the check
    Keys sent;           // on the main connection, over two throttle requests after the reconnect
    bool authorised_after;
    bool deauthorize = false;  // instead of the throttle requests
  };
  const Case cases[] = {
      {"same connection", true, false, true, {"throttle", "throttle"}, true},
      {"new connection, granted", true, true, true, {"check", "throttle", "throttle"}, true},
      {"new connection, refused", true, true, false, {"check", "throttle", "throttle"}, false},
      {"never authorised", false, true, true, {"throttle", "throttle"}, false},
      // Giving up the grant needs none.
      {"deauthorize after a new connection", true, true, true, {"deauthorize"}, true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto wire = std::make_shared<test::FakeWire>();
    auto auth_wire = std::make_shared<test::FakeWire>();
    wire->connection = 1;
    wire->answer = [&](const XPCDict& request) -> std::optional<XPCDict> {
      if (!xpcHas(request, "authorize")) return XPCDict{{"throttle", "OK"}};
      return XPCDict{{"authorize", c.still_granted ? "OK" : "not authorised: no grant held"}};
    };
    auth_wire->answer = [](const XPCDict&) { return XPCDict{{"authorize", "OK"}}; };
    Pelmora client(std::make_unique<test::FakeTransport>(wire), std::make_unique<test::FakeTransport>(auth_wire));
    if (c.authorised) {
      ASSERT_TRUE(client.requestAuthorization(nullptr));
      ASSERT_TRUE(test::eventually([&] { return !client.authorizationPending(); }));
      ASSERT_TRUE(client.authorised());
    }
    if (c.reconnect) wire->connection = 2;
    if (c.deauthorize) {
      client.deauthorize();
    } else {
      client.setThrottle(true);
      client.setThrottle(false);
    }
    EXPECT_EQ(keysOf(wire->requests), c.sent);
    EXPECT_EQ(keysOf(auth_wire->requests), c.authorised ? Keys{"authorize"} : Keys{});
    EXPECT_EQ(client.authorised(), c.authorised_after);
  }
  RunLoop::main().runUntilIdle();  // deliver the authchanged broadcasts
}

}  // namespace
}  // namespace pelmora
