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
// The resources folder: $PELMORA_RESOURCES_DIR, else the installed data folder when it exists,
// else the source tree's resources/ (a development build).
std::filesystem::path resourcesDir();
// One of our own programs (e.g. "pelmora-nettop"): next to this executable, in its folder of a
// development build's tree (build/src/<build_folder>/), else in the installed libexec folder.
// Empty when none of them is executable.
std::string siblingProgram(const std::string& name, const std::string& build_folder);

}  // namespace pelmora::paths
