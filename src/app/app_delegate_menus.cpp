// The main menu, the Dock Display menu, the tray menu's actions and what the menu items do.
#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QDialog>
#include <QFileDialog>
#include <QLayout>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QTextBrowser>
#include <QUrl>
#include <QVBoxLayout>

#include <filesystem>
#include <system_error>

#include "app/app_delegate.h"
#include "app/dock.h"
#include "app/preferences_pid.h"
#include "app/preferences_window.h"
#include "app/process_preferences.h"
#include "app/procinfo_window.h"
#include "app/status_bar_controller.h"
#include "app/system_stats_window.h"
#include "app/window_frame.h"
#include "graphs/graph_switches.h"
#include "graphs/views/preferences_graph.h"
#include "process_control/power_monitor.h"
#include "sampling/power_metrics.h"
#include "support/mutex.h"
#include "support/logger.h"
#include "support/paths.h"

namespace pelmora {

namespace fs = std::filesystem;

namespace {

void configureFrequencyReader(bool use, int interval_s, int sample_interval_ms) {
  const auto& reader = PowerMetrics::shared();
  reader->setInterval_s(interval_s);  // takes the reader's lock itself
  MutexLock lock(reader->mutex());
  reader->setUsePowermetrics(use);
  reader->setSampleInterval_ms(sample_interval_ms);
}

QAction* addItem(QMenu* menu, const QString& text, QObject* context, std::function<void()> action,
                 QKeySequence shortcut = {}) {
  QAction* item = menu->addAction(text);
  if (!shortcut.isEmpty()) item->setShortcut(shortcut);
  QObject::connect(item, &QAction::triggered, context, [action = std::move(action)] { action(); });
  return item;
}

// The command-line tool: beside this program (installed), in the build tree's cli folder, or in the
// libexec folder.
std::string findTool() {
  const fs::path here = QCoreApplication::applicationDirPath().toStdString();
  for (const fs::path& candidate : {here / "pelmora", here.parent_path() / "cli" / "pelmora",
                                    fs::path(PELMORA_LIBEXEC_DIR) / "pelmora"}) {
    std::error_code ec;
    if (fs::is_regular_file(candidate, ec)) return candidate.string();
  }
  return {};
}

// Ctrl+Q and Ctrl+, where the platform theme binds nothing to Quit or Preferences (the generic and
// several desktop themes leave Preferences empty): the keys GNOME and KDE programs use.
QKeySequence quitKey() { return standardKey(QKeySequence::Quit, QKeySequence(Qt::CTRL | Qt::Key_Q)); }
QKeySequence preferencesKey() {
  return standardKey(QKeySequence::Preferences, QKeySequence(Qt::CTRL | Qt::Key_Comma));
}

}  // namespace

bool copyTool(const std::string& source, const std::string& target, std::string& error) {
  std::error_code ec;
  fs::remove(target, ec);  // the unlink: a link at the target is replaced, never followed
  if (!fs::copy_file(source, target, fs::copy_options::overwrite_existing, ec)) {
    error = ec ? ec.message() : "not copied";
    return false;
  }
  return true;
}

void AppDelegate::createPreferences() {
  DefaultSettings& store = m_services.store;
  auto* graph = new PreferencesGraph(store);
  // The boot-time settings text comes from the CPU settings window, which is made after this pane.
  auto* process = new ProcessPreferences(
      store, m_services.helper,
      [this]() -> std::optional<BootControls> {
        if (!m_window) return std::nullopt;
        return m_window->bootControls();
      },
      ProcessPreferences::Options{});
  auto* pid = new PreferencesPID(store);
  auto* dialog = new PreferencesWindow(graph, process, pid);
  connect(graph, &PreferencesGraph::graphSettingsChanged, dialog, [this] {
    if (auto* window = SystemStatsWindow::instance()) window->graphSettingsChanged();
    if (m_dock) m_dock->graphSettingsChanged();
  });
  connect(graph, &PreferencesGraph::frequencySamplingChanged, dialog, [](bool use, int interval_s, int sample_ms) {
    configureFrequencyReader(use, interval_s, sample_ms);
    const auto& reader = PowerMetrics::shared();
    MutexLock lock(reader->mutex());
    if (use)
      reader->start();
    else
      reader->stop();
  });
  // The pane applied its settings while being built, before anything listened: hand the reader its
  // values now, but leave starting it to the sampler, which runs it only while a graph is shown.
  const GraphSwitches& current = GraphSwitches::current();
  configureFrequencyReader(current.show_cpu_frequency, static_cast<int>(current.updateInterval_us() / 1'000'000),
                           static_cast<int>(current.freq_sample_interval_ms));
  m_preferences = dialog;
  connect(this, &QObject::destroyed, dialog, &QObject::deleteLater);
}

void AppDelegate::savePreferences() {
  auto* dialog = qobject_cast<PreferencesWindow*>(m_preferences.data());
  if (!dialog) return;
  dialog->prefsProcess->save();
  GraphSwitches::current().save(m_services.store);
  dialog->prefsPID->save();
}

void AppDelegate::createDockMenu() {
  m_dock_menu = new QMenu(tr("&Dock Display"));
  for (int i = 0; i < Dock::kDisplayCount; ++i) {
    QAction* item = m_dock_menu->addAction(Dock::displayName(static_cast<Dock::Display>(i)));
    item->setCheckable(true);
    connect(item, &QAction::triggered, this, [this, item] { dockMenu(item); });
  }
  connect(m_dock_menu, &QMenu::aboutToShow, this, &AppDelegate::updateDockMenuChecks);
  updateDockMenuChecks();
}

void AppDelegate::updateDockMenuChecks() {
  const auto items = m_dock_menu->actions();
  const int current = m_dock ? static_cast<int>(m_dock->displayType()) : -1;
  for (int i = 0; i < items.size(); ++i) items[i]->setChecked(i == current);
}

void AppDelegate::dockMenu(QAction* sender) {
  if (!sender) return;
  int index = -1;
  const auto items = m_dock_menu->actions();
  for (int i = 0; i < items.size(); ++i) {
    items[i]->setChecked(items[i] == sender);
    if (items[i] == sender) index = i;
  }
  // An item from elsewhere selects nothing, which the Dock reads as its plain icon.
  m_dock->setDisplay(Dock::displayFromRaw(index));
}

void AppDelegate::buildMainMenus() {
  QMenu* file = new QMenu(tr("&File"));
  addItem(file, tr("&Preferences…"), this, [this] { showPreferences(); }, preferencesKey());
  addItem(file, tr("&Extract the command line tool …"), this, [this] { extractCLI(); });
  file->addSeparator();
  addItem(file, tr("&Quit"), this, [this] { quit(); }, quitKey());

  m_view_menu = new QMenu(tr("&View"));
  m_view_menu->addMenu(m_dock_menu);
  m_process_columns = m_view_menu->addAction(tr("Process &Columns"));
  connect(m_view_menu, &QMenu::aboutToShow, this, &AppDelegate::updateProcessColumns);
  updateProcessColumns();
  addItem(m_view_menu, tr("&Switch Power Source"), this, [this] { switchPower(); });

  QMenu* window = new QMenu(tr("&Window"));
  addItem(window, tr("&CPU Settings"), this, [this] { showPelmora(); });
  addItem(window, tr("&Processes"), this, [this] { showProcesses(); });
  addItem(window, tr("&Statistics"), this, [this] { showSystemStats(); });
  window->addSeparator();
  addItem(window, tr("&Bring All to Front"), this, [this] { openWindows(); });
  addItem(window, tr("&Hide Pelmora"), this, [this] { hidePelmora(); });

  QMenu* help = new QMenu(tr("&Help"));
  addItem(help, tr("Pelmora &Help"), this, [this] { openHelp(); },
          standardKey(QKeySequence::HelpContents, QKeySequence(Qt::Key_F1)));
  addItem(help, tr("Show &Log File"), this, [this] { showLogFile(); });
  addItem(help, tr("Show Log &Folder"), this, [this] { showLogFolder(); });
  help->addSeparator();
  addItem(help, tr("&About Pelmora"), this, [this] { showAbout(); });
  m_main_menus = {file, m_view_menu, window, help};

  QMenu* tray = m_menubar->statusMenu();
  addItem(tray, tr("&Open Pelmora"), this, [this] { openWindows(); });
  addItem(tray, tr("&Processes"), this, [this] { showProcesses(); });
  addItem(tray, tr("&Statistics"), this, [this] { showSystemStats(); });
  tray->addMenu(m_dock_menu);
  addItem(tray, tr("P&references…"), this, [this] { showPreferences(); });
  tray->addSeparator();
  addItem(tray, tr("&Quit"), this, [this] { quit(); });
  attachMenuBar(m_window);
}

// The same four menus in every window's menu bar (a Linux desktop has no global one).
void AppDelegate::attachMenuBar(QWidget* window) {
  if (!window || window->property("pelmoraMenus").toBool()) return;
  auto* main = qobject_cast<QMainWindow*>(window);
  QMenuBar* bar = main ? main->menuBar() : new QMenuBar(window);
  if (main) bar->clear();
  for (QMenu* menu : m_main_menus) bar->addMenu(menu);
  if (!main && window->layout()) window->layout()->setMenuBar(bar);
  window->setProperty("pelmoraMenus", true);
}

void AppDelegate::updateProcessColumns() {
  ProcinfoWindow* processes = ProcinfoWindow::shared();
  m_process_columns->setMenu(processes ? processes->columnsMenu() : nullptr);
  m_process_columns->setEnabled(processes != nullptr);
}

// Qt closes every window on its way out: the window keys are saved before that.
void AppDelegate::quit() {
  terminate();
  QCoreApplication::quit();
}

void AppDelegate::openWindows() {
  for (QWidget* window : ourWindows()) {
    // show() leaves a minimised window minimised: bringing it forward restores it.
    window->setWindowState(window->windowState() & ~Qt::WindowMinimized);
    window->show();
    window->raise();
    window->activateWindow();
  }
}

void AppDelegate::hidePelmora() {
  for (QWidget* window : ourWindows()) window->hide();
}

void AppDelegate::showPelmora() {
  if (!m_window) return;
  m_window->show();
  m_window->raise();
  m_window->activateWindow();
}

void AppDelegate::showProcesses() {
  ProcinfoWindow& window = ProcinfoWindow::open(m_services.limiter, m_services.helper, m_services.store);
  attachMenuBar(&window);
  setTaskBarPresence(m_task_bar);
  window.show();
}

void AppDelegate::showSystemStats() {
  SystemStatsWindow* window = SystemStatsWindow::openShared(m_services.sampler, m_services.store);
  attachMenuBar(window);
  setTaskBarPresence(m_task_bar);
  window->show();
}

void AppDelegate::showPreferences() {
  if (!m_preferences) return;
  m_preferences->show();
  m_preferences->raise();
  m_preferences->activateWindow();
}

void AppDelegate::switchPower() { m_services.power.switchSource(); }

void AppDelegate::extractCLI() {
  QFileDialog dialog(m_window, tr("Extract the command line tool ..."));
  dialog.setAcceptMode(QFileDialog::AcceptSave);
  dialog.setLabelText(QFileDialog::Accept, tr("Extract"));
  dialog.selectFile(QStringLiteral("pelmora"));
  if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return;
  extractCLITo(dialog.selectedFiles().first().toStdString());
}

void AppDelegate::extractCLITo(const std::string& target) {
  const std::string tool = findTool();
  if (tool.empty()) return;
  std::string error;
  if (!copyTool(tool, target, error)) Log("Extract pelmora: " + error);
}

void AppDelegate::openHelp() {
  if (!m_help) {
    m_help = new QTextBrowser;
    m_help->setAttribute(Qt::WA_DeleteOnClose);
    m_help->setWindowTitle(pelmoraTitle(tr("Help")));
    m_help->setOpenExternalLinks(true);
    m_help->resize(640, 560);
    installWindowConventions(m_help);
    const QString folder = QString::fromStdString((paths::resourcesDir() / "help").string());
    m_help->setSearchPaths({folder});
    m_help->setSource(QUrl::fromLocalFile(folder + "/index.html"));
  }
  m_help->show();
  m_help->raise();
  m_help->activateWindow();
}

bool AppDelegate::reveal(const std::string& path) {
  if (m_services.reveal) return m_services.reveal(path);
  return QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(path)));
}

