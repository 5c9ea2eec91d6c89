// "tasklist", the batch a table refresh sends, against the real daemon over its socket: a batch
// answers each readable process once with the owner's rule applied to its resource usage (its
// malformed fields are rows of the daemon's refusals).
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "helper/daemon_harness.h"
#include "support/kernel_records.h"
#include "support/xpc_codec.h"

namespace pelmora {
namespace {

using namespace pelmora::testing;

// The records of one batch: the readable processes only, each record its published size, and the
// resource usage only where "rusage" would answer (the owner, or an authorised connection).
TEST_F(HelperDaemonTest, TaskListAnswersEachReadableProcessWithTheOwnersRule) {
  const auto root_process = sleepingChild();
  const auto own_process = sleepingChild(65534);
  const int64_t root_pid = root_process.pid(), own_pid = own_process.pid();
  const XPCArray asked{own_pid, root_pid, 1, int64_t{s_daemon->pid()}, INT32_MAX};
  struct Expect {
    int64_t pid;
    bool usage_for_nobody;
  };
  const Expect expected[] = {{own_pid, true}, {root_pid, false}, {1, false}, {s_daemon->pid(), false}};
  // Checks one reply; "" when it is as expected.
  const auto check = [&](const std::optional<XPCDict>& reply, bool authorised) -> std::string {
    if (!reply || xpcInt(*reply, "result") != 1) return "no success\n";
    const XPCArray* pids = xpcArray(*reply, "pids");
    const XPCArray* infos = xpcArray(*reply, "taskallinfo");
    const XPCArray* usages = xpcArray(*reply, "rusage");
    const XPCArray* names = xpcArray(*reply, "names");
    const XPCArray* times = xpcArray(*reply, "times");
    if (!pids || !infos || !usages || !names || !times) return "an array missing\n";
    if (pids->size() != std::size(expected)) return "answered " + std::to_string(pids->size()) + " processes\n";
    std::string out;
    for (size_t i = 0; i < pids->size(); ++i) {
      const Expect& e = expected[i];
      const std::string what = "pid " + std::to_string(e.pid) + ": ";
      if ((*pids)[i] != XPCValue(e.pid)) out += what + "out of order\n";
      if (!(*infos)[i].asData() || (*infos)[i].asData()->size() != sizeof(proc_taskallinfo)) out += what + "taskallinfo\n";
      const size_t usage_bytes = (*usages)[i].asData() ? (*usages)[i].asData()->size() : 1;
      const bool usage = authorised || e.usage_for_nobody;
      if (usage_bytes != (usage ? sizeof(rusage_info_v3) : 0)) out += what + "rusage " + std::to_string(usage_bytes) + "\n";
      if (!(*names)[i].asString() || (*names)[i].asString()->empty()) out += what + "no name\n";
      if (!(*times)[i].asInt() || *(*times)[i].asInt() <= 0) out += what + "no time\n";
    }
    return out;
  };
  const std::string socket = s_daemon->socket();
  EXPECT_EQ(asNobody([&] {
              SocketTransport transport(socket);
              return check(transport.exchange({{"tasklist", "tasklist"}, {"pids", asked}}), false);
            }),
            "");
  EXPECT_EQ(check(ask({{"tasklist", "tasklist"}, {"pids", asked}}), true), "");

  // A full batch fits one frame.
  const XPCDict full = ask({{"tasklist", "tasklist"}, {"pids", XPCArray(kTaskListMaxPids, XPCValue(own_pid))}});
  ASSERT_TRUE(xpcArray(full, "pids"));
  EXPECT_EQ(xpcArray(full, "pids")->size(), kTaskListMaxPids);
}

}  // namespace
}  // namespace pelmora
