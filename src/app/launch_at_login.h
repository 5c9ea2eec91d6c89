#pragma once
// Launch at login: the XDG autostart entry $XDG_CONFIG_HOME/autostart/net.tandrel.pelmora.desktop
// that desktop sessions read at login to start this program.
#include <QString>

#include <filesystem>

namespace pelmora {

class LaunchAtLogin {
 public:
  // The entry for this program in the user's autostart folder.
  static LaunchAtLogin standard();
  LaunchAtLogin(std::filesystem::path entry_file, std::filesystem::path program);

  // Writes the entry (creating the folder); false when it could not be written.
  bool writeEntry() const;
  // The entry exists, parses and starts an executable program.
  bool agentIsValid() const;
  void unlinkAgent() const;
  const std::filesystem::path& file() const { return m_file; }

 private:
  std::filesystem::path m_file;
  std::filesystem::path m_program;
};

// The text of an autostart entry that starts `program`. Pure.
QString autostartEntryText(const QString& program);

}  // namespace pelmora
