// sock_diag datagrams: whatever the bytes, the parser stays inside them.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "nettop/tcp_diag_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  pelmora::parseTcpDiagDatagram(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
