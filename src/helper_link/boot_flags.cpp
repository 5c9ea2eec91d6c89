#include "helper_link/boot_flags.h"

#include "support/text.h"

namespace pelmora {
namespace {

constexpr int kMaxCpuCount = 9999;  // the settings text allows at most four digits

const char* onOff(bool on) { return on ? "on" : "off"; }

std::optional<bool> parseOnOff(const std::string& word) {
  if (word == "on") return true;
  if (word == "off") return false;
  return std::nullopt;
}

BootFlagsParse misuse(std::string why) { return BootFlagsParse{std::nullopt, std::move(why)}; }

}  // namespace

std::string bootSettingsText(const BootControls& controls, bool has_hardware_threads) {
  std::string text;
  if (has_hardware_threads) text += std::string("-h ") + onOff(controls.hyper_threading) + " ";
  if (controls.prefer_physical) text += "-p ";
  text += std::string("-t ") + onOff(controls.throttle) + " ";
  text += "-n " + std::to_string(controls.cpu_count);
  return text;
}

bool hasHardwareThreads(const SysRoot& root) {
  for (const std::string& name : root.listSys("devices/system/cpu")) {
    if (!startsWith(name, "cpu") || !parseInt64(std::string_view(name).substr(3))) continue;
    const auto siblings = root.readSysTrimmed("devices/system/cpu/" + name + "/topology/thread_siblings_list");
    if (!siblings) continue;
    const auto cpus = parseCpuList(*siblings);
    if (cpus && cpus->size() > 1) return true;
  }
  return false;
}

BootFlagsParse parseBootFlags(const std::vector<std::string>& args) {
  BootFlags flags;
  if (args.empty()) return misuse("no flags given");
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& flag = args[i];
    if (flag == "-p") {
      flags.prefer_physical = true;
      continue;
    }
    if (flag != "-h" && flag != "-t" && flag != "-n") return misuse("unknown argument '" + flag + "'");
    if (i + 1 >= args.size()) return misuse(flag + " needs a value");
    const std::string& value = args[++i];
    if (flag == "-n") {
      const auto count = parseInt64(value);
      if (!count || *count < 1 || *count > kMaxCpuCount)
        return misuse("-n needs a processor count from 1 to " + std::to_string(kMaxCpuCount) + ", not '" + value + "'");
      flags.cpu_count = static_cast<int>(*count);
      continue;
    }
    const auto on = parseOnOff(value);
    if (!on) return misuse(flag + " needs 'on' or 'off', not '" + value + "'");
    (flag == "-h" ? flags.hyper_threading : flags.throttle) = *on;
  }
  if ((flags.hyper_threading || flags.prefer_physical) && !flags.cpu_count)
    return misuse("-h and -p choose which processors stay enabled and need -n");
  return BootFlagsParse{flags, {}};
}

}  // namespace pelmora
