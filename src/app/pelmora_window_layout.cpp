// The CPU settings window's controls and their layout.
#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "app/pelmora_window.h"
#include "app/system_monitor_entry.h"
#include "app/window_frame.h"
#include "process_control/power_monitor.h"

namespace pelmora {

QWidget* PelmoraWindow::buildCountsBox() {
  auto* box = new QGroupBox(tr("Processors"), this);
  auto* form = new QFormLayout(box);
  m_phys_cpu = new QLabel(QStringLiteral("—"), box);
  m_log_cpu = new QLabel(QStringLiteral("—"), box);
  form->addRow(tr("Active physical cores:"), m_phys_cpu);
  form->addRow(tr("Active logical processors:"), m_log_cpu);
  m_ph_controller = new QWidget(box);
  m_ph_controller->setMinimumWidth(260);
  m_cpucontrol = new SliderStepper(m_ph_controller, 1, 128, 1, 1, nullptr);
  form->addRow(tr("Processors in use:"), m_ph_controller);
  m_hyperthreading = new QCheckBox(tr("Hyper-threading"), box);
  m_prefer_phys = new QCheckBox(tr("Prefer physical cores"), box);
  form->addRow(m_hyperthreading);
  form->addRow(m_prefer_phys);
  connect(m_hyperthreading, &QCheckBox::clicked, this, [this] { hyperThreading(m_hyperthreading); });
  connect(m_prefer_phys, &QCheckBox::clicked, this, [this] { hyperThreading(m_prefer_phys); });
  return box;
}

QWidget* PelmoraWindow::buildControlsBox() {
  auto* box = new QGroupBox(tr("System"), this);
  auto* form = new QFormLayout(box);
  m_throttle = new QCheckBox(tr("Throttle background disk writes"), box);
  form->addRow(m_throttle);
  connect(m_throttle, &QCheckBox::clicked, this, [this](bool on) { throttleTasks(on); });
  auto* source_row = new QHBoxLayout();
  m_powersource = new QComboBox(box);
  m_powersource->addItem(tr("AC Power"));
  m_powersource->addItem(tr("Battery Power"));
  connect(m_powersource, &QComboBox::activated, this, [this] { changePowerSource(); });
  m_power_switch = new QPushButton(tr("S&witch"), box);
  m_power_switch->setToolTip(tr("Use the settings of the other power source now, until the power source "
                                "changes or you switch back"));
  connect(m_power_switch, &QPushButton::clicked, this, [this] { m_power.switchSource(); });
  source_row->addWidget(m_powersource, 1);
  source_row->addWidget(m_power_switch);
  form->addRow(tr("Settings for:"), source_row);
  m_power_note = new QLabel(tr("This computer has no battery: the Battery Power settings are in force "
                               "because Switch was chosen. Switch again to go back to AC Power."),
                            box);
  m_power_note->setWordWrap(true);
  m_power_note->setHidden(true);
  form->addRow(m_power_note);
  auto* limited_row = new QHBoxLayout();
  m_constrained = new QLabel(constrainedCaption(0), box);
  m_activity_monitor = new QPushButton(tr("System Monitor"), box);
  const auto monitor = findSystemMonitor();
  if (monitor) m_activity_monitor->setIcon(QIcon::fromTheme(monitor->icon));
  m_activity_monitor->setEnabled(monitor.has_value());
  connect(m_activity_monitor, &QPushButton::clicked, this, [this] { openSystemMonitor(); });
  limited_row->addWidget(m_constrained, 1);
  limited_row->addWidget(m_activity_monitor);
  form->addRow(tr("Limited:"), limited_row);
  return box;
}

void PelmoraWindow::build() {
  setWindowTitle(pelmoraTitle(tr("CPU Settings")));
  auto* layout = new QVBoxLayout(this);
  m_header_title = new QLabel(this);
  QFont font = m_header_title->font();
  font.setPointSizeF(font.pointSizeF() * 1.4);
  font.setBold(true);
  m_header_title->setFont(font);
  m_header_icon = new QLabel(this);
  auto* header = new QHBoxLayout();
  header->addWidget(m_header_icon);
  header->addWidget(m_header_title, 1);
  layout->addLayout(header);
  layout->addWidget(buildCountsBox());
  layout->addWidget(buildControlsBox());
  m_auth = new QPushButton(this);
  m_auth->setFlat(true);
  connect(m_auth, &QPushButton::clicked, this, [this] { toggleLock(); });
  layout->addWidget(m_auth, 0, Qt::AlignLeft);
  m_mode = new QLabel(this);
  m_mode->setWordWrap(true);
  layout->addWidget(m_mode);
  m_notice = new QLabel(this);
  m_notice->setWordWrap(true);
  m_notice->setStyleSheet(QStringLiteral("color: palette(link);"));
  layout->addWidget(m_notice);
  layout->setSizeConstraint(QLayout::SetFixedSize);
}

}  // namespace pelmora
