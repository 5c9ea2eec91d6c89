// Feeds arbitrary bytes to the helper's frame decoder, as a hostile client would: the first byte
// says how many descriptors arrive beside the frame, the rest is the frame body. The decoder must
// refuse or accept without crashing, leaking or reading out of bounds.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "support/xpc_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<pelmora::UniqueFd> fds;
  for (uint8_t i = 0; i < data[0] % 4; ++i) fds.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  std::span<const uint8_t> body(data + 1, size - 1);
  auto message = pelmora::xpcDecode(body, fds);
  if (message) {
    // Whatever was accepted must encode again.
    auto encoded = pelmora::xpcEncode(*message);
    if (!encoded) __builtin_trap();
  }
  return 0;
}
