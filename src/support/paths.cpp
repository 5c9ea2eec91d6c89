#include "support/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace pelmora::paths {
namespace {

std::filesystem::path env(const char* name) {
  const char* v = std::getenv(name);
  return (v && *v) ? std::filesystem::path(v) : std::filesystem::path();
}

std::filesystem::path home() {
  if (auto h = env("HOME"); !h.empty()) return h;
  if (const passwd* pw = getpwuid(getuid())) return pw->pw_dir;
  return "/tmp";
}

std::filesystem::path xdg(const char* var, const char* fallback) {
  if (auto v = env(var); !v.empty() && v.is_absolute()) return v;
  return home() / fallback;
}

}  // namespace

std::filesystem::path configDir() {
  if (auto v = env("PELMORA_CONFIG_DIR"); !v.empty()) return v;
  return xdg("XDG_CONFIG_HOME", ".config") / "pelmora";
}

std::filesystem::path stateDir() {
  if (auto v = env("PELMORA_STATE_DIR"); !v.empty()) return v;
  return xdg("XDG_STATE_HOME", ".local/state") / "pelmora";
}

std::filesystem::path autostartDir() { return xdg("XDG_CONFIG_HOME", ".config") / "autostart"; }

std::filesystem::path resourcesDir() {
  if (auto v = env("PELMORA_RESOURCES_DIR"); !v.empty()) return v;
  return PELMORA_DATA_DIR;
}

std::string siblingProgram(const std::string& name, const std::string& build_folder) {
  std::error_code ec;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", ec).parent_path();
  for (const auto& candidate : {self / name, self / ".." / build_folder / name,
                                std::filesystem::path(PELMORA_LIBEXEC_DIR) / name}) {
    if (::access(candidate.c_str(), X_OK) == 0) return candidate.lexically_normal().string();
  }
  return {};
}

}  // namespace pelmora::paths
