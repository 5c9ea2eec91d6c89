#include "support/xpc_codec.h"

#include <limits>
#include <nlohmann/json.hpp>

namespace pelmora {
namespace {

using json = nlohmann::json;

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

// --- encoding ------------------------------------------------------------------------------------

bool toJson(const XPCValue& value, int depth, std::vector<int>& fds, json& out, std::string* error);

bool dictToJson(const XPCDict& dict, int depth, std::vector<int>& fds, json& out, std::string* error) {
  if (depth > kXPCMaxDepth) {
    setError(error, "message nested too deeply");
    return false;
  }
  out = json::object();
  for (const auto& [key, value] : dict) {
    if (!toJson(value, depth, fds, out[key], error)) return false;
  }
  return true;
}

bool toJson(const XPCValue& value, int depth, std::vector<int>& fds, json& out, std::string* error) {
  if (const int64_t* i = value.asInt()) {
    out = *i;
  } else if (const std::string* s = value.asString()) {
    out = *s;
  } else if (const XPCData* d = value.asData()) {
    out = json::binary(*d);
  } else if (const XPCArray* a = value.asArray()) {
    if (depth + 1 > kXPCMaxDepth) {
      setError(error, "message nested too deeply");
      return false;
    }
    out = json::array();
    for (const XPCValue& element : *a) {
      out.push_back(json());
      if (!toJson(element, depth + 1, fds, out.back(), error)) return false;
    }
  } else if (const XPCDict* m = value.asDict()) {
    return dictToJson(*m, depth + 1, fds, out, error);
  } else if (const XPCDescriptor* fd = value.asDescriptor()) {
    if (fd->get() < 0 || fds.size() >= kXPCMaxDescriptors) {
      setError(error, fd->get() < 0 ? "invalid descriptor" : "too many descriptors");
      return false;
    }
    const auto index = static_cast<uint32_t>(fds.size());
    fds.push_back(fd->get());
    out = json::binary({static_cast<uint8_t>(index), static_cast<uint8_t>(index >> 8),
                        static_cast<uint8_t>(index >> 16), static_cast<uint8_t>(index >> 24)},
                       kXPCDescriptorTag);
  } else {
    setError(error, "null value in message");
    return false;
  }
  return true;
}

// --- decoding ------------------------------------------------------------------------------------

struct ItemHead {
  uint8_t major = 0;
  uint64_t arg = 0;  // the length, count or value the head carries
};

// The item head at `at`, which it moves past. None, with *why, where the body ends inside it or it
// is an indefinite length or a reserved head.
std::optional<ItemHead> readHead(std::span<const uint8_t> body, size_t& at, const char** why) {
  *why = "truncated frame";
  if (at >= body.size()) return std::nullopt;
  const uint8_t info = body[at] & 31;
  ItemHead head{static_cast<uint8_t>(body[at++] >> 5), info};
  if (info > 27) {
    *why = "indefinite length or reserved item head";
    return std::nullopt;
  }
  if (info < 24) return head;
  const size_t bytes = size_t{1} << (info - 24);
  if (body.size() - at < bytes) return std::nullopt;
  head.arg = 0;
  for (size_t k = 0; k < bytes; ++k) head.arg = head.arg << 8 | body[at++];
  return head;
}

// nlohmann's reader recurses once per CBOR tag as well as once per level, and its SAX pass hears
// nothing of a tag: a frame of a million one-byte tag heads overflowed the stack before any check
// could refuse it. So the item heads are walked first, in a loop. A message has no tag but on a byte
// string (a descriptor's), no indefinite length (our encoder writes none), and no level deeper than
// kXPCMaxDepth. What this lets through, the SAX pass below still checks.
std::optional<std::string> headsFault(std::span<const uint8_t> body) {
  size_t at = 0;
  std::vector<uint64_t> left = {1};  // items still to read at each open level: the body holds one
  while (!left.empty()) {
    if (left.back()-- == 0) {
      left.pop_back();
      continue;
    }
    const char* why = nullptr;
    const auto head = readHead(body, at, &why);
    if (!head) return why;
    const uint64_t rest = body.size() - at, per_entry = head->major == 5 ? 2 : 1;
    if (head->major == 2 || head->major == 3) {
      if (head->arg > rest) return "truncated frame";
      at += head->arg;
    } else if (head->major == 4 || head->major == 5) {
      // Every item takes a byte at least, so no count can exceed what is left.
      if (head->arg > rest / per_entry) return "truncated frame";
      if (left.size() > static_cast<size_t>(kXPCMaxDepth)) return "message nested too deeply";
      left.push_back(per_entry * head->arg);
    } else if (head->major == 6) {
      if (at >= body.size() || body[at] >> 5 != 2) return "unknown tag";
      ++left.back();  // the tagged byte string is this same item
    }
  }
  if (at != body.size()) return "trailing value";
  return std::nullopt;
}

// Walks the CBOR events before the tree is built, so that nesting is bounded (nlohmann's reader
// recurses once per level) and every scalar is one of the accepted types.
class ShapeCheck : public nlohmann::json_sax<json> {
 public:
  std::string reason;

