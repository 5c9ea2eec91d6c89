#pragma once
// Installs and removes the boot-time apply: the script, the command-line tool and the settings text
// go into the state folder, the unit into the systemd folder, enabled for multi-user.target.
// Runs as root in the daemon, so it copies only root-owned regular files that nobody else can
// write, from the one folder the program is installed in, and only a settings text of the known
// flag form. The folders are settable so that tests install into a temporary tree.
#include <filesystem>
#include <string>

namespace pelmora {

struct BootPaths {
  std::filesystem::path source_dir = PELMORA_LIBEXEC_DIR;     // where the sources must lie
  std::filesystem::path state_dir = "/var/lib/pelmora";       // script, tool, settings
  std::filesystem::path unit_dir = "/etc/systemd/system";     // the unit and its wants link
};

struct BootRequest {
  std::string script;    // absolute path of "applyboot.sh"
  std::string tool;      // absolute path of "pelmora"
  std::string unit;      // absolute path of "net.tandrel.bootpelmora.service"
  std::string settings;  // e.g. "-h on -p -t off -n 6"
};

inline constexpr const char* kBootUnitName = "net.tandrel.bootpelmora.service";

// Whether the settings text has the form "(-h (on|off) )?(-p )?-t (on|off) -n N", N from 1 to 9999.
bool validBootSettings(const std::string& settings);

class BootInstaller {
 public:
  explicit BootInstaller(BootPaths paths = {});
  // "OK" or the error text; a refused or failed request changes nothing (a failure part of the way
  // through puts back the previous installation, or none).
  std::string install(const BootRequest& request) const;
  std::string uninstall() const;

  // Empty when path names an acceptable source file of the given base name, else why not.
  std::string checkSource(const std::string& path, const std::string& expected_name) const;

 private:
  // The multi-user.target.wants link; empty or the error text.
  std::string enable() const;

  BootPaths m_paths;
};

}  // namespace pelmora
