#include "process_control/pm_energy.h"

#include <fstream>

#include "support/paths.h"
#include "support/text.h"

namespace pelmora {
namespace {

nlohmann::json readJson(const std::filesystem::path& file) {
  std::ifstream in(file);
  if (!in) return nullptr;
  return nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
}

std::string fileSafe(std::string_view name) {
  std::string out;
  for (char c : name) out += (c == '/' || c == '\0') ? '_' : c;
  return out;
}

}  // namespace

PMEnergy::PMEnergy(const SysRoot& root)
    : PMEnergy(root, std::filesystem::path(PELMORA_DATA_DIR) / "pmenergy", paths::resourcesDir() / "pmenergy.json") {}

PMEnergy::PMEnergy(const SysRoot& root, const std::filesystem::path& board_dir, const std::filesystem::path& fallback) {
  std::filesystem::path file = board_dir / (boardName(root) + ".json");
  std::error_code ec;
  if (!std::filesystem::exists(file, ec)) file = fallback;
  m_dict = constantsOf(readJson(file));
}

std::string PMEnergy::boardName(const SysRoot& root) {
  if (auto board = root.readSysTrimmed("class/dmi/id/board_name"); board && !board->empty()) return fileSafe(*board);
  // Device-tree machines: the model string ends with a terminating zero.
  if (auto model = root.readSys("firmware/devicetree/base/model")) {
    std::string m = *model;
    while (!m.empty() && m.back() == '\0') m.pop_back();
    if (auto t = trim(m); !t.empty()) return fileSafe(t);
  }
  return "default";
}

nlohmann::json PMEnergy::constantsOf(const nlohmann::json& file) {
  if (file.is_object()) {
    auto it = file.find("energy_constants");
    if (it != file.end() && it->is_object()) return *it;
  }
  return nlohmann::json::object();
}

double PMEnergy::coefficient(const std::string& key) const {
  auto it = m_dict.find(key);
  if (it == m_dict.end() || !it->is_number()) return 0.0;
  return it->get<double>();
}

void PMEnergy::energyImpact(procinfo& info) const {
  if (info.pid == 0) {
    info.energyImpact = 0.0;
    return;
  }
  info.energyImpact = (coefficient("kcpu_time") * info.pctCPU +
                       coefficient("kcpu_wakeups") * info.idleWakeupsPerSec +
                       coefficient("kdiskio_bytesread") * info.readPerSec.current() +
                       coefficient("kdiskio_byteswritten") * info.writePerSec.current()) *
                      100.0;
}

}  // namespace pelmora
