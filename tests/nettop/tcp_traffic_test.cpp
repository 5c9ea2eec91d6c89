// Per-process totals over rounds of dumps and destroy notifications.
#include "nettop/tcp_traffic.h"

#include <gtest/gtest.h>

namespace pelmora {
namespace {

constexpr uint32_t kUser = 1000;

TcpSocketRecord sock(uint64_t cookie, uint64_t inode, uint64_t rx, uint64_t tx, uint8_t state = kTcpEstablished,
                     uint32_t uid = kUser) {
  return TcpSocketRecord{cookie, inode, uid, state, true, rx, tx};
}

struct Round {
  std::vector<TcpSocketRecord> dump;
  std::vector<TcpSocketRecord> closed;
  std::set<int32_t> exited;
  std::map<int32_t, std::pair<uint64_t, uint64_t>> expected;  // pid -> (in, out) after the round
  std::set<uint64_t> looked_up;                                 // inodes asked for this round
  std::map<uint64_t, int32_t> handed_over = {};                 // inode -> new holder, before the round
  std::set<int32_t> searched_first = {};                        // pids the lookup is told to try first
};

struct Case {
  const char* what;
  std::map<uint64_t, int32_t> holders;  // inode -> pid, as /proc would show it
  std::vector<Round> rounds;
  std::optional<uint32_t> readable_uid = std::nullopt;
};

void play(const Case& c) {
  SCOPED_TRACE(c.what);
  TcpTraffic traffic(c.readable_uid);
  auto holders = c.holders;
  int n = 0;
  for (const auto& round : c.rounds) {
    SCOPED_TRACE("round " + std::to_string(++n));
    for (const auto& [inode, pid] : round.handed_over) holders[inode] = pid;
    std::set<uint64_t> asked;
    traffic.applyDump(round.dump, [&](const std::set<uint64_t>& inodes, const std::set<int32_t>& first) {
      EXPECT_EQ(first, round.searched_first);
      std::map<uint64_t, SocketOwner> found;
      for (uint64_t inode : inodes) {
        asked.insert(inode);
        if (holders.count(inode)) found[inode] = {holders[inode], "p" + std::to_string(holders[inode])};
      }
      return found;
    });
    for (const auto& s : round.closed) traffic.applyClosed(s);
    traffic.endRound();
    traffic.forgetProcesses(round.exited);
    EXPECT_EQ(asked, round.looked_up);
    std::map<int32_t, std::pair<uint64_t, uint64_t>> got;
    for (const auto& [pid, p] : traffic.processes()) {
      got[pid] = {p.received_bytes, p.sent_bytes};
      EXPECT_EQ(p.name, "p" + std::to_string(pid));
    }
    EXPECT_EQ(got, round.expected);
  }
}

TEST(TcpTraffic, Rounds) {
  const Case cases[] = {
      {"a new socket counts all its bytes, then what it moves; its owner is looked up once",
       {{10, 500}},
       {{{sock(1, 10, 100, 5)}, {}, {}, {{500, {100, 5}}}, {10}},
        {{sock(1, 10, 150, 25)}, {}, {}, {{500, {150, 25}}}, {}},
        {{sock(1, 10, 150, 25)}, {}, {}, {{500, {150, 25}}}, {}}}},
      {"bytes moved after the last dump count when the destroy notification comes",
       {{10, 500}},
       {{{sock(1, 10, 100, 5)}, {}, {}, {{500, {100, 5}}}, {10}},
        {{}, {sock(1, 0, 180, 40, kTcpClose, 0)}, {}, {{500, {180, 40}}}, {}},
        // The process stays listed with its totals while it lives.
        {{}, {}, {}, {{500, {180, 40}}}, {}}}},
      {"a notification taken after the dump that still listed the socket",
       {{10, 500}},
       {{{sock(1, 10, 100, 5)}, {sock(1, 0, 130, 5, kTcpClose, 0)}, {}, {{500, {130, 5}}}, {10}},
        {{}, {}, {}, {{500, {130, 5}}}, {}}}},
      {"without a notification a socket that closed unseen keeps what the last dump showed",
       {{10, 500}},
       {{{sock(1, 10, 100, 5)}, {}, {}, {{500, {100, 5}}}, {10}},
        {{}, {}, {}, {{500, {100, 5}}}, {}},
        {{}, {sock(1, 0, 999, 999, kTcpClose, 0)}, {}, {{500, {100, 5}}}, {}}}},
      {"the peer's FIN already counted when last listed is left out at the end",
       {{10, 500}},
       {{{sock(1, 10, 100, 5, kTcpCloseWait)}, {}, {}, {{500, {100, 5}}}, {10}},
        {{}, {sock(1, 0, 101, 5, kTcpClose, 0)}, {}, {{500, {100, 5}}}, {}}}},
      {"a closed socket draining without a holder still counts for its owner",
       {{10, 500}},
       {{{sock(1, 10, 0, 100)}, {}, {}, {{500, {0, 100}}}, {10}},
        {{sock(1, 0, 0, 300, kTcpFinWait1)}, {}, {}, {{500, {0, 300}}}, {}}}},
      {"a socket nobody readable holds is looked up once while it lives; its inode may come back",
       {},
       {{{sock(1, 10, 1, 1)}, {}, {}, {}, {10}},
        {{sock(1, 10, 2, 2)}, {}, {}, {}, {}},
        {{}, {}, {}, {}, {}},
        {{sock(2, 10, 3, 3)}, {}, {}, {}, {10}}}},
      // Processes already holding sockets are searched first; an exited one no longer.
      {"an exited process is forgotten; a child holding the socket gets only what moves next",
       {{10, 500}},
       {{{sock(1, 10, 100, 100)}, {}, {}, {{500, {100, 100}}}, {10}},
        {{sock(1, 10, 120, 100)}, {}, {500}, {}, {}},
        {{sock(1, 10, 150, 110)}, {}, {}, {{501, {30, 10}}}, {10}, {{10, 501}}}}},
      {"a new socket's owner is searched for among the processes with sockets first",
       {{10, 500}, {11, 600}, {12, 600}},
       {{{sock(1, 10, 0, 0), sock(2, 11, 0, 0)}, {}, {}, {{500, {0, 0}}, {600, {0, 0}}}, {10, 11}},
        {{sock(3, 12, 0, 0)}, {}, {}, {{500, {0, 0}}, {600, {0, 0}}}, {12}, {}, {500, 600}}}},
      {"counters never run backwards into the totals",
       {{10, 500}},
       {{{sock(1, 10, 100, 100)}, {}, {}, {{500, {100, 100}}}, {10}},
        {{sock(1, 10, 90, 80)}, {}, {}, {{500, {100, 100}}}, {}},
        {{sock(1, 10, 110, 120)}, {}, {}, {{500, {110, 120}}}, {}}}},
      {"sockets of two processes, one without counts (time-wait) ignored",
       {{10, 500}, {11, 600}, {12, 700}},
       {{{sock(1, 10, 1, 2), sock(2, 11, 3, 4), TcpSocketRecord{3, 12, kUser, kTcpTimeWait}},
         {},
         {},
         {{500, {1, 2}}, {600, {3, 4}}},
         {10, 11}}}},
      {"an ordinary user looks up only its own sockets",
       {{10, 500}, {11, 600}},
       {{{sock(1, 10, 1, 2), sock(2, 11, 3, 4, kTcpEstablished, 0)}, {}, {}, {{500, {1, 2}}}, {10}}},
       kUser},
  };
  for (const auto& c : cases) play(c);
}

}  // namespace
}  // namespace pelmora
