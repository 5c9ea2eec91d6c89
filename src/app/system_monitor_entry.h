#pragma once
// The desktop's own system monitor, found through its .desktop entry (GNOME, KDE, Xfce, MATE, LXQt).
#include <QString>
#include <QStringList>

#include <optional>

namespace pelmora {

struct DesktopEntry {
  QString name;
  QString icon;
  QStringList command;  // Exec with its field codes removed
};

// Parses the [Desktop Entry] group of a .desktop file's text; none without an Exec line. Pure.
std::optional<DesktopEntry> parseDesktopEntry(const QString& text);
// The first known system monitor installed in the applications folders.
std::optional<DesktopEntry> findSystemMonitor();
// Starts it detached; false when none is installed or it would not start.
bool launchSystemMonitor();

}  // namespace pelmora
