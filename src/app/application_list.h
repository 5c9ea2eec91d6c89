#pragma once
// The desktop's applications, for the process window: which processes count as applications (those
// that own a top-level window, or whose program is started by an installed desktop entry), bringing
// a process's window to the front, and showing a file in the desktop's file manager.
//
// Windows are known only on X11 (the window manager's client list with each window's _NET_WM_PID,
// through xcb-ewmh); under Wayland a compositor does not tell other programs about windows, so only
// the desktop entries count there and bringing to front is unavailable.
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora {

// The program name a desktop entry starts: the base name of the first word of "Exec=" in the
// "[Desktop Entry]" group, skipping an "env" prefix with its VAR=value words; none for entries that
// are hidden, not applications, or have no Exec. Pure.
std::optional<std::string> desktopEntryProgram(std::string_view text);

class ApplicationList {
 public:
  // Reads the desktop entries of the XDG data folders once.
  ApplicationList();
  // Fixed program names (tests).
  explicit ApplicationList(std::set<std::string> programs);

  // The processes among `candidates` (pid -> program name) that are applications.
  std::set<int32_t> applicationPids(const std::vector<std::pair<int32_t, std::string>>& candidates) const;
  const std::set<std::string>& programs() const { return m_programs; }

  // Processes that own a top-level window; empty when windows cannot be listed.
  static std::set<int32_t> windowPids();
  // Asks the window manager to activate the first window of `pid`; false when it has none we can see.
  static bool bringToFront(int32_t pid);
  // Shows `path` selected in the file manager (org.freedesktop.FileManager1), else opens its folder.
  static void showInFileManager(const std::string& path);

 private:
  std::set<std::string> m_programs;
};

}  // namespace pelmora
