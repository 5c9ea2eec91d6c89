// Pelmora's operations over a fake transport: the request each one sends, and what it makes of the
// reply (or of no reply at all).
#include "helper_link/pelmora.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "common/temp_dir.h"
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
  void answer(XPCDict reply) {
    wire->answer = [reply](const XPCDict&) { return reply; };
  }
  void unreachable() {
    wire->answer = [](const XPCDict&) { return std::optional<XPCDict>(); };
  }
};

// The request each operation sends (none for a record of a negative pid), and "quit" one-way.
TEST(PelmoraRequests, EachOperationSendsItsKeys) {
  struct Case {
    const char* name;
    std::function<void(Pelmora&)> call;
    XPCDict request;  // empty: nothing is sent
    bool one_way = false;
  };
  const std::vector<Case> cases = {
      {"cpuinfo", [](Pelmora& p) { p.requestCpuInfo(); }, {{"requestcpuinfo", ""}}},
      {"isrunning", [](Pelmora& p) { p.isRunning(3, false); }, {{"isrunning", ""}, {"cpu", 3}}},
      {"setcpucount",
       [](Pelmora& p) { p.setCpuCount(6, true, false); },
       {{"setcpucount", ""}, {"count", 6}, {"hyper", 1}, {"prefer_phys", 0}}},
      {"setcpucount prefer",
       [](Pelmora& p) { p.setCpuCount(2, false, true); },
       {{"setcpucount", ""}, {"count", 2}, {"hyper", 0}, {"prefer_phys", 1}}},
      {"throttle", [](Pelmora& p) { p.setThrottle(false); }, {{"throttle", ""}, {"enable", 0}}},
      {"setpriority",
       [](Pelmora& p) { p.setPriority(1234, -5); },
       {{"setpriority", ""}, {"pid", 1234}, {"priority", -5}}},
      {"kill", [](Pelmora& p) { p.sendSignal(1234, SIGSTOP); }, {{"kill", "kill"}, {"pid", 1234}, {"signal", SIGSTOP}}},
      // Pids travel sign-extended.
      {"pidname", [](Pelmora& p) { p.pidName(-7, true); }, {{"pidname", "pidname"}, {"pid", int64_t{-7}}}},
      {"taskinfo", [](Pelmora& p) { p.taskInfo(42, true); }, {{"taskinfo", "taskinfo"}, {"pid", 42}}},
      {"taskallinfo", [](Pelmora& p) { p.taskAllInfo(42, true); }, {{"taskallinfo", "taskallinfo"}, {"pid", 42}}},
      {"rusage", [](Pelmora& p) { p.rusage(42, true); }, {{"rusage", "rusage"}, {"pid", 42}}},
      {"pidfiles", [](Pelmora& p) { p.pidFiles(42, true); }, {{"pidfiles", "pidfiles"}, {"pid", 42}}},
      {"powermetrics",
       [](Pelmora& p) { p.powerMetrics(1000); },
       {{"powermetrics", "powermetrics"}, {"sample_interval", 1000}}},
      {"authorize", [](Pelmora& p) { p.authorize(); }, {{"authorize", ""}, {"interactive", 1}}},
      {"deauthorize", [](Pelmora& p) { p.deauthorize(); }, {{"deauthorize", ""}}},
      {"quit", [](Pelmora& p) { p.quit(); }, {{"quit", ""}}, true},
      {"records of negative pids",
       [](Pelmora& p) {
         EXPECT_FALSE(p.taskInfo(-1, true) || p.taskAllInfo(-1, true) || p.rusage(-3, true) || p.taskInfo(-1, false));
       },
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Client client;
    c.call(client.pelmora);
    const auto& sent = c.one_way ? client.wire->one_way : client.wire->requests;
    EXPECT_EQ(sent, c.request.empty() ? std::vector<XPCDict>{} : std::vector<XPCDict>{c.request});
    EXPECT_TRUE((c.one_way ? client.wire->requests : client.wire->one_way).empty());
  }
}

TEST(PelmoraReplies, CommandsReadTheirOwnStatusKeys) {
  Client client;
  LogCapture log;
  client.answer({{"setcpu", "OK"}, {"throttle", "OK"}, {"setpriority", "no"}});
  EXPECT_TRUE(client.pelmora.setCpuCount(4, true, false));
  EXPECT_TRUE(client.pelmora.setThrottle(true));
  EXPECT_FALSE(client.pelmora.setPriority(100, 5));
  client.answer({{"setcpucount", "OK"}, {"setpriority", "OK"}});  // "setcpucount" is not where its status goes
  EXPECT_FALSE(client.pelmora.setCpuCount(4, true, false));
  EXPECT_TRUE(client.pelmora.setPriority(100, 5));
  EXPECT_EQ(log.lines(), (Lines{"Process throttling: enabled", "setcpucount response: no."}));
}

TEST(PelmoraReplies, NoReplyLeavesEveryFailureValue) {
  Client client;
  client.unreachable();
  const cpu_numbers_t current{4, 2, 4, 2};
  EXPECT_EQ(client.pelmora.requestCpuInfo(current), current);
  EXPECT_TRUE(client.pelmora.isRunning(1, true));
  EXPECT_FALSE(client.pelmora.isRunning(1, false));
  EXPECT_FALSE(client.pelmora.setCpuCount(1, true, false));
  EXPECT_EQ(client.pelmora.sendSignal(100, SIGCONT), -1);
  EXPECT_FALSE(client.pelmora.pidName(100, true));
  EXPECT_FALSE(client.pelmora.taskInfo(100, true));
  EXPECT_FALSE(client.pelmora.pidFiles(100, true));
  const auto metrics = client.pelmora.powerMetrics(1000);
  EXPECT_EQ(metrics.status, -1);
  EXPECT_EQ(metrics.pid, -1);
  EXPECT_FALSE(metrics.fd.valid());
  EXPECT_NE(client.pelmora.authorize(), "OK");
}

// An empty open-file map is no answer.
TEST(PelmoraReplies, AnEmptyOpenFileMapIsNoAnswer) {
  Client client;
  client.answer({{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{}}, {"pidfiles", XPCArray{}}});
  EXPECT_FALSE(client.pelmora.pidFiles(5, true));
  client.answer({{"reply_pidfiles", ""}, {"result", 1}, {"pidfds", XPCArray{7}}, {"pidfiles", XPCArray{"/x"}}});
  EXPECT_EQ(client.pelmora.pidFiles(5, true), (std::map<int, std::string>{{7, "/x"}}));
}

TEST(PelmoraLocalReads, ReadOwnProcessWithoutTheHelper) {
  Client client;
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const auto task = client.pelmora.taskInfo(::getpid(), false);
  const auto all = client.pelmora.taskAllInfo(::getpid(), false);
  const auto usage = client.pelmora.rusage(::getpid(), false);
  const auto files = client.pelmora.pidFiles(::getpid(), false);
  ::close(fd);
  EXPECT_TRUE(client.wire->requests.empty());
  ASSERT_TRUE(task);
  EXPECT_GE(task->pti_threadnum, 1);
  ASSERT_TRUE(all);
  EXPECT_EQ(all->pbsd.pbi_pid, static_cast<uint32_t>(::getpid()));
  EXPECT_TRUE(usage);
  ASSERT_TRUE(files);
  ASSERT_TRUE(files->count(fd));
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
  EXPECT_EQ(delivered, 1);
  client.pelmora.setAuthorised(false);
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(delivered, 2);
  RemoveListener("net.tandrel.pelmora.authchanged", "test");
  EXPECT_TRUE(client.wire->requests.empty());  // the client never asks the helper about it
}

// A resources folder with the three boot files and an install root.
struct BootSetup {
  test::TempDir tree;
  BootLocations where;
  BootSetup() {
    tree.write("res/applyboot.sh", "#!/bin/sh\n");
    tree.write("res/pelmora", "tool");
    tree.write("res/net.tandrel.bootpelmora.service", "[Unit]\n");
    where.resources_dir = tree / "res";
    where.support_dir = tree / "root/var/lib/pelmora";
    where.unit_file = tree / "root/etc/systemd/system/net.tandrel.bootpelmora.service";
  }
};

TEST(PelmoraApplyBoot, StopsSilentlyWhenThereIsNothingToDo) {
  struct Case {
    const char* name;
    bool install;
    std::function<void(BootSetup&)> prepare;
    bool with_controls;
    bool sent;
  };
  const std::vector<Case> cases = {
      {"uninstall, nothing installed", false, [](BootSetup&) {}, true, false},
      {"uninstall, folder present", false,
       [](BootSetup& s) { std::filesystem::create_directories(s.where.support_dir); }, true, true},
      {"uninstall, unit present", false,
       [](BootSetup& s) { s.tree.write("root/etc/systemd/system/net.tandrel.bootpelmora.service", ""); }, true,
       true},
      {"install, missing script", true,
       [](BootSetup& s) { std::filesystem::remove(s.where.resources_dir / "applyboot.sh"); }, true, false},
      {"install, missing tool", true,
       [](BootSetup& s) { std::filesystem::remove(s.where.resources_dir / "pelmora"); }, true, false},
      {"install, no settings window", true, [](BootSetup&) {}, false, false},
      {"install", true, [](BootSetup&) {}, true, true},
  };
  for (const auto& c : cases) {
    BootSetup setup;
    c.prepare(setup);
    Client client;
    LogCapture log;
    const std::optional<BootControls> controls = c.with_controls ? std::optional(BootControls{}) : std::nullopt;
    client.pelmora.applyBoot(c.install, controls, setup.where);
    EXPECT_EQ(client.wire->requests.size(), c.sent ? 1u : 0u) << c.name;
    if (c.sent) {
      EXPECT_EQ(*xpcString(client.wire->requests[0], "install"), c.install ? "install" : "uninstall");
    }
    EXPECT_TRUE(log.lines().empty()) << c.name;  // the empty reply is no answer: nothing logged
  }
}

}  // namespace
}  // namespace pelmora
