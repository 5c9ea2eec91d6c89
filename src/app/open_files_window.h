#pragma once
// The open files of one process: its icon, name and pid and one line per open descriptor with the
// file it refers to, as the helper's "pidfiles" request reports them (the /proc/PID/fd links; other
// users' processes need the helper's administrator rights). Main thread only.
#include <QIcon>
#include <QWidget>

#include <map>
#include <optional>
#include <string>

#include "process_control/procinfo.h"

class QLabel;
class QTableWidget;

namespace pelmora {

class Pelmora;

class OpenFilesWindow : public QWidget {
  Q_OBJECT
 public:
  OpenFilesWindow(Pelmora& helper, const procinfo& process, const QIcon& icon, QWidget* parent = nullptr);

  // Asks the helper again.
  void reload();
  // Shows the given descriptors (none: the files could not be read).
  void showFiles(const std::optional<std::map<int, std::string>>& files);

  QTableWidget* list() const { return m_list; }
  QLabel* status() const { return m_status; }

 private:
  Pelmora& m_helper;
  int32_t m_pid;
  QLabel* m_status = nullptr;
  QTableWidget* m_list = nullptr;
};

}  // namespace pelmora
