#pragma once
// Where Pelmora keeps its files on a Linux desktop (XDG base directories), with environment
// overrides so tests and the CLI can point them elsewhere.
#include <filesystem>
#include <string>

namespace pelmora::paths {

// $PELMORA_CONFIG_DIR, else $XDG_CONFIG_HOME/pelmora, else ~/.config/pelmora.
std::filesystem::path configDir();
// $PELMORA_STATE_DIR, else $XDG_STATE_HOME/pelmora, else ~/.local/state/pelmora.
std::filesystem::path stateDir();
// $XDG_CONFIG_HOME/autostart, else ~/.config/autostart.
std::filesystem::path autostartDir();
// The resources folder: $PELMORA_RESOURCES_DIR (a development build points it at the source tree's
// resources/), else the installed data folder. No source path is built into the programs.
std::filesystem::path resourcesDir();
// One of our own programs (e.g. "pelmora-nettop"): next to this executable, in its folder of a
// development build's tree (build/src/<build_folder>/), else in the installed libexec folder.
// Empty when none of them is executable.
std::string siblingProgram(const std::string& name, const std::string& build_folder);

}  // namespace pelmora::paths
