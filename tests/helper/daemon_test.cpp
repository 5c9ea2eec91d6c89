// The real daemon, started as a child on a temporary socket and driven over the wire.
#include <gtest/gtest.h>
#include <sys/socket.h>

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

// What only the daemon's own replies show: record sizes on the wire, the open-file lists, root's
// authorisation and the refusals of what it cannot serve. Stopped and continued over one connection.
TEST_F(HelperDaemonTest, EveryRequestIsAnsweredInItsShape) {
  const auto sleeper = sleepingChild();
  const int64_t pid = sleeper.pid();
  for (const auto& [query, bytes] :
       {std::pair{"taskinfo", size_t{96}}, std::pair{"taskallinfo", size_t{232}}, std::pair{"rusage", size_t{232}}}) {
    SCOPED_TRACE(query);
    const XPCDict r = ask({{query, query}, {"pid", pid}});
    EXPECT_TRUE(xpcString(r, std::string("reply_") + query));
    EXPECT_EQ(xpcInt(r, "result"), 1);
    ASSERT_EQ(dataSize(r, query), bytes);
  }
  proc_taskallinfo info;
  std::memcpy(&info, xpcData(ask({{"taskallinfo", "taskallinfo"}, {"pid", pid}}), "taskallinfo")->data(), sizeof info);
  EXPECT_EQ(info.pbsd.pbi_pid, static_cast<uint32_t>(pid));
  EXPECT_EQ(info.pbsd.pbi_ppid, static_cast<uint32_t>(::getpid()));
  const XPCDict files = ask({{"pidfiles", "pidfiles"}, {"pid", pid}});
  EXPECT_EQ(xpcInt(files, "result"), 1);
  const XPCArray* fds = xpcArray(files, "pidfds");
  const XPCArray* paths = xpcArray(files, "pidfiles");
  ASSERT_TRUE(xpcString(files, "reply_pidfiles") && fds && paths);
  EXPECT_EQ(fds->size(), paths->size());
  EXPECT_FALSE(fds->empty());
  EXPECT_EQ(*xpcString(ask({{"authorize", ""}}), "authorize"), "OK");
  EXPECT_TRUE(xpcString(ask({{"frobnicate", ""}}), "error"));
  const XPCDict bad_boot = {{"applyboot", ""}, {"install", "install"}, {"script", "/x"},
                            {"pelmora", "/y"}, {"plist", "/z"},        {"settings", "-n 4"}};
  EXPECT_EQ(*xpcString(ask(bad_boot), "applyboot"), "malformed settings text");
  SocketTransport transport(s_daemon->socket());
  for (const auto& [signal, state] : {std::pair{SIGSTOP, 'T'}, std::pair{SIGCONT, 'S'}}) {
    const auto reply = transport.exchange({{"kill", "kill"}, {"pid", pid}, {"signal", signal}});
    EXPECT_EQ(xpcInt(reply.value_or(XPCDict{}), "kill"), 0) << state;
    EXPECT_TRUE(eventually([&] { return procState(sleeper.pid()) == state; })) << state;
  }
}

