// The process window: building the widgets, settings, broadcasts, and rebuilding the rows.
#include "app/procinfo_window.h"

#include <QActionGroup>
#include <QCloseEvent>
#include <QComboBox>
#include <QFontMetrics>
#include <QHeaderView>
#include <QHBoxLayout>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QStackedLayout>
#include <QTableView>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "app/application_list.h"
#include "app/process_table_model.h"
#include "app/window_frame.h"
#include "process_control/cpu_limiter.h"
#include "process_control/proc_settings.h"
#include "support/broadcast.h"
#include "support/default_settings.h"
#include "support/pid.h"
#include "support/settings_keys.h"

namespace pelmora {
namespace {

constexpr const char* kAuthChanged = "net.tandrel.pelmora.authchanged";
constexpr const char* kCpuChanged = "net.tandrel.pelmora.cpuchanged";
constexpr const char* kPowerSource = "pelmora.powersource";

ProcinfoWindow* g_shared = nullptr;

const char* filterTitle(processesView view) {
  switch (view) {
    case processesView::all: return "All Processes";
    case processesView::mine: return "My Processes";
    case processesView::system: return "System Processes";
    case processesView::other: return "Other User Processes";
    case processesView::application: return "Applications";
  }
  return "All Processes";
}

// Columns most people do not need at first; the column chooser shows them.
bool hiddenAtFirst(const std::string& id) {
  return id == "kind" || id == "uid" || id == "sleep" || id == "memvirtual";
}

bool confirmByDialog(QWidget* parent, const QString& question) {
  return QMessageBox::question(parent, QObject::tr("End Process"), question,
                               QMessageBox::Cancel | QMessageBox::Ok, QMessageBox::Cancel) == QMessageBox::Ok;
}

uint64_t wallClock_ns() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
}

}  // namespace

ProcinfoWindow* ProcinfoWindow::shared() { return g_shared; }

ProcinfoWindow& ProcinfoWindow::open(CPULimiter& limiter, Pelmora& helper, DefaultSettings& settings) {
  if (!g_shared) {
    auto* window = new ProcinfoWindow(limiter, helper, settings);
    window->setAttribute(Qt::WA_DeleteOnClose);
  }
  g_shared->show();
  g_shared->raise();
  g_shared->activateWindow();
  return *g_shared;
}

ProcinfoWindow::ProcinfoWindow(CPULimiter& limiter, Pelmora& helper, DefaultSettings& settings, QWidget* parent)
    : QWidget(parent), m_limiter(limiter), m_helper(helper), m_settings(settings), m_uid(::getuid()) {
  setWindowTitle(pelmoraTitle(tr("Processes")));
  m_model = new ProcessTableModel(this);
  m_confirm = [this](const QString& question) { return confirmByDialog(this, question); };
  m_application_pids = [this](const std::map<int32_t, procinfo>& table) {
    if (!m_applications) m_applications = std::make_unique<ApplicationList>();
    std::vector<std::pair<int32_t, std::string>> candidates;
    candidates.reserve(table.size());
    for (const auto& [pid, info] : table) candidates.emplace_back(pid, info.name);
    return m_applications->applicationPids(candidates);
  };

  auto* layout = new QVBoxLayout(this);
  auto* header = new QWidget(this);
  buildHeader(header);
  layout->addWidget(header);
  m_table = new QTableView(this);
  layout->addWidget(m_table, 1);
  auto* detail = new QWidget(this);
  buildDetail(detail);
  layout->addWidget(detail);

  m_table->setModel(m_model);
  m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
  m_table->setSelectionMode(QAbstractItemView::SingleSelection);
  m_table->setAlternatingRowColors(true);
  m_table->setShowGrid(false);
  m_table->setWordWrap(false);
  m_table->verticalHeader()->hide();
  m_table->horizontalHeader()->setSortIndicatorShown(true);
  m_table->horizontalHeader()->setSectionsClickable(true);
  m_table->horizontalHeader()->setSectionsMovable(true);
  m_table->setContextMenuPolicy(Qt::CustomContextMenu);
  m_default_font = m_table->font();
  buildMenus();

  connect(m_table->horizontalHeader(), &QHeaderView::sortIndicatorChanged, this, [this](int section, Qt::SortOrder order) {
    if (!m_updating) sortBy(ProcessTableModel::columnId(section), order == Qt::AscendingOrder);
  });
  connect(m_table->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] { onSelectionChanged(); });
  connect(m_table, &QWidget::customContextMenuRequested, this, [this](const QPoint& pos) {
    const QModelIndex index = m_table->indexAt(pos);
    if (index.isValid()) selectPid(m_model->pidAt(index.row()));
    m_popup_menu->popup(m_table->viewport()->mapToGlobal(pos));
  });

  loadSettings();
  listen();
  g_shared = this;
  resize(1040, 640);
  installWindowConventions(this, &m_settings, &keys::kProcinfoWindowFrame);
  rebuild();
  fitColumns();
}

