// The real daemon, started as a child on a temporary socket and driven over the wire.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <climits>
#include <csignal>
#include <cstring>

#include "helper/daemon_harness.h"
#include "helper/helper_daemon.h"
#include "support/kernel_records.h"
#include "support/proc_task_reader.h"
#include "support/xpc_codec.h"

namespace pelmora {
namespace {

using namespace pelmora::testing;

size_t dataSize(const XPCDict& reply, const char* key) {
  const XPCData* data = xpcData(reply, key);
  return data ? data->size() : 0;
}

XPCDict signal(const XPCValue& pid, const XPCValue& number) {
  return with({{"kill", "kill"}, {"signal", number}}, "pid", pid);
}
XPCDict renice(const XPCValue& pid, int64_t priority) {
  return with({{"setpriority", ""}, {"priority", priority}}, "pid", pid);
}
XPCDict query(const char* name, const XPCValue& pid) { return with({{name, name}}, "pid", pid); }
// An install of the boot-time apply from sources no installer accepts.
XPCDict bootInstall(const XPCValue& settings, const XPCValue& script = "/x") {
  return {{"applyboot", ""}, {"install", "install"}, {"script", script},
          {"pelmora", "/y"}, {"plist", "/z"},        {"settings", settings}};
}

pid_t someKernelThread() {
  for (const std::string& name : SysRoot::listDir("/proc")) {
    auto pid = parseInt64(name);
    if (!pid || *pid <= 2) continue;
    auto stat = ProcTaskReader().readStat(static_cast<pid_t>(*pid));
    if (stat && (stat->flags & kPFKthread)) return static_cast<pid_t>(*pid);
  }
  return 0;
}

// What root and an ordinary user are answered, and every refusal of a protected target or a bad
// field, each one row. Reading is never refused for who the target is (init, kernel threads and
// the daemon are in every process table); only the owner's rules apply to resource usage.
TEST_F(HelperDaemonTest, EachCallerIsAnsweredOrRefusedByItsRights) {
  const auto root_process = sleepingChild();
  const auto own_process = sleepingChild(65534);
  const int64_t root_pid = root_process.pid(), own_pid = own_process.pid(), daemon = s_daemon->pid();
  const int64_t kthread = someKernelThread();
  ASSERT_NE(kthread, 0);
  std::vector<Expected> as_root = {
      {"authorize", {{"authorize", ""}}, "authorize", "OK"},
      {"an unknown request", {{"frobnicate", ""}}, "error", ""},
      {"a mistyped field", query("taskinfo", "twelve"), "result", 1 + EINVAL},
      {"boot settings", bootInstall("-n 4"), "applyboot", "malformed settings text"},
      {"a signal not on the list", signal(root_pid, SIGSEGV), "kill", EINVAL},
      {"signal 0", signal(root_pid, 0), "kill", EINVAL},
      {"signal as text", signal(root_pid, "19"), "kill", EINVAL},
      {"boot mode", {{"applyboot", ""}, {"install", "reinstall"}}, "applyboot", "\"install\" must be install or"},
      {"boot mode as a number", {{"applyboot", ""}, {"install", 1}}, "applyboot", "\"install\" must be a string"},
      {"boot script as data", bootInstall("-t on -n 2", XPCData{1}), "applyboot", "\"script\" must be a string"},
      {"boot settings as a number", bootInstall(5), "applyboot", "\"settings\" must be a string"},
  };
  const struct {
    const char* name;
    XPCValue pid;
    int64_t error;
    const char* renice;
  } targets[] = {
      {"pid 0", 0, EPERM, "refused"},
      {"negative pid", -1, EPERM, "refused"},
      {"init", 1, EPERM, "refused"},
      {"kthreadd", 2, EPERM, "refused"},
      {"a kernel thread", kthread, EPERM, "refused"},
      {"the daemon", daemon, EPERM, "refused"},
      {"pid beyond 32 bits", int64_t{1} << 33, EINVAL, "\"pid\""},
      {"pid as text", std::to_string(root_pid), EINVAL, "\"pid\""},
      {"pid as data", XPCData{1, 2}, EINVAL, "\"pid\""},
      {"missing pid", XPCValue(), EINVAL, "missing \"pid\""},
  };
  for (const auto& t : targets) {
    as_root.push_back({t.name, signal(t.pid, SIGSTOP), "kill", t.error});
    as_root.push_back({t.name, renice(t.pid, 19), "setpriority", t.renice});
  }
  const struct {
    const char* name;
    XPCValue pids;
  } bad_lists[] = {
      {"missing", XPCValue()},
      {"an integer", own_pid},
      {"text", std::to_string(own_pid)},
      {"data", XPCData{1, 2}},
      {"an empty list", XPCArray{}},
      {"one entry too many", XPCArray(kTaskListMaxPids + 1, XPCValue(own_pid))},
      {"an entry as text", XPCArray{own_pid, XPCValue(std::to_string(own_pid))}},
      {"an entry that is a list", XPCArray{own_pid, XPCArray{own_pid}}},
      {"pid 0", XPCArray{own_pid, 0}},
      {"a negative pid", XPCArray{-1, own_pid}},
      {"a pid beyond 32 bits", XPCArray{own_pid, int64_t{1} << 33}},
  };
  for (const auto& l : bad_lists)
    as_root.push_back({l.name, with({{"tasklist", "tasklist"}}, "pids", l.pids), "result", 1 + EINVAL});
  for (const XPCValue& interval : {XPCValue(0), XPCValue(-500), XPCValue(10001), XPCValue("500"), XPCValue()}) {
    as_root.push_back({"sample interval", with({{"powermetrics", "powermetrics"}}, "sample_interval", interval),
                       "result", 1 + EINVAL});
  }
  std::vector<Expected> as_nobody = {
      {"cpus", {{"setcpucount", ""}, {"count", 1}, {"hyper", 1}, {"prefer_phys", 0}}, "setcpu", "not authorised"},
      {"throttle", {{"throttle", ""}, {"enable", 0}}, "throttle", "not authorised"},
      {"applyboot", {{"applyboot", ""}, {"install", "uninstall"}}, "applyboot", "not authorised"},
      {"nettop", {{"nettop", "nettop"}}, "error", "not authorised"},
      {"authorize", {{"authorize", ""}}, "authorize", "not authorised"},
      {"renice another user's", renice(root_pid, 10), "setpriority", "not authorised"},
      {"lower an own nice value", renice(own_pid, -5), "setpriority", "not authorised"},
      {"stop another user's", signal(root_pid, SIGSTOP), "kill", EPERM},
      {"pidfiles of another user's", query("pidfiles", root_pid), "result", 1 + EPERM},
      {"stop own", signal(own_pid, SIGSTOP), "kill", 0},
      {"continue own", signal(own_pid, SIGCONT), "kill", 0},
      {"raise an own nice value", renice(own_pid, 10), "setpriority", "OK"},
      {"rusage of own", query("rusage", own_pid), "result", 1},
  };
  const struct {
    const char* name;
    int64_t pid;
    const char* pidname;
  } everyone[] = {{"another user's", root_pid, ""},
                  {"init", 1, ""},
                  {"kthreadd", 2, "kthreadd"},
                  {"a kernel thread", kthread, ""},
                  {"the daemon", daemon, "pelmora-helper"}};
  for (const auto& p : everyone) {
    as_nobody.push_back({p.name, query("taskinfo", p.pid), "result", 1});
    as_nobody.push_back({p.name, query("taskallinfo", p.pid), "result", 1});
    as_nobody.push_back({p.name, query("pidname", p.pid), "reply_pidname", p.pidname});
    as_nobody.push_back({p.name, query("rusage", p.pid), "result", 1 + EPERM});
    as_root.push_back({p.name, query("rusage", p.pid), "result", 1});
  }
  EXPECT_EQ(mismatches(s_daemon->socket(), as_root), "");
  const std::string socket = s_daemon->socket();
  EXPECT_EQ(asNobody([&] { return mismatches(socket, as_nobody); }), "");
  EXPECT_EQ(procState(root_process.pid()), 'S');
  // Continued, it runs for a moment before it sleeps again; left stopped, it would stay at 'T'.
  EXPECT_TRUE(eventually([&] { return procState(own_process.pid()) == 'S'; }));
  EXPECT_NE(procState(s_daemon->pid()), 'T');
  EXPECT_EQ(readTrimmed(s_daemon->sys() / "devices/system/cpu/cpu7/online"), "1");
}

// What only the records themselves show: their sizes on the wire, the open-file lists; stopped and
// continued over one connection.
TEST_F(HelperDaemonTest, RecordsCrossTheWireWhole) {
  const auto sleeper = sleepingChild();
  const int64_t pid = sleeper.pid();
  for (const auto& [name, bytes] :
       {std::pair{"taskinfo", size_t{96}}, std::pair{"taskallinfo", size_t{232}}, std::pair{"rusage", size_t{232}}}) {
    const XPCDict r = ask(query(name, pid));
    EXPECT_TRUE(xpcString(r, std::string("reply_") + name)) << name;
    ASSERT_EQ(dataSize(r, name), bytes) << name;
  }
  proc_taskallinfo info;
  std::memcpy(&info, xpcData(ask(query("taskallinfo", pid)), "taskallinfo")->data(), sizeof info);
  EXPECT_EQ(info.pbsd.pbi_pid, static_cast<uint32_t>(pid));
  EXPECT_EQ(info.pbsd.pbi_ppid, static_cast<uint32_t>(::getpid()));
  const XPCDict files = ask(query("pidfiles", pid));
  const XPCArray* fds = xpcArray(files, "pidfds");
  const XPCArray* paths = xpcArray(files, "pidfiles");
  ASSERT_TRUE(fds && paths);
  EXPECT_EQ(fds->size(), paths->size());
  EXPECT_FALSE(fds->empty());
  SocketTransport transport(s_daemon->socket());
  for (const auto& [number, state] : {std::pair{SIGSTOP, 'T'}, std::pair{SIGCONT, 'S'}}) {
    EXPECT_EQ(xpcInt(transport.exchange(signal(pid, number)).value_or(XPCDict{}), "kill"), 0) << state;
    EXPECT_TRUE(eventually([&] { return procState(sleeper.pid()) == state; })) << state;
  }
}

// A bad frame, or "quit", ends its own connection without a reply; the daemon serves on. The
// decoder's own tests hold every malformed body; these are one of each way a stream goes wrong.
TEST_F(HelperDaemonTest, BadFramesAndQuitCloseOnlyTheirConnection) {
  const std::vector<uint8_t> good = xpcEncode({{"requestcpuinfo", ""}})->frame;
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    bool then_hang_up;  // a truncated frame only ends when the client stops writing
  } cases[] = {
      {"truncated", std::vector<uint8_t>(good.begin(), good.end() - 4), true},
      {"oversized", {0x01, 0x00, 0x20, 0x00}, false},
      {"garbage", {3, 0, 0, 0, 0xFF, 0xFE, 0xFD}, false},
      {"quit", xpcEncode({{"quit", ""}})->frame, false},
  };
  SocketTransport bystander(s_daemon->socket());
  ASSERT_TRUE(bystander.exchange({{"requestcpuinfo", ""}}));
  for (const auto& c : cases) {
    EXPECT_TRUE(closedWithoutReply(s_daemon->socket(), c.bytes, c.then_hang_up)) << c.name;
    EXPECT_TRUE(bystander.exchange({{"requestcpuinfo", ""}})) << c.name;
  }
}

TEST_F(HelperDaemonTest, OneUserCannotTakeEveryConnection) {
  const std::string socket = s_daemon->socket();
  auto served = [&] { return SocketTransport(socket).exchange({{"requestcpuinfo", ""}}).has_value(); };
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    // As nobody, take every connection one user may have but the last; take the last place, close
    // it and take it again 1600 times (a connection its client closed no longer counts); then keep
    // them all.
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
    std::vector<std::unique_ptr<SocketTransport>> held;
    for (size_t i = 0; i < HelperDaemon::kMaxConnectionsPerUser; ++i) {
      for (int reopened = 0; i + 1 == HelperDaemon::kMaxConnectionsPerUser && reopened < 1600; ++reopened)
        if (!served()) ::_exit(3);
      held.push_back(std::make_unique<SocketTransport>(socket));
      if (!held.back()->exchange({{"requestcpuinfo", ""}})) ::_exit(2);
    }
    [[maybe_unused]] auto n = ::write(ready[1], "x", 1);
    for (;;) ::pause();
  }
  ::close(ready[1]);
  char byte = 0;
  const bool holding = ::read(ready[0], &byte, 1) == 1;
  ::close(ready[0]);
  EXPECT_TRUE(holding) << "a place freed by its client was refused, or the first connections were";
  if (holding) {
    EXPECT_EQ(asNobody([&] { return served() ? "one more connection was served" : ""; }), "");
    EXPECT_TRUE(served()) << "another user is served meanwhile";
  }
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  EXPECT_EQ(asNobody([&] { return eventually(served) ? "" : "nobody is still refused after its connections closed"; }),
            "");
}

}  // namespace
}  // namespace pelmora
