#include "helper/throttle_writer.h"

#include <cstring>

#include "helper/cpu_control.h"
#include "support/text.h"

namespace pelmora {

bool isVirtualBlockDevice(const std::string& name) {
  for (const char* prefix : {"loop", "ram", "zram", "dm-", "md", "nbd"}) {
    if (startsWith(name, prefix)) return true;
  }
  return false;
}

ThrottleWriter::ThrottleWriter(SysRoot root) : m_root(std::move(root)) {}

std::vector<std::string> ThrottleWriter::disks() const {
  std::vector<std::string> out;
  for (const std::string& name : m_root.listSys("block")) {
    if (isVirtualBlockDevice(name)) continue;
    if (!m_root.existsSys("block/" + name + "/device")) continue;
    if (!m_root.existsSys("block/" + name + "/queue/wbt_lat_usec")) continue;
    out.push_back(name);
  }
  return out;
}

std::string ThrottleWriter::setThrottle(bool enable) const {
  std::string errors;
  for (const std::string& disk : disks()) {
    const int error = writeSysAttribute(m_root.sys("block/" + disk + "/queue/wbt_lat_usec"), enable ? "-1" : "0");
    if (error) errors += (errors.empty() ? "" : "; ") + disk + ": " + std::strerror(error);
  }
  return errors.empty() ? "OK" : "could not set the I/O throttle of " + errors;
}

}  // namespace pelmora