// Columns as wide as their first contents, with room for long process names; the user's widths win
// from then on.
void ProcinfoWindow::fitColumns() {
  m_table->verticalHeader()->setDefaultSectionSize(m_table->fontMetrics().height() + 8);
  m_table->resizeColumnsToContents();
  const int process = ProcessTableModel::columnOf("process");
  m_table->setColumnWidth(process, std::max(m_table->columnWidth(process), 200));
  // A long command line is read in its tooltip; the column takes what room is left.
  const int command = ProcessTableModel::columnOf("command");
  m_table->setColumnWidth(command, std::min(m_table->columnWidth(command), 480));
  m_table->horizontalHeader()->setStretchLastSection(true);
}

ProcinfoWindow::~ProcinfoWindow() {
  setTableClient(false);
  unlisten();
  if (g_shared == this) g_shared = nullptr;
}

void ProcinfoWindow::closeEvent(QCloseEvent* event) {
  saveSettings();
  unlisten();
  if (g_shared == this) g_shared = nullptr;
  QWidget::closeEvent(event);
}

void ProcinfoWindow::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  setTableClient(true);
  // Refreshes that came while hidden were not drawn.
  rebuild();
}

void ProcinfoWindow::hideEvent(QHideEvent* event) {
  setTableClient(false);
  QWidget::hideEvent(event);
}

void ProcinfoWindow::setTableClient(bool client) {
  if (m_table_client == client) return;
  m_table_client = client;
  if (client)
    m_limiter.addTableClient();
  else
    m_limiter.removeTableClient();
}

void ProcinfoWindow::buildHeader(QWidget* header) {
  auto* row = new QHBoxLayout(header);
  row->setContentsMargins(0, 0, 0, 0);
  auto* view_button = new QToolButton(header);
  view_button->setText(tr("View"));
  view_button->setPopupMode(QToolButton::InstantPopup);
  m_header_view_processes = new QMenu(view_button);
  view_button->setMenu(m_header_view_processes);
  m_header_title = new QLabel(header);
  QFont title_font = m_header_title->font();
  title_font.setBold(true);
  title_font.setPointSizeF(title_font.pointSizeF() * 1.15);
  m_header_title->setFont(title_font);
  m_header_search_type = new QComboBox(header);
  m_header_search_type->addItems({tr("Name contains"), tr("Name does not contain")});
  m_header_search = new QLineEdit(header);
  m_header_search->setPlaceholderText(tr("Search"));
  m_header_search->setClearButtonEnabled(true);
  m_header_search->setMaximumWidth(220);
  auto* find = new QAction(this);
  find->setShortcut(standardKey(QKeySequence::Find, QKeySequence(Qt::CTRL | Qt::Key_F)));
  connect(find, &QAction::triggered, m_header_search, [this] {
    m_header_search->setFocus(Qt::ShortcutFocusReason);
    m_header_search->selectAll();
  });
  addAction(find);
  auto* action_button = new QToolButton(header);
  action_button->setText(tr("Actions"));
  action_button->setPopupMode(QToolButton::InstantPopup);
  m_header_action = new QMenu(action_button);
  action_button->setMenu(m_header_action);
  auto* frequency_button = new QToolButton(header);
  frequency_button->setText(tr("Refresh"));
  frequency_button->setPopupMode(QToolButton::InstantPopup);
  m_header_frequency = new QMenu(frequency_button);
  frequency_button->setMenu(m_header_frequency);
  auto* columns_button = new QToolButton(header);
  columns_button->setText(tr("Columns"));
  columns_button->setPopupMode(QToolButton::InstantPopup);
  m_columns_menu = new QMenu(tr("Select Columns"), columns_button);
  columns_button->setMenu(m_columns_menu);
  for (QWidget* w : std::initializer_list<QWidget*>{view_button, m_header_title}) row->addWidget(w);
  row->addStretch(1);
  for (QWidget* w : std::initializer_list<QWidget*>{m_header_search_type, m_header_search, action_button,
                                                    frequency_button, columns_button})
    row->addWidget(w);
  connect(m_header_search, &QLineEdit::textChanged, this, [this](const QString& text) { changeSearch(text); });
  connect(m_header_search_type, &QComboBox::currentIndexChanged, this, [this](int index) { setSearchType(index); });
}

