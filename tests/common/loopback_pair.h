#pragma once
// A connected TCP pair on the loopback interface, both ends in the calling process: real traffic
// for the network counters to find.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/unique_fd.h"

namespace pelmora::test {

struct LoopbackPair {
  UniqueFd client, server;
  LoopbackPair() {
    UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(listener.get(), 1) != 0 ||
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&a), &len) != 0)
      std::abort();
    client.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(client.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::abort();
    server.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  // Writes `bytes` into one end and reads them all from the other.
  static void move(int from, int to, size_t bytes) {
    std::string data(bytes, 'x');
    if (::write(from, data.data(), bytes) != static_cast<ssize_t>(bytes)) std::abort();
    for (size_t got = 0; got < bytes;) {
      const ssize_t n = ::read(to, data.data(), bytes - got);
      if (n <= 0) std::abort();
      got += static_cast<size_t>(n);
    }
  }
};

}  // namespace pelmora::test
