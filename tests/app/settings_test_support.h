#pragma once
// What the CPU settings window and preference pane tests share: a scratch settings
// store, a scripted helper behind a real Pelmora client, a power monitor on a fixture supply tree
// and a limiter that never runs its timer.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/temp_dir.h"
#include "helper_link/fake_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/power_monitor.h"
#include "support/default_settings.h"
#include "support/main_queue.h"
#include "support/sys_root.h"

namespace pelmora::settings_test {

// The helper as a script: processor counts, and "OK" or a refusal for each command.
struct HelperScript {
  cpu_numbers_t counts{8, 4, 6, 3};
  bool answers = true;
  std::string command_reply = "OK";  // for setcpucount, throttle, setpriority
  std::string authorize_reply = "OK";
};

inline std::optional<XPCDict> answer(const HelperScript& s, const XPCDict& r) {
  if (!s.answers) return std::nullopt;
  if (xpcHas(r, "requestcpuinfo"))
    return XPCDict{{"cpuinfo", XPCDict{{"logical_cpu_max", s.counts.logical_cpu_max},
                                       {"physical_cpu_max", s.counts.physical_cpu_max},
                                       {"logical_cpu", s.counts.logical_cpu},
                                       {"physical_cpu", s.counts.physical_cpu}}}};
  if (xpcHas(r, "setcpucount")) return XPCDict{{"setcpu", s.command_reply}};
  if (xpcHas(r, "throttle")) return XPCDict{{"throttle", s.command_reply}};
  if (xpcHas(r, "setpriority")) return XPCDict{{"setpriority", s.command_reply}};
  if (xpcHas(r, "authorize")) return XPCDict{{"authorize", s.authorize_reply}};
  if (xpcHas(r, "applyboot")) return XPCDict{{"applyboot", s.command_reply}};
  return XPCDict{};
}

struct Rig {
  explicit Rig(const char* power_fixture = "power-laptop-mains")
      : wire(std::make_shared<test::FakeWire>()),
        helper(std::make_unique<test::FakeTransport>(wire)),
        store(dir / "defaults.json"),
        power(SysRoot("/proc", std::string(PELMORA_FIXTURES) + "/" + power_fixture),
              PowerMonitor::Options{false, 5'000'000}),
        limiter(helper, SysRoot("/proc", "/sys"), store, CPULimiter::Options{"", dir / "held"}) {
    wire->answer = [this](const XPCDict& r) { return settings_test::answer(script, r); };
  }
  ~Rig() { limiter.stopTimer(); }

  // The requests of one kind ("setcpucount", "throttle", ...) sent since the last clear.
  std::vector<XPCDict> sent(const std::string& kind) const {
    std::vector<XPCDict> out;
    for (const auto& r : wire->requests)
      if (xpcHas(r, kind)) out.push_back(r);
    return out;
  }
  void clear() { wire->requests.clear(); }
  // Delivers the broadcasts posted so far.
  static void deliver() { RunLoop::main().runUntilIdle(); }

  test::TempDir scratch{"pelmora-settings"};
  const std::filesystem::path& dir = scratch.path();
  HelperScript script;
  std::shared_ptr<test::FakeWire> wire;
  Pelmora helper;
  DefaultSettings store;
  PowerMonitor power;
  CPULimiter limiter;
};

}  // namespace pelmora::settings_test