void ProcinfoWindow::buildMenus() {
  auto* group = new QActionGroup(this);
  for (int v = 0; v <= static_cast<int>(processesView::application); ++v) {
    const auto view = static_cast<processesView>(v);
    QAction* action = m_header_view_processes->addAction(tr(filterTitle(view)));
    action->setCheckable(true);
    action->setData(v);
    group->addAction(action);
    connect(action, &QAction::triggered, this, [this, view] { viewProcesses(view); });
  }
  m_header_view_processes->addSeparator();
  m_act_tree = m_header_view_processes->addAction(tr("Tree of Parents and Children"));
  m_act_tree->setCheckable(true);
  connect(m_act_tree, &QAction::toggled, this, [this](bool on) { setTreeView(on); });
  auto* frequencies = new QActionGroup(this);
  for (int seconds : {1, 2, 5, 10, 30}) {
    QAction* action = m_header_frequency->addAction(tr("Every %n Second(s)", nullptr, seconds));
    action->setCheckable(true);
    action->setData(seconds * 1000);
    frequencies->addAction(action);
    connect(action, &QAction::triggered, this, [this, seconds] { updateFrequency(seconds * 1000); });
  }
  connect(m_header_frequency, &QMenu::aboutToShow, this, [this] {
    const int64_t current = m_limiter.processesInterval_ms();
    for (QAction* action : m_header_frequency->actions()) action->setChecked(action->data().toInt() == current);
  });
  buildActionMenus();
  buildColumnsMenu();
}

void ProcinfoWindow::buildActionMenus() {
  m_act_file_manager = new QAction(tr("Show in File Manager"), this);
  m_act_front = new QAction(tr("Bring to Front"), this);
  m_act_show_files = new QAction(tr("Open Files…"), this);
  m_act_quit = new QAction(tr("Quit Process…"), this);
  m_act_force_quit = new QAction(tr("Force Quit Process…"), this);
  m_act_clear_all = new QAction(tr("Clear All Limits"), this);
  connect(m_act_file_manager, &QAction::triggered, this, [this] { showInFileManager(); });
  connect(m_act_front, &QAction::triggered, this, [this] { bringToFront(); });
  connect(m_act_show_files, &QAction::triggered, this, [this] { showOpenFiles(); });
  connect(m_act_quit, &QAction::triggered, this, [this] { quitSelected(); });
  connect(m_act_force_quit, &QAction::triggered, this, [this] { forceQuitSelected(); });
  connect(m_act_clear_all, &QAction::triggered, this, [this] { clearAllLimits(); });
  m_popup_menu = new QMenu(this);
  for (QMenu* menu : {m_header_action, m_popup_menu}) {
    menu->addActions({m_act_file_manager, m_act_front, m_act_show_files});
    menu->addSeparator();
    menu->addActions({m_act_quit, m_act_force_quit});
    menu->addSeparator();
    menu->addAction(m_act_clear_all);
  }
  m_header_action->addSeparator();
  connect(m_header_action->addAction(tr("Font…")), &QAction::triggered, this, [this] { changeFont(); });
  connect(m_header_action->addAction(tr("Default Font")), &QAction::triggered, this, [this] { defaultFont(); });
}

