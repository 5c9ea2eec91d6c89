#include "app/open_files_window.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include "helper_link/pelmora.h"

namespace pelmora {

OpenFilesWindow::OpenFilesWindow(Pelmora& helper, const procinfo& process, const QIcon& icon, QWidget* parent)
    : QWidget(parent, Qt::Window), m_helper(helper), m_pid(process.pid) {
  const QString name = QString::fromStdString(process.name);
  setWindowTitle(tr("Open Files of %1").arg(name));
  auto* layout = new QVBoxLayout(this);
  auto* top = new QHBoxLayout();
  auto* icon_label = new QLabel(this);
  icon_label->setPixmap(icon.pixmap(32, 32));
  auto* title = new QLabel(tr("<b>%1</b>  PID %2").arg(name.toHtmlEscaped()).arg(process.pid), this);
  auto* reload_button = new QPushButton(tr("Reload"), this);
  top->addWidget(icon_label);
  top->addWidget(title, 1);
  top->addWidget(reload_button);
  layout->addLayout(top);
  m_list = new QTableWidget(0, 2, this);
  m_list->setHorizontalHeaderLabels({tr("Descriptor"), tr("File")});
  m_list->horizontalHeader()->setStretchLastSection(true);
  m_list->verticalHeader()->hide();
  m_list->setEditTriggers(QAbstractItemView::NoEditTriggers);
  m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
  layout->addWidget(m_list, 1);
  m_status = new QLabel(this);
  layout->addWidget(m_status);
  connect(reload_button, &QPushButton::clicked, this, [this] { reload(); });
  resize(640, 420);
  reload();
}

void OpenFilesWindow::reload() { showFiles(m_helper.pidFiles(m_pid, m_helper.authorised())); }

void OpenFilesWindow::showFiles(const std::optional<std::map<int, std::string>>& files) {
  m_list->setRowCount(0);
  if (!files) {
    m_status->setText(tr("The open files of this process cannot be read (it has ended, or it belongs to "
                         "another user and the helper is not authorized)."));
    return;
  }
  m_list->setRowCount(static_cast<int>(files->size()));
  int row = 0;
  for (const auto& [fd, path] : *files) {
    auto* fd_item = new QTableWidgetItem(QString::number(fd));
    fd_item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
    m_list->setItem(row, 0, fd_item);
    m_list->setItem(row, 1, new QTableWidgetItem(QString::fromStdString(path)));
    ++row;
  }
  m_list->resizeColumnToContents(0);
  m_status->setText(tr("%n open file(s)", nullptr, static_cast<int>(files->size())));
}

}  // namespace pelmora
