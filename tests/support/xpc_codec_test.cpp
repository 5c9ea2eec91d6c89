#include "support/xpc_codec.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <nlohmann/json.hpp>

#include "support/xpc_socket.h"

namespace pelmora {
namespace {

using json = nlohmann::json;

std::vector<uint8_t> bodyOf(const XPCEncoded& e) { return {e.frame.begin() + kXPCLengthBytes, e.frame.end()}; }

XPCValue nested(int levels) {
  XPCValue v = XPCDict{{"leaf", 1}};
  for (int i = 1; i < levels; ++i) v = XPCDict{{"d", v}};
  return v;
}

// What the wire can carry round-trips; what it cannot is refused before anything is sent.
TEST(XPCCodec, EncodeRoundTripsEveryValueKindAndRefusesWhatTheWireCannotCarry) {
  const struct {
    const char* name;
    XPCDict message;
    bool encodes = true;
  } cases[] = {
      // clang-format off
      {"empty map", {}},
      {"int64 extremes", {{"min", XPCValue(INT64_MIN)}, {"max", XPCValue(INT64_MAX)}, {"neg", -1}, {"zero", 0}}},
      {"strings", {{"empty", ""}, {"utf8", "Gr\xc3\xbc\xc3\x9f" "e"}, {"taskinfo", "taskinfo"}}},
      {"data", {{"none", XPCData{}}, {"bytes", XPCData{0, 1, 127, 128, 255}}, {"record", XPCData(232, 0xAB)}}},
      {"arrays", {{"pidfds", XPCArray{0, 1, 2}}, {"pidfiles", XPCArray{"/dev/null", "", "socket:[1]"}},
                  {"mixed", XPCArray{1, "two", XPCData{3}, XPCArray{}, XPCDict{{"k", 5}}}}}},
      {"nested maps", {{"cpuinfo", XPCDict{{"logical_cpu_max", 8}, {"physical_cpu", 4}}}}},
      {"four levels", {{"d", nested(3)}}},
      {"five levels", {{"d", nested(4)}}, false},
      {"array at level five", {{"a", XPCArray{XPCArray{XPCArray{XPCArray{1}}}}}}, false},
      {"null value", {{"x", XPCValue()}}, false},
      {"closed descriptor", {{"fd", XPCValue::descriptor(UniqueFd())}}, false},
      {"over 1 MiB", {{"blob", XPCData(kXPCMaxFrameBytes, 0)}}, false},
  };  // clang-format on
  for (const auto& c : cases) {
    std::string error;
    auto encoded = xpcEncode(c.message, &error);
    ASSERT_EQ(encoded.has_value(), c.encodes) << c.name << ": " << error;
    if (!encoded) continue;
    EXPECT_EQ(xpcFrameLength(std::span<const uint8_t, 4>(encoded->frame.data(), 4)), encoded->frame.size() - 4);
    std::vector<UniqueFd> fds;
    auto decoded = xpcDecode(bodyOf(*encoded), fds, &error);
    ASSERT_TRUE(decoded) << c.name << ": " << error;
    EXPECT_EQ(*decoded, c.message) << c.name;
  }
}

std::vector<uint8_t> cbor(const json& j) { return json::to_cbor(j); }

TEST(XPCCodec, DecodeRejectsMalformedAndWronglyTypedBodies) {
  std::vector<uint8_t> deep = cbor(json{{"a", {{"b", {{"c", {{"d", {{"e", 1}}}}}}}}}});
  std::vector<uint8_t> deep_array = cbor(json{{"a", json::array({json::array({json::array({json::array({1})})})})}});
  std::vector<uint8_t> huge_unsigned = {0xA1, 0x61, 'x', 0x1B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  // -1 - n with n = 2^64 - 1 - 12: the value -2^64 + 12, which a wrapping reader takes for 12.
  std::vector<uint8_t> below_int64_min = {0xA1, 0x61, 'x', 0x3B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF - 12};
  std::vector<uint8_t> just_below_int64_min = {0xA1, 0x61, 'x', 0x3B, 0x80, 0, 0, 0, 0, 0, 0, 0};
  std::vector<uint8_t> int_key = {0xA1, 0x01, 0x02};
  std::vector<uint8_t> valid = cbor(json{{"taskinfo", "taskinfo"}, {"pid", 12}});
  std::vector<uint8_t> truncated(valid.begin(), valid.end() - 3);
  std::vector<uint8_t> trailing = valid;
  trailing.push_back(0x01);
  json other_tag = json::binary({0, 0, 0, 0}, 77);
  json fd_without_fd = json::binary({0, 0, 0, 0}, kXPCDescriptorTag);
  json short_fd = json::binary({0, 0}, kXPCDescriptorTag);
  // A thousand nested arrays: the reader must refuse long before recursing that deep.
  std::vector<uint8_t> very_deep = {0xA1, 0x61, 'x'};
  very_deep.insert(very_deep.end(), 1000, 0x81);
  very_deep.push_back(0x01);
  // A frame of one-byte tag heads: the reader recurses once per tag without a word to its checks.
  std::vector<uint8_t> tags = {0xA1, 0x61, 'x'};
  tags.insert(tags.end(), kXPCMaxFrameBytes - 4, 0xC6);
  tags.push_back(0x01);
  std::vector<uint8_t> indefinite = {0xA1, 0x61, 'x', 0x9F, 0x01, 0xFF};
  const struct {
    const char* name;
    std::vector<uint8_t> body;
  } cases[] = {
      {"empty", {}},
      {"float", cbor(json{{"pid", 1.5}})},
      {"boolean", cbor(json{{"hyper", true}})},
      {"null", cbor(json{{"pid", nullptr}})},
      {"array at top", cbor(json::array({1, 2}))},
      {"integer at top", cbor(json(5))},
      {"string at top", cbor(json("quit"))},
      {"five levels", deep},
      {"five levels of arrays", deep_array},
      {"1000 levels", very_deep},
      {"a frame of tags", tags},
      {"indefinite-length array", indefinite},
      {"unsigned above int64", huge_unsigned},
      {"-2^64 + 12", below_int64_min},
      {"INT64_MIN - 1", just_below_int64_min},
      {"integer key", int_key},
      {"truncated", truncated},
      {"trailing byte", trailing},
      {"unknown tag", cbor(json{{"x", other_tag}})},
      {"descriptor index without descriptor", cbor(json{{"fd", fd_without_fd}})},
      {"short descriptor", cbor(json{{"fd", short_fd}})},
      {"garbage", {0xFF, 0x00, 0x13, 0x37}},
      {"over 1 MiB", std::vector<uint8_t>(kXPCMaxFrameBytes + 1, 0x40)},
  };
  for (const auto& c : cases) {
    std::vector<UniqueFd> fds;
    std::string error;
    EXPECT_FALSE(xpcDecode(c.body, fds, &error)) << c.name;
    EXPECT_FALSE(error.empty()) << c.name;
  }
}

ino_t inodeOf(int fd) {
  struct stat st{};
  return ::fstat(fd, &st) == 0 ? st.st_ino : 0;
}

TEST(XPCSocket, DescriptorsTravelBesideTheFrame) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  UniqueFd a(sv[0]), b(sv[1]);
  int pipe_fds[2];
  ASSERT_EQ(::pipe(pipe_fds), 0);
  UniqueFd read_end(pipe_fds[0]), write_end(pipe_fds[1]);
  const ino_t pipe_inode = inodeOf(read_end.get());
  XPCDict message{{"result", 1}, {"pid", 77}, {"fd", XPCValue::descriptor(std::move(read_end))},
                  {"nested", XPCDict{{"fd2", XPCValue::descriptor(UniqueFd(::dup(write_end.get())))}}}};
  std::string error;
  ASSERT_TRUE(xpcSendMessage(a.get(), message, &error)) << error;
  auto received = xpcReceiveMessage(b.get(), &error);
  ASSERT_TRUE(received) << error;
  const XPCDescriptor* fd = xpcDescriptor(*received, "fd");
  ASSERT_TRUE(fd);
  EXPECT_NE(fd->get(), pipe_fds[0]);  // a new descriptor for the same pipe
  EXPECT_EQ(inodeOf(fd->get()), pipe_inode);
  const XPCDescriptor* fd2 = xpcDescriptor(*xpcDict(*received, "nested"), "fd2");
  ASSERT_TRUE(fd2);
  ASSERT_EQ(::write(fd2->get(), "x", 1), 1);
  char c = 0;
  EXPECT_EQ(::read(fd->get(), &c, 1), 1);
  EXPECT_EQ(c, 'x');
  EXPECT_EQ(xpcInt(*received, "pid"), 77);
}

TEST(XPCSocket, BadStreamsEndTheExchange) {
  const std::vector<uint8_t> valid = bodyOf(*xpcEncode({{"requestcpuinfo", ""}}));
  auto prefix = [](uint32_t n) {
    return std::vector<uint8_t>{uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), uint8_t(n >> 24)};
  };
  auto with = [](std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    const char* error;
  } cases[] = {
      {"nothing", {}, "closed"},
      {"half a prefix", {5, 0}, "truncated frame"},
      {"zero length", prefix(0), "empty frame"},
      {"over 1 MiB", prefix(kXPCMaxFrameBytes + 1), "frame larger than 1 MiB"},
      {"body cut short", with(prefix(static_cast<uint32_t>(valid.size() + 5)), valid), "truncated frame"},
  };
  for (const auto& c : cases) {
    int sv[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    UniqueFd a(sv[0]), b(sv[1]);
    ASSERT_EQ(::write(a.get(), c.bytes.data(), c.bytes.size()), static_cast<ssize_t>(c.bytes.size()));
    a.reset();
    std::string error;
    EXPECT_FALSE(xpcReceiveMessage(b.get(), &error)) << c.name;
    EXPECT_EQ(error, c.error) << c.name;
  }
}

}  // namespace
}  // namespace pelmora