void ProcinfoWindow::buildColumnsMenu() {
  for (const std::string& id : processColumnIds()) {
    QAction* action = m_columns_menu->addAction(ProcessTableModel::columnTitle(id));
    action->setCheckable(true);
    action->setChecked(!hiddenAtFirst(id));
    action->setData(QString::fromStdString(id));
    m_table->setColumnHidden(ProcessTableModel::columnOf(id), hiddenAtFirst(id));
    connect(action, &QAction::toggled, this, [this, id](bool on) { setColumnVisible(id, on); });
  }
}

void ProcinfoWindow::setColumnVisible(const std::string& id, bool visible) {
  const int column = ProcessTableModel::columnOf(id);
  if (column < 0) return;
  m_table->setColumnHidden(column, !visible);
  for (QAction* action : m_columns_menu->actions())
    if (action->data().toString().toStdString() == id && action->isChecked() != visible) action->setChecked(visible);
}

void ProcinfoWindow::loadSettings() {
  m_process_filter = processesViewFrom(keys::kProcessFilter.load(m_settings));
  m_sort_key = keys::kProcessSortColumn.load(m_settings);
  if (!isProcessColumn(m_sort_key)) m_sort_key = keys::kProcessSortColumn.def;
  m_sort_ascending = keys::kProcessSortAscending.load(m_settings);
  m_tree = keys::kProcessTree.load(m_settings);
  m_act_tree->setChecked(m_tree);
  m_font = m_default_font;
  const std::string font = keys::kProcessTableFont.load(m_settings);
  QFont stored;
  if (!font.empty() && stored.fromString(QString::fromStdString(font))) m_font = stored;
  m_table->setFont(m_font);
  m_model->setFont(m_font);
  m_table->verticalHeader()->setDefaultSectionSize(QFontMetrics(m_font).height() + 8);
  checkFilterItem();
  m_updating = true;
  m_table->horizontalHeader()->setSortIndicator(ProcessTableModel::columnOf(m_sort_key),
                                                m_sort_ascending ? Qt::AscendingOrder : Qt::DescendingOrder);
  m_updating = false;
}

void ProcinfoWindow::saveSettings() {
  keys::kProcessFilter.save(m_settings, static_cast<int64_t>(m_process_filter));
  keys::kProcessTree.save(m_settings, m_tree);
  keys::kProcessSortColumn.save(m_settings, m_sort_key);
  keys::kProcessSortAscending.save(m_settings, m_sort_ascending);
  keys::kProcessTableFont.save(m_settings, m_font == m_default_font ? "" : m_font.toString().toStdString());
}

void ProcinfoWindow::listen() {
  QPointer<ProcinfoWindow> self(this);
  AddListener(kAuthChanged, kProcinfoListenerKey, [self](const std::string&) {
    if (self) self->updateEnabledState();
  });
  AddListener(kCpuChanged, kProcinfoListenerKey, [self](const std::string&) {
    if (self) self->refreshDetail();
  });
  AddListener(kProcessesUpdatedBroadcast, kProcinfoListenerKey, [self](const std::string&) {
    if (self && self->isVisible()) self->rebuild();
  });
  // The process lists switch to the new source in a listener of their own; read them after it ran.
  AddListener(kPowerSource, kProcinfoListenerKey, [self](const std::string&) {
    if (!self) return;
    QTimer::singleShot(0, self.data(), [self] {
      if (!self) return;
      self->m_power_source->setCurrentIndex(self->m_limiter.procSettings().power() == "Battery Power" ? 1 : 0);
      self->refreshDetail();
    });
  });
}

