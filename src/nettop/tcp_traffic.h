#pragma once
// Per-process TCP traffic, cumulative since the tool started: the sockets of each dump and each
// destroy notification are matched by cookie to what the previous rounds saw, and what a socket
// moved since then is added to the process that holds it. Pure bookkeeping: the dumps, the
// notifications and the owner lookup are handed in, so that tests drive it with tables.
//
// One round: applyDump(), then applyClosed() for each destroy notification taken after that dump,
// then endRound(). A socket first seen in a dump counts all its bytes (it opened since the last
// round, or the tool just started). A socket that leaves the dump without a notification closed
// unseen, and what it moved since the last round is lost. A process's totals stay while it lives,
// also after its sockets closed, and are forgotten when it exits.
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "nettop/socket_owners.h"
#include "nettop/tcp_diag_parser.h"

namespace pelmora {

struct ProcessTraffic {
  std::string name;
  uint64_t received_bytes = 0;
  uint64_t sent_bytes = 0;
};

class TcpTraffic {
 public:
  // Finds the owners of socket inodes, searching the `likely` processes first.
  using OwnerLookup =
      std::function<std::map<uint64_t, SocketOwner>(const std::set<uint64_t>& inodes, const std::set<int32_t>& likely)>;

  // `readable_uid`: only sockets created by this user are looked up (an ordinary user cannot read
  // another user's descriptors); none (root) looks up every socket.
  explicit TcpTraffic(std::optional<uint32_t> readable_uid);

  void applyDump(const std::vector<TcpSocketRecord>& sockets, const OwnerLookup& lookup);
  void applyClosed(const TcpSocketRecord& socket);
  void endRound();
  // Forgets exited processes; their sockets (a child may hold them still) are looked up again.
  void forgetProcesses(const std::set<int32_t>& exited);

  const std::map<int32_t, ProcessTraffic>& processes() const { return m_processes; }

 private:
  struct Tracked {
    int32_t pid = 0;  // 0: its owner exited; to be looked up again
    uint64_t inode = 0;
    uint8_t state = 0;
    uint64_t received_bytes = 0;
    uint64_t sent_bytes = 0;
    bool seen = false;  // in this round's dump
  };
  bool wanted(const TcpSocketRecord& socket) const;
  void lookUpOwners(const std::vector<TcpSocketRecord>& sockets, const OwnerLookup& lookup);
  void charge(Tracked& tracked, const TcpSocketRecord& now);

  std::optional<uint32_t> m_readable_uid;
  std::map<uint64_t, Tracked> m_sockets;  // by cookie
  std::set<uint64_t> m_ownerless;         // inodes without a readable holder: not looked up again
  std::map<int32_t, ProcessTraffic> m_processes;
  std::map<int32_t, std::string> m_names;  // of owners found this round, for new processes
};

}  // namespace pelmora
