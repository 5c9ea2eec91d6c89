#pragma once
// The energy-impact model: a weighted sum of a process's processor share, idle wake-ups and disk
// rates, with weights per machine board. Tables live in <data>/pmenergy/BOARD.json (the board from
// the DMI board name or the device-tree model); a board without a table uses the program's own
// resources/pmenergy.json. Each file holds {"energy_constants": {"kcpu_time": ..., ...}}.
// docs/energy.md explains the default weights.
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "process_control/procinfo.h"
#include "support/sys_root.h"

namespace pelmora {

class PMEnergy {
 public:
  // Loads the table for this machine's board.
  explicit PMEnergy(const SysRoot& root = SysRoot::current());
  // Loads from explicit places (tests): the per-board folder and the fallback file.
  PMEnergy(const SysRoot& root, const std::filesystem::path& board_dir, const std::filesystem::path& fallback);

  // The machine's board name ("default" when none is known), usable as a file name.
  static std::string boardName(const SysRoot& root);
  // "energy_constants" of a parsed file, or an empty object.
  static nlohmann::json constantsOf(const nlohmann::json& file);

  // A coefficient; 0 when missing or not a number.
  double coefficient(const std::string& key) const;
  // Sets info.energyImpact from its current rates.
  void energyImpact(procinfo& info) const;
  const nlohmann::json& constants() const { return m_dict; }

 private:
  nlohmann::json m_dict = nlohmann::json::object();
};

}  // namespace pelmora
