#include "helper_link/boot_locations.h"

namespace pelmora {
namespace fs = std::filesystem;

BootLocations BootLocations::standard() {
  BootLocations out;
  out.support_dir = "/var/lib/pelmora";
  out.unit_file = "/etc/systemd/system/net.tandrel.bootpelmora.service";
  out.resources_dir = PELMORA_LIBEXEC_DIR;
  return out;
}

bool BootLocations::installed() const {
  std::error_code ec;
  // symlink_status: a dangling unit link still counts as something installed.
  return fs::exists(fs::symlink_status(support_dir, ec)) || fs::exists(fs::symlink_status(unit_file, ec));
}

std::optional<BootLocations::Resources> BootLocations::resources() const {
  std::error_code ec;
  const fs::path dir = fs::absolute(resources_dir, ec);
  if (ec) return std::nullopt;
  Resources out{dir / "applyboot.sh", dir / "pelmora", dir / "net.tandrel.bootpelmora.service"};
  for (const fs::path& p : {out.script, out.pelmora, out.unit})
    if (!fs::is_regular_file(p, ec)) return std::nullopt;
  return out;
}

}  // namespace pelmora
