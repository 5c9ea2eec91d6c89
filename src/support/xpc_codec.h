#pragma once
// The helper wire format. One frame is a 4-byte little-endian length followed by that many bytes of
// one CBOR map (RFC 8949). Integers are int64, data is a CBOR byte string, arrays and nested maps
// nest, and a descriptor is a byte string under kDescriptorTag holding, as a 4-byte little-endian
// number, the index of a descriptor that travels beside the frame with SCM_RIGHTS. (nlohmann-json
// keeps CBOR tags only on byte strings, hence the tagged byte string rather than a tagged integer.)
// Anything else (floats, booleans, null, unsigned values above INT64_MAX, a top level that is not a
// map, more than kMaxDepth levels, frames over kMaxFrameBytes) is rejected.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/unique_fd.h"
#include "support/xpc_value.h"

namespace pelmora {

inline constexpr size_t kXPCMaxFrameBytes = 1 << 20;  // body bytes, without the length prefix
// The most processes one "tasklist" request may name: each answer is under 800 bytes (two records,
// a name of at most 255 bytes and CBOR headers), so a full reply stays well inside one frame.
inline constexpr size_t kTaskListMaxPids = 512;
inline constexpr int kXPCMaxDepth = 4;                // the message map itself is level 1
inline constexpr uint64_t kXPCDescriptorTag = 4048;
inline constexpr size_t kXPCMaxDescriptors = 16;      // per frame
inline constexpr size_t kXPCLengthBytes = 4;

struct XPCEncoded {
  std::vector<uint8_t> frame;  // length prefix and body
  std::vector<int> fds;        // borrowed from the message, in index order
};

// Encodes a message; none (with the reason in *error) when it breaks a limit or holds a null value
// or an invalid descriptor.
std::optional<XPCEncoded> xpcEncode(const XPCDict& message, std::string* error = nullptr);

// The body length a 4-byte prefix announces.
uint32_t xpcFrameLength(std::span<const uint8_t, kXPCLengthBytes> prefix);

// Decodes one frame body (without its prefix). Descriptors named in the body are moved out of fds
// into the message; the rest stay in fds for the caller to drop. None (reason in *error) on any
// malformed, oversized, too deeply nested or wrongly typed input.
std::optional<XPCDict> xpcDecode(std::span<const uint8_t> body, std::vector<UniqueFd>& fds,
                                 std::string* error = nullptr);

}  // namespace pelmora