void ProcinfoWindow::unlisten() {
  for (const char* name : {kAuthChanged, kCpuChanged, kProcessesUpdatedBroadcast, kPowerSource})
    RemoveListener(name, kProcinfoListenerKey);
}

void ProcinfoWindow::updateHeaderTitle() {
  m_header_title->setText(tr("%1 (%2)").arg(tr(filterTitle(m_process_filter))).arg(m_model->rowCount()));
}

void ProcinfoWindow::rebuild() {
  const auto table = m_limiter.processes();
  RowQuery query;
  query.view = m_process_filter;
  query.my_uid = m_uid;
  if (m_process_filter == processesView::application) query.application_pids = m_application_pids(table);
  query.search = m_search;
  query.search_contains = m_header_search_type->currentIndex() <= 0;
  query.sort_key = m_sort_key;
  query.sort_ascending = m_sort_ascending;
  query.tree = m_tree;
  query.nice_of = [](int32_t pid) { return PID(pid).priority().value_or(0); };
  m_updating = true;
  m_model->setContext({keys::kLimitFrontmost.load(m_settings), wallClock_ns()});
  m_model->setRows(buildRows(table, m_limiter.limits(), query, m_limiter.trees()));
  m_updating = false;
  const int row = m_model->rowOfPid(m_selected_pid);
  if (row < 0) {
    m_selected_pid = -1;
    m_table->clearSelection();
  } else if (!m_table->selectionModel()->isRowSelected(row, {})) {
    m_table->selectRow(row);
  }
  updateHeaderTitle();
  refreshDetail();
}

void ProcinfoWindow::setTreeView(bool tree) {
  if (m_act_tree->isChecked() != tree) m_act_tree->setChecked(tree);  // comes back here once
  if (m_tree == tree) return;
  m_tree = tree;
  rebuild();
}

void ProcinfoWindow::setUid(uint32_t uid) {
  m_uid = uid;
  rebuild();
}

void ProcinfoWindow::viewProcesses(processesView view) {
  m_process_filter = view;
  checkFilterItem();
  rebuild();
}

// Only the filter items carry a filter number: the tree item in the same menu keeps its own check.
void ProcinfoWindow::checkFilterItem() {
  for (QAction* action : m_header_view_processes->actions())
    if (action->data().isValid()) action->setChecked(action->data().toInt() == static_cast<int>(m_process_filter));
}

void ProcinfoWindow::changeSearch(const QString& text) {
  m_search = lowercase(text.trimmed().toStdString());
  if (m_header_search->text() != text) m_header_search->setText(text);
  rebuild();
}

void ProcinfoWindow::setSearchType(int index) {
  if (m_header_search_type->currentIndex() != index) m_header_search_type->setCurrentIndex(index);
  rebuild();
}

void ProcinfoWindow::sortBy(const std::string& key, bool ascending) {
  if (!isProcessColumn(key)) return;
  m_sort_key = key;
  m_sort_ascending = ascending;
  m_updating = true;
  m_table->horizontalHeader()->setSortIndicator(ProcessTableModel::columnOf(key),
                                                ascending ? Qt::AscendingOrder : Qt::DescendingOrder);
  m_updating = false;
  rebuild();
}

void ProcinfoWindow::selectPid(int32_t pid) {
  const int row = m_model->rowOfPid(pid);
  if (row < 0) {
    m_table->clearSelection();
  } else {
    m_table->selectRow(row);
    m_table->scrollTo(m_model->index(row, 0));
  }
  onSelectionChanged();
}

void ProcinfoWindow::onSelectionChanged() {
  if (m_updating) return;
  const QModelIndexList rows = m_table->selectionModel()->selectedRows();
  const int32_t pid = rows.isEmpty() ? -1 : m_model->pidAt(rows.first().row());
  m_limit_tree_pending = m_limit_tree_pending && pid == m_selected_pid;  // a choice is for one process
  m_selected_pid = pid;
  refreshDetail();
}

}  // namespace pelmora
