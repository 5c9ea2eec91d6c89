#pragma once
// The process window: a sortable, filterable table of every process from the limiter's table, and a
// detail area for the selected process where its CPU limit and priority are set for either power
// source. The table is rebuilt at every "net.tandrel.pelmora.processesupdated" and merged into the
// model in place, so selection and scroll position survive refreshes. One window per program (the
// shared instance), cleared when it closes; the application uses its existence as "open".
//
// Main thread only. The limiter's table is read through its own locked accessors; setLimit is the
// one call made with the limiter's mutex held by us, as the limiter requires.
#include <QFont>
#include <QPointer>
#include <QWidget>

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "app/process_columns.h"
#include "app/slider_stepper.h"

class QAction;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QMenu;
class QPushButton;
class QSpinBox;
class QTableView;
class QToolButton;

namespace pelmora {

class ApplicationList;
class CPULimiter;
class DefaultSettings;
class Pelmora;
class ProcessTableModel;

inline constexpr const char* kProcinfoListenerKey = "net.tandrel.pelmora.authchanged.ProcinfoWindow";

class ProcinfoWindow : public QWidget, public SliderStepperDelegate {
  Q_OBJECT
 public:
  // Seams for tests: the processes counted as applications, and the question asked before ending a
  // process (true: go ahead).
  using ApplicationPids = std::function<std::set<int32_t>(const std::map<int32_t, procinfo>& table)>;
  using Confirm = std::function<bool(const QString& question)>;

  ProcinfoWindow(CPULimiter& limiter, Pelmora& helper, DefaultSettings& settings, QWidget* parent = nullptr);
  ~ProcinfoWindow() override;

  // The open window, or null.
  static ProcinfoWindow* shared();
  // Opens (creating when needed) the shared window and brings it up.
  static ProcinfoWindow& open(CPULimiter& limiter, Pelmora& helper, DefaultSettings& settings);

  void setApplicationPids(ApplicationPids provider) { m_application_pids = std::move(provider); }
  void setConfirm(Confirm confirm) { m_confirm = std::move(confirm); }
  // The user whose processes are "mine" (getuid() unless a test says otherwise); rebuilds.
  void setUid(uint32_t uid);

  // The column chooser ("Select Columns"); the application also puts it into its main menu.
  QMenu* columnsMenu() const { return m_columns_menu; }

  // Reads the limiter's table and rebuilds the rows (the "processesupdated" handler).
  void rebuild();

  // Actions.
  void viewProcesses(processesView view);
  // Shows children indented under their parents (true) or a flat list; kept under "process_tree".
  void setTreeView(bool tree);
  bool treeView() const { return m_tree; }
  void changeSearch(const QString& text);
  void setSearchType(int index);  // 0: name contains, 1: name does not contain
  void sortBy(const std::string& key, bool ascending);
  void selectPid(int32_t pid);
  void changePowerSource(int index);  // 0: "AC Power", 1: "Battery Power"
  void clearLimit();
  void clearAllLimits();
  void authorise();
  void quitSelected();
  void forceQuitSelected();
  void showInFileManager();
  void bringToFront();
  void showOpenFiles();
  void updateFrequency(int64_t interval_ms);
  void changeFont();
  void defaultFont();
  void setColumnVisible(const std::string& id, bool visible);

  void sliderStepperValueChanged(SliderStepper& sender) override;
  // "Include child processes": the limit holds the selected process with all its descendants.
  void includeChildrenChanged(bool include);
  void reniceValueChanged(int value);

