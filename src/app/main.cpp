// Starts the desktop program: for now the statistics window with the live icon, the "Dock Display"
// menu and the graph preferences.
#include <QAction>
#include <QApplication>
#include <QDialog>
#include <QMenuBar>
#include <QMetaObject>
#include <QSystemTrayIcon>
#include <QVBoxLayout>

#include "app/dock.h"
#include "app/system_stats_window.h"
#include "graphs/graph_switches.h"
#include "graphs/views/preferences_graph.h"
#include "sampling/power_metrics.h"
#include "sampling/system_stats.h"
#include "support/default_settings.h"
#include "support/main_queue.h"
#include "support/mutex.h"

namespace {

using namespace pelmora;

// Sampler deliveries and other core jobs run on Qt's event loop, which is the main thread here.
void installMainQueue(QApplication& app) {
  MainQueue::install([&app](MainQueue::Job job) {
    QMetaObject::invokeMethod(&app, std::move(job), Qt::QueuedConnection);
  });
}

QDialog* makePreferences(DefaultSettings& store, QWidget* parent) {
  auto* dialog = new QDialog(parent);
  dialog->setWindowTitle(QObject::tr("Preferences"));
  auto* layout = new QVBoxLayout(dialog);
  auto* pane = new PreferencesGraph(store, dialog);
  layout->addWidget(pane);
  QObject::connect(pane, &PreferencesGraph::graphSettingsChanged, dialog, [] {
    if (auto* window = SystemStatsWindow::instance()) window->graphSettingsChanged();
  });
  QObject::connect(pane, &PreferencesGraph::frequencySamplingChanged, dialog,
                   [](bool use, int interval_s, int sample_interval_ms) {
                     const auto& reader = PowerMetrics::shared();
                     reader->setInterval(interval_s);  // takes the reader's lock itself
                     MutexLock lock(reader->mutex());
                     reader->setUsePowermetrics(use);
                     reader->setSampleInterval(sample_interval_ms);
                   });
  return dialog;
}

void addMenus(SystemStatsWindow& window, Dock& dock, QDialog& preferences) {
  QMenu* file = window.menuBar()->addMenu(QObject::tr("&File"));
  QAction* prefs = file->addAction(QObject::tr("Preferences…"));
  prefs->setShortcut(QKeySequence::Preferences);
  QObject::connect(prefs, &QAction::triggered, &preferences, [&preferences] {
    preferences.show();
    preferences.raise();
  });
  QAction* font = file->addAction(QObject::tr("Default Font"));
  QObject::connect(font, &QAction::triggered, &window, [&window] { window.setLabelFont(QFont()); });
  file->addSeparator();
  QAction* quit = file->addAction(QObject::tr("Quit"));
  quit->setShortcut(QKeySequence::Quit);
  QObject::connect(quit, &QAction::triggered, qApp, &QApplication::quit);
  QMenu* view = window.menuBar()->addMenu(QObject::tr("&View"));
  view->addMenu(dock.makeMenu(&window));
}

// Where the desktop shows no live window icon (Wayland), the tray carries the live graph instead.
QSystemTrayIcon* makeTrayIfNeeded(Dock& dock, QObject* parent) {
  if (QGuiApplication::platformName() != QLatin1String("wayland") || !QSystemTrayIcon::isSystemTrayAvailable())
    return nullptr;
  auto* tray = new QSystemTrayIcon(dock.icon(), parent);
  QObject::connect(&dock, &Dock::iconChanged, tray, &QSystemTrayIcon::setIcon);
  tray->show();
  return tray;
}

}  // namespace

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Pelmora"));
  installMainQueue(app);

  DefaultSettings& store = DefaultSettings::shared();
  GraphSwitches::current() = GraphSwitches::load(store);
  SystemStats& sampler = SystemStats::shared();

  Dock dock(sampler, store);
  makeTrayIfNeeded(dock, &app);
  SystemStatsWindow* window = SystemStatsWindow::openShared(sampler, store);
  QDialog* preferences = makePreferences(store, window);
  addMenus(*window, dock, *preferences);
  const int status = app.exec();
  MainQueue::install(nullptr);
  return status;
}