TEST_F(HelperDaemonTest, OrdinaryUsersAreRefusedWhatTheyLack) {
  const auto root_process = sleepingChild();
  const auto own_process = sleepingChild(65534);
  const int64_t root_pid = root_process.pid(), own_pid = own_process.pid();
  const std::string socket = s_daemon->socket();
  const std::string failures = asNobody([&]() -> std::string {
    SocketTransport transport(socket);
    std::string out;
    auto text = [&](const XPCDict& request, const char* key) {
      auto reply = transport.exchange(request);
      const std::string* s = reply ? xpcString(*reply, key) : nullptr;
      return s ? *s : std::string("<none>");
    };
    auto integer = [&](const XPCDict& request, const char* key) {
      auto reply = transport.exchange(request);
      return reply ? xpcInt(*reply, key).value_or(-999) : -999;
    };
    auto expectPrefix = [&](const std::string& got, const char* prefix, const char* what) {
      if (!startsWith(got, prefix)) out += std::string(what) + ": " + got + "\n";
    };
    auto expectEq = [&](int64_t got, int64_t want, const char* what) {
      if (got != want) out += std::string(what) + ": " + std::to_string(got) + "\n";
    };
    expectPrefix(text({{"setcpucount", ""}, {"count", 1}, {"hyper", 1}, {"prefer_phys", 0}}, "setcpu"),
                 "not authorised", "setcpucount");
    expectPrefix(text({{"throttle", ""}, {"enable", 0}}, "throttle"), "not authorised", "throttle");
    expectPrefix(text({{"applyboot", ""}, {"install", "uninstall"}}, "applyboot"), "not authorised", "applyboot");
    expectPrefix(text({{"setpriority", ""}, {"pid", root_pid}, {"priority", 10}}, "setpriority"), "not authorised",
                 "renice another user's process");
    expectPrefix(text({{"setpriority", ""}, {"pid", own_pid}, {"priority", -5}}, "setpriority"), "not authorised",
                 "lower the nice value of an own process");
    expectEq(integer({{"kill", "kill"}, {"pid", root_pid}, {"signal", SIGSTOP}}, "kill"), EPERM, "stop another user's");
    expectEq(integer({{"rusage", "rusage"}, {"pid", root_pid}}, "result"), 1 + EPERM, "rusage of another user's");
    expectEq(integer({{"pidfiles", "pidfiles"}, {"pid", root_pid}}, "result"), 1 + EPERM, "pidfiles of another user's");
    if (text({{"authorize", ""}}, "authorize") == "OK") out += "authorize: granted to nobody\n";
    // What an ordinary user may do.
    expectEq(integer({{"taskinfo", "taskinfo"}, {"pid", root_pid}}, "result"), 1, "taskinfo of another user's");
    expectEq(integer({{"kill", "kill"}, {"pid", own_pid}, {"signal", SIGSTOP}}, "kill"), 0, "stop own");
    expectEq(integer({{"kill", "kill"}, {"pid", own_pid}, {"signal", SIGCONT}}, "kill"), 0, "continue own");
    expectPrefix(text({{"setpriority", ""}, {"pid", own_pid}, {"priority", 10}}, "setpriority"), "OK", "raise own nice");
    expectEq(integer({{"rusage", "rusage"}, {"pid", own_pid}}, "result"), 1, "rusage of own");
    return out;
  });
  EXPECT_EQ(failures, "");
  EXPECT_EQ(procState(root_process.pid()), 'S');
  EXPECT_EQ(readTrimmed(s_daemon->sys() / "devices/system/cpu/cpu7/online"), "1");
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

TEST_F(HelperDaemonTest, ProtectedTargetsAndBadFieldsAreRefused) {
  const auto sleeper = sleepingChild();
  const pid_t kthread = someKernelThread();
  const struct {
    const char* name;
    XPCValue pid;
    XPCValue signal;
  } cases[] = {
      {"pid 0", 0, SIGSTOP},
      {"negative pid", -1, SIGSTOP},
      {"init", 1, SIGSTOP},
      {"kthreadd", 2, SIGSTOP},
      {"a kernel thread", kthread ? kthread : 2, SIGSTOP},
      {"the daemon", s_daemon->pid(), SIGSTOP},
      {"pid beyond 32 bits", int64_t{1} << 33, SIGSTOP},
      {"pid as text", std::to_string(sleeper.pid()), SIGSTOP},
      {"pid as data", XPCData{1, 2}, SIGSTOP},
      {"missing pid", XPCValue(), SIGSTOP},
      {"a signal not on the list", sleeper.pid(), SIGSEGV},
      {"signal 0", sleeper.pid(), 0},
      {"signal as text", sleeper.pid(), "19"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    XPCDict request{{"kill", "kill"}, {"signal", c.signal}};
    if (!c.pid.isNull()) request["pid"] = c.pid;
    XPCDict reply = ask(request);
    EXPECT_NE(xpcInt(reply, "kill").value_or(0), 0);
    EXPECT_TRUE(xpcString(reply, "error"));
    // The same targets cannot be reniced either.
    XPCDict renice{{"setpriority", ""}, {"priority", 19}};
    if (!c.pid.isNull()) renice["pid"] = c.pid;
    if (c.signal == XPCValue(SIGSTOP)) {
      EXPECT_NE(*xpcString(ask(renice), "setpriority"), "OK");
    }
  }
  EXPECT_EQ(procState(sleeper.pid()), 'S');
  EXPECT_NE(procState(s_daemon->pid()), 'T');
}

// Reading is never refused for who the target is: init, kernel threads and the daemon itself are in
// every process table. Only the owner's rules apply ("rusage" of root's processes needs rights).
TEST_F(HelperDaemonTest, ReadOnlyQueriesAnswerForEveryProcess) {
  const pid_t kthread = someKernelThread();
  ASSERT_NE(kthread, 0);
  const struct {
    const char* name;
    pid_t pid;
    const char* pidname;
  } targets[] = {
      {"init", 1, nullptr}, {"kthreadd", 2, "kthreadd"}, {"a kernel thread", kthread, nullptr},
      {"the daemon", s_daemon->pid(), "pelmora-helper"},
  };
  const std::string socket = s_daemon->socket();
  const std::string failures = asNobody([&]() -> std::string {
    SocketTransport transport(socket);
    std::string out;
    for (const auto& t : targets) {
      for (const char* query : {"taskinfo", "taskallinfo"}) {
        auto reply = transport.exchange({{query, query}, {"pid", int64_t{t.pid}}});
        const auto result = reply ? xpcInt(*reply, "result").value_or(-1) : -1;
        if (result != 1) out += std::string(t.name) + " " + query + ": " + std::to_string(result) + "\n";
      }
      auto reply = transport.exchange({{"pidname", "pidname"}, {"pid", int64_t{t.pid}}});
      const std::string* name = reply ? xpcString(*reply, "reply_pidname") : nullptr;
      if (!name || name->empty() || (t.pidname && *name != t.pidname))
        out += std::string(t.name) + " pidname: " + (name ? *name : "<none>") + "\n";
      auto rusage = transport.exchange({{"rusage", "rusage"}, {"pid", int64_t{t.pid}}});
      if (!rusage || xpcInt(*rusage, "result") != 1 + EPERM) out += std::string(t.name) + " rusage answered\n";
    }
    return out;
  });
  EXPECT_EQ(failures, "");
  // An authorised connection (root) reads every counter of them.
  for (const auto& t : targets) EXPECT_EQ(xpcInt(ask({{"rusage", "rusage"}, {"pid", int64_t{t.pid}}}), "result"), 1) << t.name;
}

TEST_F(HelperDaemonTest, ProcessesStoppedByALostClientRunAgain) {
  const struct {
    const char* name;
    bool send_quit;
  } cases[] = {{"client dies", false}, {"client quits", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto sleeper = sleepingChild();
    const pid_t target = sleeper.pid();
    const pid_t client = ::fork();
    if (client == 0) {
      SocketTransport transport(s_daemon->socket());
      auto reply = transport.exchange({{"kill", "kill"}, {"pid", int64_t{target}}, {"signal", SIGSTOP}});
      if (!reply || xpcInt(*reply, "kill") != 0 || !eventually([&] { return procState(target) == 'T'; })) ::_exit(1);
      if (c.send_quit) transport.sendOneWay({{"quit", ""}});
      ::_exit(0);  // the connection goes with the process; nobody continues the target
    }
    int status = 0;
    ASSERT_EQ(::waitpid(client, &status, 0), client);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(eventually([&] { return procState(target) == 'S'; })) << procState(target);
  }
}

std::vector<uint8_t> framed(std::vector<uint8_t> body) {
  const auto n = static_cast<uint32_t>(body.size());
  std::vector<uint8_t> out(kXPCLengthBytes + body.size());
  for (size_t i = 0; i < kXPCLengthBytes; ++i) out[i] = static_cast<uint8_t>(n >> (8 * i));
  for (size_t i = 0; i < body.size(); ++i) out[kXPCLengthBytes + i] = body[i];
  return out;
}

// A bad frame, or "quit", ends its own connection without a reply; the daemon serves on.
TEST_F(HelperDaemonTest, BadFramesAndQuitCloseOnlyTheirConnection) {
  const std::vector<uint8_t> good = xpcEncode({{"requestcpuinfo", ""}})->frame;
  const auto sleeper = sleepingChild();
  // {"kill": "kill", "signal": SIGSTOP, "pid": -2^64 + pid}, which a wrapping decoder reads as pid.
  const std::string head = std::string("\xA3\x64kill\x64kill\x66signal") + char{SIGSTOP} + "\x63pid\x3B";
  std::vector<uint8_t> below_int64_min(head.begin(), head.end());
  const uint64_t n = ~uint64_t{0} - static_cast<uint64_t>(sleeper.pid());
  for (int shift = 56; shift >= 0; shift -= 8) below_int64_min.push_back(static_cast<uint8_t>(n >> shift));
  std::vector<uint8_t> tags = {0xA1, 0x61, 'x'};  // then a million one-byte tag heads on one integer
  tags.insert(tags.end(), 1'000'000, 0xC6);
  tags.push_back(0x01);
  std::vector<uint8_t> deep = {0xA1, 0x61, 'a', 0xA1, 0x61, 'b', 0xA1, 0x61, 'c', 0xA1, 0x61, 'd', 0xA1, 0x61, 'e', 0x01};
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    bool then_hang_up;  // a truncated frame only ends when the client stops writing
  } cases[] = {
      {"truncated", std::vector<uint8_t>(good.begin(), good.end() - 4), true},
      {"oversized", {0x01, 0x00, 0x20, 0x00}, false},
      {"zero length", {0, 0, 0, 0}, false},
      {"not a map", framed({0x82, 0x01, 0x02}), false},
      {"deep nesting", framed(deep), false},
      {"float", framed({0xA1, 0x63, 'p', 'i', 'd', 0xFB, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0}), false},
      {"boolean", framed({0xA1, 0x61, 'x', 0xF5}), false},
      {"unknown tag", framed({0xA1, 0x61, 'x', 0xD8, 0x20, 0x41, 0x00}), false},
      {"a million tags", framed(tags), false},
      {"descriptor without descriptor", framed({0xA1, 0x61, 'x', 0xD9, 0x0F, 0xD0, 0x44, 0, 0, 0, 0}), false},
      {"garbage", framed({0xFF, 0xFE, 0xFD}), false},
      {"an integer below int64 min as pid", framed(below_int64_min), false},
      {"quit", xpcEncode({{"quit", ""}})->frame, false},
  };
  SocketTransport bystander(s_daemon->socket());
  ASSERT_TRUE(bystander.exchange({{"requestcpuinfo", ""}}));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UniqueFd fd = rawConnect(s_daemon->socket());
    ASSERT_TRUE(fd);
    timeval limit{30, 0};  // a daemon that kept the connection would otherwise hang the test
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ASSERT_EQ(::write(fd.get(), c.bytes.data(), c.bytes.size()), static_cast<ssize_t>(c.bytes.size()));
    if (c.then_hang_up) ::shutdown(fd.get(), SHUT_WR);
    char byte;
    EXPECT_EQ(::read(fd.get(), &byte, 1), 0);  // closed, no answer
    EXPECT_TRUE(bystander.exchange({{"requestcpuinfo", ""}}));
  }
  // A well-formed frame with a mistyped field is answered with an error and the connection stays.
  auto reply = bystander.exchange({{"taskinfo", "taskinfo"}, {"pid", "twelve"}});
  ASSERT_TRUE(reply);
  EXPECT_EQ(xpcInt(*reply, "result"), 1 + EINVAL);
  EXPECT_TRUE(bystander.exchange({{"requestcpuinfo", ""}}));
  EXPECT_EQ(procState(sleeper.pid()), 'S');
}

TEST_F(HelperDaemonTest, OneUserCannotTakeEveryConnection) {
  const std::string socket = s_daemon->socket();
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    // As nobody, take every connection one user may have but the last; take the last place, close
    // it and take it again 1600 times (a connection its client closed no longer counts); then keep
    // them all.
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
    auto served = [&] { return SocketTransport(socket).exchange({{"requestcpuinfo", ""}}).has_value(); };
    std::vector<std::unique_ptr<SocketTransport>> held;
    for (size_t i = 0; i < HelperDaemon::kMaxConnectionsPerUser; ++i) {
      if (i + 1 == HelperDaemon::kMaxConnectionsPerUser) {
        for (int reopened = 0; reopened < 1600; ++reopened)
          if (!served()) ::_exit(3);
      }
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
    EXPECT_EQ(
        asNobody([&]() -> std::string {
          return SocketTransport(socket).exchange({{"requestcpuinfo", ""}}) ? "one more connection was served" : "";
        }),
        "");
    // Another user is served meanwhile.
    EXPECT_TRUE(ask({{"requestcpuinfo", ""}}).count("cpuinfo"));
  }
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  EXPECT_EQ(asNobody([&]() -> std::string {
              const bool served =
                  eventually([&] { return SocketTransport(socket).exchange({{"requestcpuinfo", ""}}).has_value(); });
              return served ? "" : "nobody is still refused after its connections closed";
            }),
            "");
}

}  // namespace
}  // namespace pelmora
