#include "support/sys_attr.h"

#include <pwd.h>

#include <map>
#include <vector>

#include "support/mutex.h"

namespace pelmora {
namespace {

struct Cache {
  Mutex mutex;
  std::map<uint32_t, std::string> names;
};

Cache& cache() {
  static Cache* c = new Cache();
  return *c;
}

std::string lookUp(uint32_t uid) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_name)
    return found->pw_name;
  return std::to_string(uid);
}

}  // namespace

std::string SysAttr::username(uint32_t uid) {
  {
    MutexLock lock(cache().mutex);
    if (auto it = cache().names.find(uid); it != cache().names.end()) return it->second;
  }
  std::string name = lookUp(uid);  // outside the lock: a slow name service must not block others
  MutexLock lock(cache().mutex);
  cache().names.emplace(uid, name);
  return name;
}

}  // namespace pelmora
