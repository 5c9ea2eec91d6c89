// Switches real CPUs through the handler. Opt-in only (PELMORA_REAL_HOTPLUG=1, as root): it takes
// processors away from everything else on the machine while it runs, and restores each one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>

#include "helper/request_handler.h"

namespace pelmora {
namespace {

class RestoreOnlineFiles {
 public:
  explicit RestoreOnlineFiles(const SysRoot& root) : m_root(root) {
    for (int cpu = 0; cpu < 4096; ++cpu) {
      const std::string file = "devices/system/cpu/cpu" + std::to_string(cpu) + "/online";
      if (auto value = m_root.readSysTrimmed(file)) m_saved[file] = *value;
    }
  }
  ~RestoreOnlineFiles() {
    // Online first, so that restoring never leaves fewer CPUs running than before.
    for (const auto& [file, value] : m_saved) {
      if (value == "1") writeSysAttribute(m_root.sys(file), value);
    }
    for (const auto& [file, value] : m_saved) {
      if (value != "1") writeSysAttribute(m_root.sys(file), value);
    }
  }
  size_t hotpluggable() const { return m_saved.size(); }

 private:
  SysRoot m_root;
  std::map<std::string, std::string> m_saved;
};

TEST(RealHotplug, KeepsOneCpuThenRestoresEveryCpu) {
  const char* opt_in = std::getenv("PELMORA_REAL_HOTPLUG");
  if (!opt_in || std::string(opt_in) != "1" || ::geteuid() != 0) {
    GTEST_SKIP() << "set PELMORA_REAL_HOTPLUG=1 and run as root to switch real CPUs";
  }
  const SysRoot root("/proc", "/sys");
  RestoreOnlineFiles restore(root);
  if (restore.hotpluggable() == 0) GTEST_SKIP() << "no CPU here can be switched off";
  HelperOptions options;
  options.root = root;
  RequestHandler handler(options);
  Connection caller(CallerIdentity{0, 1, 0});
  const XPCDict before_reply = handler.handle({{"requestcpuinfo", ""}}, caller);
  const XPCDict before = *xpcDict(before_reply, "cpuinfo");
  const XPCDict set_one{{"setcpucount", ""}, {"count", 1}, {"hyper", 1}, {"prefer_phys", 0}};
  ASSERT_EQ(*xpcString(handler.handle(set_one, caller), "setcpu"), "OK");
  const XPCDict after_reply = handler.handle({{"requestcpuinfo", ""}}, caller);
  EXPECT_EQ(xpcInt(*xpcDict(after_reply, "cpuinfo"), "logical_cpu"), 1);
  const XPCDict set_all{{"setcpucount", ""}, {"count", *xpcInt(before, "logical_cpu_max")}, {"hyper", 1},
                        {"prefer_phys", 0}};
  ASSERT_EQ(*xpcString(handler.handle(set_all, caller), "setcpu"), "OK");
  const XPCDict restored_reply = handler.handle({{"requestcpuinfo", ""}}, caller);
  EXPECT_EQ(xpcInt(*xpcDict(restored_reply, "cpuinfo"), "logical_cpu"), xpcInt(before, "logical_cpu_max"));
}

}  // namespace
}  // namespace pelmora
