#pragma once
// Small helpers shared by the helper tests: sysfs values as the handlers leave them, and requests
// and replies of the wire protocol.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/temp_dir.h"
#include "support/text.h"
#include "support/xpc_value.h"

namespace pelmora::testing {

using test::TempDir;

inline std::string readTrimmed(const std::filesystem::path& path) { return std::string(trim(TempDir::readFile(path))); }

inline void writeText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

// `request` with `key` set to `value`, or without `key` when the value is null.
inline XPCDict with(XPCDict request, const char* key, const XPCValue& value) {
  if (!value.isNull()) request[key] = value;
  return request;
}

// "" when reply[key] is `want` (an integer), or a text beginning with `want` ("" for any text);
// else what it holds.
inline std::string mismatch(const XPCDict& reply, const char* key, const XPCValue& want) {
  const auto it = reply.find(key);
  const XPCValue got = it == reply.end() ? XPCValue() : it->second;
  const std::string* text = got.asString();
  if (want.asString() ? text && startsWith(*text, *want.asString()) : got == want) return "";
  return std::string(key) + ": " + (text ? *text : got.asInt() ? std::to_string(*got.asInt()) : "<none>");
}

}  // namespace pelmora::testing