  // State, for tests and the application.
  int32_t selectedPid() const { return m_selected_pid; }
  const std::string& sortKey() const { return m_sort_key; }
  bool sortAscending() const { return m_sort_ascending; }
  processesView processFilter() const { return m_process_filter; }
  ProcessTableModel& model() const { return *m_model; }
  QTableView* table() const { return m_table; }
  SliderStepper* limitControl() const { return m_limit; }
  QCheckBox* includeChildrenControl() const { return m_limit_tree; }
  QSpinBox* reniceControl() const { return m_renice; }
  QWidget* coverBox() const { return m_cover_box; }
  QLabel* headerTitle() const { return m_header_title; }
  QPushButton* clearLimitButton() const { return m_clear_limit; }
  QPushButton* authButton() const { return m_auth; }
  QLabel* nameLabel() const { return m_name; }
  QLabel* pctCpuLabel() const { return m_pct_cpu; }

 protected:
  void closeEvent(QCloseEvent* event) override;
  // While shown, the window is a client of the limiter's full table; hidden, it neither asks for
  // the table nor rebuilds its rows.
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;

 private:
  void setTableClient(bool client);
  void buildHeader(QWidget* header);
  void buildDetail(QWidget* detail);
  void buildMenus();
  void buildActionMenus();
  void buildColumnsMenu();
  void fitColumns();
  void loadSettings();
  void saveSettings();
  void listen();
  void unlisten();
  void onSelectionChanged();
  void refreshDetail();
  void updateEnabledState();
  void updateHeaderTitle();
  void checkFilterItem();
  std::string shownPower() const;
  std::optional<ProcessRow> selectedRow() const;
  bool mayControl(const ProcessRow& row) const;
  void endSelected(int signal, const QString& question);

  CPULimiter& m_limiter;
  Pelmora& m_helper;
  DefaultSettings& m_settings;

  QWidget* m_cover_box = nullptr;
  QLabel* m_instruction = nullptr;
  QLabel* m_icon = nullptr;
  QLabel* m_name = nullptr;
  QLabel* m_pid = nullptr;
  QPushButton* m_clear_limit = nullptr;
  QPushButton* m_clear_all = nullptr;
  QLabel* m_pct_cpu = nullptr;
  QLabel* m_pid_waiting = nullptr;
  QLabel* m_pid_idle = nullptr;
  QWidget* m_ph_limit = nullptr;
  QLabel* m_label_renice = nullptr;
  QWidget* m_ph_renice = nullptr;
  QTableView* m_table = nullptr;
  QPushButton* m_auth = nullptr;
  QLabel* m_mode = nullptr;  // who serves the helper requests
  QComboBox* m_power_source = nullptr;
  QComboBox* m_header_search_type = nullptr;
  QLabel* m_header_title = nullptr;
  QLineEdit* m_header_search = nullptr;
  QMenu* m_header_action = nullptr;
  QMenu* m_header_frequency = nullptr;
  QMenu* m_header_view_processes = nullptr;
  QMenu* m_columns_menu = nullptr;
  QMenu* m_popup_menu = nullptr;
  QAction* m_act_quit = nullptr;
  QAction* m_act_force_quit = nullptr;
  QAction* m_act_show_files = nullptr;
  QAction* m_act_file_manager = nullptr;
  QAction* m_act_front = nullptr;
  QAction* m_act_clear_all = nullptr;
  QWidget* m_details = nullptr;
  SliderStepper* m_limit = nullptr;
  QCheckBox* m_limit_tree = nullptr;
  bool m_limit_tree_pending = false;  // ticked for a process not limited yet: applies with its share
  QSpinBox* m_renice = nullptr;
  bool m_updating = false;
  bool m_table_client = false;
  ProcessTableModel* m_model = nullptr;
  std::string m_sort_key = "pctcpu";
  bool m_sort_ascending = false;
  int32_t m_selected_pid = -1;
  std::string m_search;
  bool m_tree = false;  // children under their parents
  QAction* m_act_tree = nullptr;
  uint32_t m_uid;
  QFont m_font;
  QFont m_default_font;
  processesView m_process_filter = processesView::all;

  ApplicationPids m_application_pids;
  Confirm m_confirm;
  std::unique_ptr<ApplicationList> m_applications;
};

}  // namespace pelmora
