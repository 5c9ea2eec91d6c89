#pragma once
// Where the boot-time apply lives: the installed folder (/var/lib/pelmora: the boot script, the
// copy of the `pelmora` tool and the saved settings text), the systemd unit
// (/etc/systemd/system/net.tandrel.bootpelmora.service) and the resources they are copied from
// (the installed libexec folder, or the source tree's resources/ in a development build).
#include <filesystem>
#include <optional>

namespace pelmora {

struct BootLocations {
  std::filesystem::path support_dir;    // /var/lib/pelmora
  std::filesystem::path unit_file;      // /etc/systemd/system/net.tandrel.bootpelmora.service
  std::filesystem::path resources_dir;  // where applyboot.sh, pelmora and the unit come from

  // The system's locations; the resources are the installed libexec folder when it exists, else
  // the source tree's resources/ (where the daemon, which accepts only installed files, refuses them).
  static BootLocations standard();

  // True when either installed path exists: only then is there anything to uninstall.
  bool installed() const;

  struct Resources {
    std::filesystem::path script;   // applyboot.sh
    std::filesystem::path pelmora;  // the command-line tool
    std::filesystem::path unit;     // net.tandrel.bootpelmora.service
  };
  // The three resource files as absolute paths; none when any of them is missing.
  std::optional<Resources> resources() const;
};

}  // namespace pelmora
