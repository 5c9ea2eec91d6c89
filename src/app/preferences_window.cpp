#include "app/preferences_window.h"

#include <QActionGroup>
#include <QIcon>
#include <QStackedWidget>
#include <QToolBar>
#include <QVBoxLayout>

#include "app/preferences_pid.h"
#include "app/process_preferences.h"
#include "app/window_frame.h"
#include "graphs/views/preferences_graph.h"

namespace pelmora {

PreferencesWindow::PreferencesWindow(PreferencesGraph* graph, ProcessPreferences* process, PreferencesPID* pid,
                                     QWidget* parent)
    : QDialog(parent), prefsGraph(graph), prefsProcess(process), prefsPID(pid), m_toolbar(new QToolBar(this)),
      m_panes(new QStackedWidget(this)), m_group(new QActionGroup(this)) {
  setWindowTitle(pelmoraTitle(tr("Preferences")));
  m_toolbar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
  m_toolbar->setMovable(false);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(m_toolbar);
  auto* body = new QVBoxLayout();
  body->setContentsMargins(16, 8, 16, 16);
  body->addWidget(m_panes);
  layout->addLayout(body);
  // The window takes the size of the pane shown.
  layout->setSizeConstraint(QLayout::SetFixedSize);
  addPane(graph, PreferencesGraph::toolbarTitle(), QStringLiteral("preferences-system"));
  addPane(process, ProcessPreferences::toolbarTitle(), QStringLiteral("system-run"));
  addPane(pid, PreferencesPID::toolbarTitle(), QStringLiteral("preferences-other"));
  showPane(0);
  installWindowConventions(this);
}

void PreferencesWindow::addPane(QWidget* pane, const QString& title, const QString& icon) {
  const int index = m_panes->addWidget(pane);
  QAction* action = m_toolbar->addAction(QIcon::fromTheme(icon), title);
  action->setCheckable(true);
  m_group->addAction(action);
  connect(action, &QAction::triggered, this, [this, index] { showPane(index); });
}

void PreferencesWindow::showPane(int index) {
  if (index < 0 || index >= m_panes->count()) return;
  m_panes->setCurrentIndex(index);
  m_group->actions().at(index)->setChecked(true);
  // Each pane has a size of its own; the window follows it.
  for (int i = 0; i < m_panes->count(); ++i)
    m_panes->widget(i)->setSizePolicy(i == index ? QSizePolicy::Preferred : QSizePolicy::Ignored,
                                      i == index ? QSizePolicy::Preferred : QSizePolicy::Ignored);
  adjustSize();
}

int PreferencesWindow::currentPane() const { return m_panes->currentIndex(); }

}  // namespace pelmora
