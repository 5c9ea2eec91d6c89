#pragma once
// The preferences window: a dialog with a toolbar of panes (Graph, Processes, PID), one shown at a
// time. The panes are built once and live as long as the window.
#include <QDialog>

class QActionGroup;
class QStackedWidget;
class QToolBar;

namespace pelmora {

class DefaultSettings;
class Pelmora;
class PreferencesGraph;
class PreferencesPID;
class ProcessPreferences;

class PreferencesWindow : public QDialog {
  Q_OBJECT
 public:
  PreferencesWindow(PreferencesGraph* graph, ProcessPreferences* process, PreferencesPID* pid,
                    QWidget* parent = nullptr);

  // Shows the pane at index (0 Graph, 1 Processes, 2 PID).
  void showPane(int index);
  int currentPane() const;

  PreferencesGraph* prefsGraph;
  ProcessPreferences* prefsProcess;
  PreferencesPID* prefsPID;
  QToolBar* m_toolbar;

 private:
  void addPane(QWidget* pane, const QString& title, const QString& icon);

  QStackedWidget* m_panes;
  QActionGroup* m_group;
};

}  // namespace pelmora
