// The process window's detail area (figures, limit and priority controls per power source, enabled
// states) and the actions on the selected process.
#include <QCheckBox>
#include <QComboBox>
#include <QFontDialog>
#include <QFontMetrics>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSpinBox>
#include <QStackedLayout>
#include <QTableView>

#include <signal.h>
#include <unistd.h>

#include <cmath>

#include "app/application_list.h"
#include "app/open_files_window.h"
#include "app/pelmora_window.h"
#include "app/process_table_model.h"
#include "app/procinfo_window.h"
#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/proc_settings.h"
#include "support/logger.h"
#include "support/pid.h"

namespace pelmora {
namespace {

constexpr const char* kPowerNames[] = {"AC Power", "Battery Power"};
// The slider's 0 means "no limit": a share of nothing would hold the process stopped for good.
constexpr int kNoLimit = 0;

int onlineCpus() {
  const long n = ::sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<int>(n) : 1;
}

int percentOf(std::optional<double> share) {
  return share ? static_cast<int>(std::lround(*share * 100.0)) : kNoLimit;
}

QLabel* figure(QWidget* parent) {
  auto* label = new QLabel(parent);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  return label;
}

void showProblem(QWidget* parent, const QString& text) {
  auto* box = new QMessageBox(QMessageBox::Warning, QObject::tr("Processes"), text, QMessageBox::Ok, parent);
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->open();
}

}  // namespace

void ProcinfoWindow::buildDetail(QWidget* detail) {
  auto* stack = new QStackedLayout(detail);
  m_cover_box = new QWidget(detail);
  auto* cover_layout = new QHBoxLayout(m_cover_box);
  m_instruction = new QLabel(tr("Select a process to see its figures, limit its share of the processor or "
                                "change its priority."), m_cover_box);
  m_instruction->setAlignment(Qt::AlignCenter);
  m_instruction->setEnabled(false);
  cover_layout->addWidget(m_instruction);
  m_details = new QWidget(detail);
  auto* grid = new QGridLayout(m_details);
  m_icon = new QLabel(m_details);
  m_name = figure(m_details);
  QFont bold = m_name->font();
  bold.setBold(true);
  m_name->setFont(bold);
  m_pid = figure(m_details);
  m_pct_cpu = figure(m_details);
  m_pid_waiting = figure(m_details);
  m_pid_idle = figure(m_details);
  m_power_source = new QComboBox(m_details);
  m_power_source->addItems({tr("On AC Power"), tr("On Battery Power")});
  m_power_source->setCurrentIndex(m_limiter.procSettings().power() == kPowerNames[1] ? 1 : 0);
  m_auth = new QPushButton(m_details);
  m_mode = new QLabel(m_details);
  m_mode->setWordWrap(true);
  m_clear_limit = new QPushButton(tr("Clear Limit"), m_details);
  m_clear_all = new QPushButton(tr("Clear All Limits"), m_details);
  m_ph_limit = new QWidget(m_details);
  m_ph_limit->setMinimumWidth(220);  // with "Include child processes" beside it, the window still fits 800 px
  m_limit = new SliderStepper(m_ph_limit, kNoLimit, 100 * onlineCpus(), 1, kNoLimit, this);
  m_limit->m_stepper->setSpecialValueText(tr("None"));
  m_limit->m_stepper->setSuffix(tr(" %"));
  m_limit_tree = new QCheckBox(tr("Include child processes"), m_details);
  m_limit_tree->setToolTip(
      tr("Hold the process together with every process it starts, now and later, to "
         "this share in total"));
  m_label_renice = new QLabel(tr("Priority (nice):"), m_details);
  m_ph_renice = new QWidget(m_details);
  auto* renice_layout = new QHBoxLayout(m_ph_renice);
  renice_layout->setContentsMargins(0, 0, 0, 0);
  m_renice = new QSpinBox(m_ph_renice);
  m_renice->setRange(kLowestNice, 19);  // the kernel's nice range ends at 19
  renice_layout->addWidget(m_renice);
  renice_layout->addStretch(1);

  grid->addWidget(m_icon, 0, 0, 2, 1, Qt::AlignTop);
  grid->addWidget(m_name, 0, 1);
  grid->addWidget(m_pid, 0, 2);
  grid->addWidget(m_power_source, 0, 4);
  grid->addWidget(m_auth, 0, 5);
  grid->addWidget(m_pct_cpu, 1, 1);
  grid->addWidget(m_pid_waiting, 1, 2);
  grid->addWidget(m_pid_idle, 1, 3);
  grid->addWidget(new QLabel(tr("CPU limit:"), m_details), 2, 0, 1, 1, Qt::AlignRight);
  grid->addWidget(m_ph_limit, 2, 1, 1, 2);
  grid->addWidget(m_limit_tree, 2, 3);
  grid->addWidget(m_clear_limit, 2, 4);
  grid->addWidget(m_clear_all, 2, 5);
  grid->addWidget(m_label_renice, 3, 0, 1, 1, Qt::AlignRight);
  grid->addWidget(m_ph_renice, 3, 1);
  grid->addWidget(m_mode, 3, 2, 1, 4);
  grid->setColumnStretch(3, 1);
  stack->addWidget(m_cover_box);
  stack->addWidget(m_details);
  stack->setCurrentWidget(m_cover_box);

  connect(m_renice, &QSpinBox::valueChanged, this, [this](int value) { reniceValueChanged(value); });
  connect(m_power_source, &QComboBox::currentIndexChanged, this, [this](int index) { changePowerSource(index); });
  connect(m_auth, &QPushButton::clicked, this, [this] { authorise(); });
  connect(m_clear_limit, &QPushButton::clicked, this, [this] { clearLimit(); });
  connect(m_limit_tree, &QCheckBox::toggled, this, [this](bool on) { includeChildrenChanged(on); });
  connect(m_clear_all, &QPushButton::clicked, this, [this] { clearAllLimits(); });
}

std::string ProcinfoWindow::shownPower() const {
  return kPowerNames[m_power_source->currentIndex() == 1 ? 1 : 0];
}

std::optional<ProcessRow> ProcinfoWindow::selectedRow() const {
  const int row = m_model->rowOfPid(m_selected_pid);
  if (row < 0) return std::nullopt;
  return m_model->rows()[size_t(row)];
}

// Limiting and renicing need the helper's administrator rights, except for the user's own processes,
// which the helper lets their owner signal and renice (only towards a lower priority, see below).
bool ProcinfoWindow::mayControl(const ProcessRow& row) const {
  if (row.info.pid <= 1 || row.info.kind == "kernel") return false;
  return row.info.uid == m_uid || m_helper.authorised();
}

void ProcinfoWindow::refreshDetail() {
  const auto row = selectedRow();
  static_cast<QStackedLayout*>(m_details->parentWidget()->layout())->setCurrentWidget(row ? m_details : m_cover_box);
  if (row) {
    const procinfo& p = row->info;
    m_updating = true;
    m_icon->setPixmap(m_model->data(m_model->index(m_model->rowOfPid(p.pid), 0), Qt::DecorationRole)
                          .value<QIcon>().pixmap(32, 32));
    m_name->setText(QString::fromStdString(p.name));
    m_pid->setText(tr("PID %1").arg(p.pid));
    m_pct_cpu->setText(tr("CPU: %1 %").arg(QString::number(p.pctCPU * 100.0, 'f', 1)));
    m_pid_waiting->setText(tr("Waiting: %1 %").arg(QString::number(p.pctWaiting * 100.0, 'f', 1)));
    m_pid_idle->setText(tr("Idle wake-ups: %1 /s").arg(QString::number(p.idleWakeupsPerSec, 'f', 1)));
    const bool current = shownPower() == m_limiter.procSettings().power();
    m_limit->setMaximum(100 * onlineCpus());
    if (row->held_with) {
      // Held with its group: the group's limit, set on the process that heads it.
      m_limit->setValue(percentOf(m_limiter.limitFor(*row->held_with)));
      m_limit_tree->setChecked(true);
    } else {
      m_limit->setValue(percentOf(current ? row->limit : m_limiter.procSettings().limitFor(p.name, shownPower())));
      const bool has_limit = current ? row->limit.has_value()
                                     : m_limiter.procSettings().limitFor(p.name, shownPower()).has_value();
      if (has_limit)
        m_limit_tree->setChecked(current ? row->tree_limit
                                         : m_limiter.procSettings().limitHoldsTree(p.name, shownPower()));
      else
        m_limit_tree->setChecked(m_limit_tree_pending);
    }
    const int nice = PID(p.pid).priority().value_or(row->nice);
    // Without administrator rights the owner may only lower a process's priority (raise its nice).
    m_renice->setMinimum(m_helper.authorised() ? kLowestNice : nice);
    const auto saved = m_limiter.procSettings().priorityFor(p.name, shownPower());
    m_renice->setValue(current || !saved ? nice : *saved);
    m_updating = false;
  }
  updateEnabledState();
}

void ProcinfoWindow::updateEnabledState() {
  const auto row = selectedRow();
  const bool can = row && mayControl(*row);
  const bool current = shownPower() == m_limiter.procSettings().power();
  // A member of a held group is limited with it, from the row of the process that heads it.
  const bool own_limit = can && !row->held_with;
  m_limit->setControlEnabled(own_limit);
  m_limit_tree->setEnabled(own_limit);
  m_limit_tree->setToolTip(row && row->held_with
                               ? tr("Held with process %1 and its other descendants").arg(*row->held_with)
                               : tr("Hold the process together with every process it starts, now and later, "
                                    "to this share in total"));
  m_renice->setEnabled(can);
  m_label_renice->setEnabled(can);
  const bool limited = current ? row && row->limit.has_value()
                                : row && m_limiter.procSettings().limitFor(row->info.name, shownPower()).has_value();
  m_clear_limit->setEnabled(own_limit && limited);
  const bool any_limit = !m_limiter.limits().empty();
  m_clear_all->setEnabled(any_limit);
  m_act_clear_all->setEnabled(any_limit);
  const bool waiting = m_helper.authorizationPending();
  m_auth->setEnabled(!waiting);
  m_auth->setText(waiting ? tr("Waiting for authentication…")
                  : m_helper.authorised() ? tr("Revoke Authorization") : tr("Authorize…"));
  m_mode->setText(helperModeText(m_helper.viaDaemon()));
  m_act_quit->setEnabled(can);
  m_act_force_quit->setEnabled(can);
  m_act_show_files->setEnabled(row.has_value());
  m_act_file_manager->setEnabled(row && !row->info.bundlePath.empty());
  m_act_front->setEnabled(row.has_value());
}

void ProcinfoWindow::sliderStepperValueChanged(SliderStepper& sender) {
  if (m_updating || m_selected_pid < 0) return;
  const auto row = selectedRow();
  if (!row || !mayControl(*row)) return;
  const int percent = sender.value();
  if (shownPower() == m_limiter.procSettings().power()) {
    if (percent == kNoLimit) {
      if (row->limit) m_limiter.clearLimit(row->info.pid);
    } else if (percent != percentOf(row->limit)) {
      MutexLock lock(m_limiter.mutex());
      m_limiter.setLimit(row->info.pid, percent / 100.0, m_limit_tree->isChecked());
    }
  } else if (!row->info.name.empty()) {
    // The other source's list: remembered now, applied when that source is in force.
    if (percent == kNoLimit)
      m_limiter.procSettings().removeLimit(row->info.name, shownPower());
    else
      m_limiter.procSettings().setLimit(row->info.name, shownPower(), percent / 100.0, m_limit_tree->isChecked());
  }
  rebuild();
}

// Without a limit, the choice waits for the share to be set; with one, the limit changes at once.
void ProcinfoWindow::includeChildrenChanged(bool include) {
  if (m_updating || m_selected_pid < 0) return;
  const auto row = selectedRow();
  if (!row || !mayControl(*row) || row->held_with) return;
  m_limit_tree_pending = include;
  if (shownPower() == m_limiter.procSettings().power()) {
    if (!row->limit || row->tree_limit == include) return;
    MutexLock lock(m_limiter.mutex());
    m_limiter.setLimit(row->info.pid, *row->limit, include);
  } else if (auto share = m_limiter.procSettings().limitFor(row->info.name, shownPower())) {
    m_limiter.procSettings().setLimit(row->info.name, shownPower(), *share, include);
  }
  rebuild();
}

void ProcinfoWindow::reniceValueChanged(int value) {
  if (m_updating) return;
  const auto row = selectedRow();
  if (!row || !mayControl(*row)) return;
  if (shownPower() == m_limiter.procSettings().power())
    m_limiter.renice(row->info.pid, value);
  else if (!row->info.name.empty())
    m_limiter.procSettings().setPriority(row->info.name, shownPower(), value);
  rebuild();
}

void ProcinfoWindow::changePowerSource(int index) {
  if (m_power_source->currentIndex() != index) m_power_source->setCurrentIndex(index);
  refreshDetail();
}

// With the other power source shown, the limit removed is the one remembered for that source.
void ProcinfoWindow::clearLimit() {
  const auto row = selectedRow();
  if (!row) return;
  if (shownPower() == m_limiter.procSettings().power())
    m_limiter.clearLimit(row->info.pid);
  else
    m_limiter.procSettings().removeLimit(row->info.name, shownPower());
  rebuild();
}

void ProcinfoWindow::clearAllLimits() {
  if (m_limiter.limits().empty()) return;
  if (!m_confirm(tr("Remove every CPU limit? The limited processes run freely again, and the limits "
                    "remembered for the current power source are forgotten.")))
    return;
  m_limiter.clearAllLimits();
  rebuild();
}

// "authorize" may wait minutes for a password: it runs on the helper client's worker thread and the
// button says that it waits; a refusal is shown when the answer comes.
void ProcinfoWindow::authorise() {
  if (m_helper.authorised()) {
    m_helper.deauthorize();
    m_helper.setAuthorised(false);
    return;
  }
  QPointer<ProcinfoWindow> self(this);
  m_helper.requestAuthorization([self](const std::string& answer) {
    if (self && answer != "OK")
      showProblem(self, tr("Authorization failed: %1").arg(QString::fromStdString(answer)));
  });
  updateEnabledState();
}

void ProcinfoWindow::endSelected(int signal, const QString& question) {
  const auto row = selectedRow();
  if (!row || !mayControl(*row) || !m_confirm(question)) return;
  if (m_helper.sendSignal(row->info.pid, signal) != 0) {
    Log("Could not end process " + row->info.name + " (" + std::to_string(row->info.pid) + ").");
    showProblem(this, tr("“%1” could not be ended.").arg(QString::fromStdString(row->info.name)));
  }
}

void ProcinfoWindow::quitSelected() {
  const auto row = selectedRow();
  if (!row) return;
  endSelected(SIGTERM, tr("Do you want to quit “%1” (%2)?").arg(QString::fromStdString(row->info.name)).arg(row->info.pid));
}

void ProcinfoWindow::forceQuitSelected() {
  const auto row = selectedRow();
  if (!row) return;
  endSelected(SIGKILL, tr("Do you want to force “%1” (%2) to quit? Unsaved work is lost.")
                           .arg(QString::fromStdString(row->info.name)).arg(row->info.pid));
}

void ProcinfoWindow::showInFileManager() {
  const auto row = selectedRow();
  if (row && !row->info.bundlePath.empty()) ApplicationList::showInFileManager(row->info.bundlePath);
}

void ProcinfoWindow::bringToFront() {
  const auto row = selectedRow();
  if (row && !ApplicationList::bringToFront(row->info.pid))
    showProblem(this, tr("“%1” has no window this desktop lets us bring to the front.")
                          .arg(QString::fromStdString(row->info.name)));
}

void ProcinfoWindow::showOpenFiles() {
  const auto row = selectedRow();
  if (!row) return;
  const QIcon icon = m_model->data(m_model->index(m_model->rowOfPid(row->info.pid), 0), Qt::DecorationRole).value<QIcon>();
  auto* window = new OpenFilesWindow(m_helper, row->info, icon);
  window->setAttribute(Qt::WA_DeleteOnClose);
  window->show();
}

void ProcinfoWindow::updateFrequency(int64_t interval_ms) {
  m_limiter.setProcessesInterval_ms(interval_ms);
  for (QAction* action : m_header_frequency->actions()) action->setChecked(action->data().toInt() == interval_ms);
}

void ProcinfoWindow::changeFont() {
  bool ok = false;
  const QFont font = QFontDialog::getFont(&ok, m_font, this, tr("Table Font"));
  if (!ok) return;
  m_font = font;
  m_table->setFont(m_font);
  m_model->setFont(m_font);
  m_table->verticalHeader()->setDefaultSectionSize(QFontMetrics(m_font).height() + 8);
}

void ProcinfoWindow::defaultFont() {
  m_font = m_default_font;
  m_table->setFont(m_font);
  m_model->setFont(m_font);
  m_table->verticalHeader()->setDefaultSectionSize(QFontMetrics(m_font).height() + 8);
}

}  // namespace pelmora