  bool null() override { return fail("null value"); }
  bool boolean(bool) override { return fail("boolean value"); }
  // CBOR hands this only its negative integers, -1 - n for an unsigned n. The reader computes that
  // in int64, so an n of 2^63 or more (a value below INT64_MIN) wraps round to a value >= 0:
  // -2^64 + 5 would read as 5.
  bool number_integer(number_integer_t v) override { return v < 0 ? top() : fail("integer out of range"); }
  bool number_unsigned(number_unsigned_t v) override {
    return v <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) ? top() : fail("integer out of range");
  }
  bool number_float(number_float_t, const string_t&) override { return fail("floating-point value"); }
  bool string(string_t&) override { return top(); }
  bool binary(binary_t& b) override {
    if (b.has_subtype() && (b.subtype() != kXPCDescriptorTag || b.size() != 4)) return fail("unknown tag");
    return top();
  }
  bool start_object(std::size_t) override {
    if (m_depth == 0 && m_seen_top) return fail("trailing value");
    m_seen_top = true;
    return ++m_depth <= kXPCMaxDepth || fail("message nested too deeply");
  }
  bool key(string_t&) override { return true; }
  bool end_object() override { return --m_depth, true; }
  bool start_array(std::size_t) override {
    if (m_depth == 0) return fail("not a map");
    return ++m_depth <= kXPCMaxDepth || fail("message nested too deeply");
  }
  bool end_array() override { return --m_depth, true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    return fail(e.what());
  }

 private:
  bool top() { return m_depth > 0 || fail("not a map"); }
  bool fail(std::string why) {
    if (reason.empty()) reason = std::move(why);
    return false;
  }
  int m_depth = 0;
  bool m_seen_top = false;
};

std::optional<XPCValue> fromJson(const json& j, std::vector<UniqueFd>& fds, std::string* error);

std::optional<XPCDict> dictFromJson(const json& j, std::vector<UniqueFd>& fds, std::string* error) {
  XPCDict dict;
  for (const auto& [key, element] : j.items()) {
    auto v = fromJson(element, fds, error);
    if (!v) return std::nullopt;
    dict.emplace(key, std::move(*v));
  }
  return dict;
}

std::optional<XPCValue> descriptorFromBinary(const json::binary_t& b, std::vector<UniqueFd>& fds,
                                             std::string* error) {
  const uint32_t index = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
  if (index >= fds.size() || !fds[index].valid()) {
    setError(error, "descriptor index without a descriptor");
    return std::nullopt;
  }
  return XPCValue::descriptor(std::move(fds[index]));
}

std::optional<XPCValue> fromJson(const json& j, std::vector<UniqueFd>& fds, std::string* error) {
  switch (j.type()) {
    case json::value_t::number_integer:
      return XPCValue(j.get<int64_t>());
    case json::value_t::number_unsigned:
      return XPCValue(static_cast<int64_t>(j.get<uint64_t>()));
    case json::value_t::string:
      return XPCValue(j.get<std::string>());
    case json::value_t::binary: {
      const auto& b = j.get_binary();
      if (b.has_subtype()) return descriptorFromBinary(b, fds, error);
      return XPCValue(XPCData(b.begin(), b.end()));
    }
    case json::value_t::array: {
      XPCArray array;
      array.reserve(j.size());
      for (const json& element : j) {
        auto v = fromJson(element, fds, error);
        if (!v) return std::nullopt;
        array.push_back(std::move(*v));
      }
      return XPCValue(std::move(array));
    }
    case json::value_t::object: {
      auto dict = dictFromJson(j, fds, error);
      if (!dict) return std::nullopt;
      return XPCValue(std::move(*dict));
    }
    default:
      setError(error, "unexpected value type");
      return std::nullopt;
  }
}

}  // namespace

std::optional<XPCEncoded> xpcEncode(const XPCDict& message, std::string* error) {
  XPCEncoded out;
  json tree;
  if (!dictToJson(message, 1, out.fds, tree, error)) return std::nullopt;
  std::vector<uint8_t> body = json::to_cbor(tree);
  if (body.size() > kXPCMaxFrameBytes) {
    setError(error, "message larger than 1 MiB");
    return std::nullopt;
  }
  const auto n = static_cast<uint32_t>(body.size());
  out.frame = {static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n >> 16),
               static_cast<uint8_t>(n >> 24)};
  out.frame.insert(out.frame.end(), body.begin(), body.end());
  return out;
}

uint32_t xpcFrameLength(std::span<const uint8_t, kXPCLengthBytes> p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

std::optional<XPCDict> xpcDecode(std::span<const uint8_t> body, std::vector<UniqueFd>& fds, std::string* error) {
  if (body.empty() || body.size() > kXPCMaxFrameBytes) {
    setError(error, body.empty() ? "empty frame" : "frame larger than 1 MiB");
    return std::nullopt;
  }
  if (auto fault = headsFault(body)) {
    setError(error, *fault);
    return std::nullopt;
  }
  ShapeCheck check;
  // The public sax_parse takes no tag handler, so the reader is driven the way from_cbor drives it.
  auto input = nlohmann::detail::input_adapter(body.data(), body.data() + body.size());
  nlohmann::detail::binary_reader<json, decltype(input), ShapeCheck> reader(std::move(input),
                                                                           json::input_format_t::cbor);
  if (!reader.sax_parse(json::input_format_t::cbor, &check, true, json::cbor_tag_handler_t::store)) {
    setError(error, check.reason.empty() ? "malformed frame" : check.reason);
    return std::nullopt;
  }
  json tree = json::from_cbor(body.data(), body.data() + body.size(), true, false, json::cbor_tag_handler_t::store);
  if (!tree.is_object()) {
    setError(error, "not a map");
    return std::nullopt;
  }
  return dictFromJson(tree, fds, error);
}

}  // namespace pelmora
