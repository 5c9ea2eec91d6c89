// The nettop line parser and the chunk buffer on arbitrary output: never crashes, never keeps a
// line feed in the buffer, and every sample it yields came from a well-formed line.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "process_control/nettop_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  (void)pelmora::parseNettopLine(input);
  // Split the same input into two chunks at a point chosen by its first byte.
  const size_t cut = size == 0 ? 0 : data[0] % (size + 1);
  std::string buffer;
  std::map<int32_t, pelmora::netUsage> table;
  for (auto chunk : {input.substr(0, cut), input.substr(cut)}) {
    for (const auto& sample : pelmora::feedNettopChunk(buffer, chunk)) {
      pelmora::recordNettopSample(table, sample, 5.0);
      if (table[sample.pid].rx_rate.current() < 0 || table[sample.pid].tx_rate.current() < 0) std::abort();
    }
    if (buffer.find('\n') != std::string::npos) std::abort();
  }
  return 0;
}
