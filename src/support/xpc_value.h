#pragma once
// The value carried by helper messages: dictionaries of string keys to 64-bit integers, strings,
// data, arrays, nested dictionaries and file descriptors. A message is always a dictionary.
// Descriptors are shared and owned: copying a message does not duplicate or close the descriptor.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "support/unique_fd.h"

namespace pelmora {

class XPCValue;
using XPCArray = std::vector<XPCValue>;
using XPCDict = std::map<std::string, XPCValue>;
using XPCData = std::vector<uint8_t>;

struct XPCDescriptor {
  std::shared_ptr<UniqueFd> fd;
  int get() const { return fd ? fd->get() : -1; }
  bool operator==(const XPCDescriptor& other) const { return get() == other.get(); }
};

class XPCValue {
 public:
  using Storage = std::variant<std::monostate, int64_t, std::string, XPCData, XPCArray, XPCDict, XPCDescriptor>;

  XPCValue() = default;
  XPCValue(int64_t v) : m_value(v) {}
  XPCValue(int v) : m_value(static_cast<int64_t>(v)) {}
  XPCValue(std::string v) : m_value(std::move(v)) {}
  XPCValue(const char* v) : m_value(std::string(v)) {}
  XPCValue(XPCData v) : m_value(std::move(v)) {}
  XPCValue(XPCArray v) : m_value(std::move(v)) {}
  XPCValue(XPCDict v) : m_value(std::move(v)) {}
  XPCValue(XPCDescriptor v) : m_value(std::move(v)) {}
  // Takes ownership of fd.
  static XPCValue descriptor(UniqueFd fd) { return XPCValue(XPCDescriptor{std::make_shared<UniqueFd>(std::move(fd))}); }

  bool isNull() const { return std::holds_alternative<std::monostate>(m_value); }
  const int64_t* asInt() const { return std::get_if<int64_t>(&m_value); }
  const std::string* asString() const { return std::get_if<std::string>(&m_value); }
  const XPCData* asData() const { return std::get_if<XPCData>(&m_value); }
  const XPCArray* asArray() const { return std::get_if<XPCArray>(&m_value); }
  const XPCDict* asDict() const { return std::get_if<XPCDict>(&m_value); }
  const XPCDescriptor* asDescriptor() const { return std::get_if<XPCDescriptor>(&m_value); }
  template <typename T>
  const T* as() const {
    return std::get_if<T>(&m_value);
  }

  bool operator==(const XPCValue& other) const { return m_value == other.m_value; }

 private:
  Storage m_value;
};

// Typed look-ups in a message: none when the key is missing or holds another type.
template <typename T>
const T* xpcFind(const XPCDict& d, const std::string& key) {
  auto it = d.find(key);
  return it == d.end() ? nullptr : it->second.as<T>();
}
inline std::optional<int64_t> xpcInt(const XPCDict& d, const std::string& key) {
  const int64_t* value = xpcFind<int64_t>(d, key);
  return value ? std::optional<int64_t>(*value) : std::nullopt;
}
inline const std::string* xpcString(const XPCDict& d, const std::string& key) { return xpcFind<std::string>(d, key); }
inline const XPCData* xpcData(const XPCDict& d, const std::string& key) { return xpcFind<XPCData>(d, key); }
inline const XPCArray* xpcArray(const XPCDict& d, const std::string& key) { return xpcFind<XPCArray>(d, key); }
inline const XPCDict* xpcDict(const XPCDict& d, const std::string& key) { return xpcFind<XPCDict>(d, key); }
inline const XPCDescriptor* xpcDescriptor(const XPCDict& d, const std::string& key) {
  return xpcFind<XPCDescriptor>(d, key);
}
inline bool xpcHas(const XPCDict& d, const std::string& key) { return d.count(key) != 0; }

}  // namespace pelmora
