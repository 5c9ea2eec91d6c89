#pragma once
// What the CPU settings window and preference pane tests share: a QApplication, a scratch settings
// store, a scripted helper behind a real Pelmora client, a power monitor on a fixture supply tree
// and a limiter that never runs its timer.
#include <QApplication>

#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "helper_link/fake_transport.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/power_monitor.h"
#include "support/default_settings.h"
#include "support/main_queue.h"
#include "support/sys_root.h"

namespace pelmora::settings_test {

inline QApplication& app() {
  static int argc = 1;
  static char name[] = "pelmora_app_tests";
  static char* argv[] = {name, nullptr};
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  if (auto* existing = qobject_cast<QApplication*>(QCoreApplication::instance())) return *existing;
  static auto* application = new QApplication(argc, argv);
  return *application;
}

inline std::filesystem::path scratchDir() {
  static int serial = 0;
  auto dir = std::filesystem::temp_directory_path() /
             ("pelmora-settings-" + std::to_string(getpid()) + "-" + std::to_string(serial++));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir / "held");
  return dir;
}

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
      : dir(scratchDir()),
        wire(std::make_shared<test::FakeWire>()),
        helper(std::make_unique<test::FakeTransport>(wire)),
        store(dir / "defaults.json"),
        power(SysRoot("/proc", std::string(PELMORA_FIXTURES) + "/" + power_fixture), PowerMonitor::Options{false, 5'000'000}),
        limiter(helper, SysRoot("/proc", "/sys"), store, CPULimiter::Options{"", dir / "held"}) {
    app();
    wire->answer = [this](const XPCDict& r) { return settings_test::answer(script, r); };
  }
  ~Rig() {
    limiter.stopTimer();
    std::filesystem::remove_all(dir);
  }

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

  std::filesystem::path dir;
  HelperScript script;
  std::shared_ptr<test::FakeWire> wire;
  Pelmora helper;
  DefaultSettings store;
  PowerMonitor power;
  CPULimiter limiter;
};

}  // namespace pelmora::settings_test
