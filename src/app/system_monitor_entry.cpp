#include "app/system_monitor_entry.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

namespace pelmora {
namespace {

constexpr const char* kMonitors[] = {
    "org.gnome.SystemMonitor.desktop", "gnome-system-monitor.desktop", "org.kde.plasma-systemmonitor.desktop",
    "org.kde.ksysguard.desktop",       "xfce4-taskmanager.desktop",    "mate-system-monitor.desktop",
    "lxqt-qps.desktop",                "qps.desktop",
};

}  // namespace

std::optional<DesktopEntry> parseDesktopEntry(const QString& text) {
  DesktopEntry entry;
  bool in_group = false;
  for (const QString& raw : text.split(QLatin1Char('\n'))) {
    const QString line = raw.trimmed();
    if (line.startsWith(QLatin1Char('['))) {
      in_group = line == QLatin1String("[Desktop Entry]");
      continue;
    }
    if (!in_group) continue;
    if (line.startsWith(QLatin1String("Name="))) entry.name = line.mid(5);
    else if (line.startsWith(QLatin1String("Icon="))) entry.icon = line.mid(5);
    else if (line.startsWith(QLatin1String("Exec="))) {
      // Field codes (%U, %f, ...) stand for files to open; we open none.
      QString exec = line.mid(5);
      exec.remove(QRegularExpression(QStringLiteral("%[a-zA-Z]")));
      entry.command = QProcess::splitCommand(exec);
    }
  }
  if (entry.command.isEmpty()) return std::nullopt;
  return entry;
}

std::optional<DesktopEntry> findSystemMonitor() {
  for (const char* name : kMonitors) {
    const QString path = QStandardPaths::locate(QStandardPaths::ApplicationsLocation, QString::fromLatin1(name));
    if (path.isEmpty()) continue;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) continue;
    if (auto entry = parseDesktopEntry(QString::fromUtf8(file.readAll()))) return entry;
  }
  return std::nullopt;
}

bool launchSystemMonitor() {
  const auto entry = findSystemMonitor();
  if (!entry) return false;
  QStringList args = entry->command;
  const QString program = args.takeFirst();
  return QProcess::startDetached(program, args);
}

}  // namespace pelmora