void AppDelegate::showLogFile() {
  const std::string path = Logger::shared().path().string();
  if (path.empty() || reveal(path)) return;
  // Minimal desktops often have no application for plain text: say so rather than do nothing.
  auto* box = new QMessageBox(QMessageBox::Information, pelmoraTitle(tr("Log File")),
                              tr("No application is set to open the log file."), QMessageBox::NoButton, m_window);
  box->setInformativeText(QString::fromStdString(path));
  box->setTextInteractionFlags(Qt::TextSelectableByMouse);
  QPushButton* folder = box->addButton(tr("Show &Folder"), QMessageBox::AcceptRole);
  box->addButton(QMessageBox::Close);
  box->setAttribute(Qt::WA_DeleteOnClose);
  connect(folder, &QPushButton::clicked, this, [this] { showLogFolder(); });
  m_log_message = box;
  box->show();
}

void AppDelegate::showLogFolder() {
  const std::string path = Logger::shared().path().parent_path().string();
  if (!path.empty()) reveal(path);
}

void AppDelegate::showAbout() {
  if (!m_about) {
    auto* box = new QMessageBox(QMessageBox::Information, tr("About Pelmora"),
                                tr("<b>Pelmora %1</b><p>Watches and steers how the processors are used: "
                                   "live graphs of every metric, processors switched on and off, and "
                                   "processes held to a share of one processor.</p>"
                                   "<p>Open Help &gt; Pelmora Help to get started.</p>")
                                    .arg(QStringLiteral(PELMORA_VERSION)),
                                QMessageBox::Ok);
    box->setAttribute(Qt::WA_DeleteOnClose);
    // A message box is application-modal by default: at first launch that would lock the CPU
    // settings window, and every key, until the box is dismissed.
    box->setWindowModality(Qt::NonModal);
    m_about = box;
  }
  m_about->show();
  m_about->raise();
}

}  // namespace pelmora
