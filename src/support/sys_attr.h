#pragma once
// Attributes of the system's user database. Names are cached: the process table asks once per new
// process, and a name service lookup can be slow (LDAP, sssd).
#include <cstdint>
#include <string>

namespace pelmora {

class SysAttr {
 public:
  // The login name of a user id; its decimal text when the id has no entry.
  static std::string username(uint32_t uid);
};

}  // namespace pelmora
