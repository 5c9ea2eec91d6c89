#include "app/launch_at_login.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include "app/system_monitor_entry.h"
#include "support/paths.h"

namespace pelmora {

namespace fs = std::filesystem;

QString autostartEntryText(const QString& program) {
  // Exec needs quoting when the path has spaces; desktop entries quote with double quotes.
  const QString exec = program.contains(QLatin1Char(' ')) ? QLatin1Char('"') + program + QLatin1Char('"') : program;
  return QStringLiteral(
             "[Desktop Entry]\n"
             "Type=Application\n"
             "Name=Pelmora\n"
             "Comment=Processor settings, limits and system graphs\n"
             "Exec=%1\n"
             "Icon=pelmora\n"
             "Terminal=false\n"
             "X-GNOME-Autostart-enabled=true\n")
      .arg(exec);
}

LaunchAtLogin LaunchAtLogin::standard() {
  const QString program = QCoreApplication::applicationFilePath();
  return LaunchAtLogin(paths::autostartDir() / "net.tandrel.pelmora.desktop", program.toStdString());
}

LaunchAtLogin::LaunchAtLogin(fs::path entry_file, fs::path program)
    : m_file(std::move(entry_file)), m_program(std::move(program)) {}

bool LaunchAtLogin::writeEntry() const {
  std::error_code ec;
  fs::create_directories(m_file.parent_path(), ec);
  QSaveFile out(QString::fromStdString(m_file.string()));
  if (!out.open(QIODevice::WriteOnly)) return false;
  out.write(autostartEntryText(QString::fromStdString(m_program.string())).toUtf8());
  return out.commit();
}

bool LaunchAtLogin::agentIsValid() const {
  QFile in(QString::fromStdString(m_file.string()));
  if (!in.open(QIODevice::ReadOnly)) return false;
  const auto entry = parseDesktopEntry(QString::fromUtf8(in.readAll()));
  if (!entry) return false;
  const QFileInfo program(entry->command.first());
  return program.isFile() && program.isExecutable();
}

void LaunchAtLogin::unlinkAgent() const {
  std::error_code ec;
  fs::remove(m_file, ec);
}

}  // namespace pelmora
