#include "graphs/views/preferences_graph.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QVBoxLayout>

#include "graphs/graph_palette.h"
#include "support/default_settings.h"

namespace pelmora {
namespace {

QSpinBox* stepper(const IntRange& range, QWidget* parent) {
  auto* box = new QSpinBox(parent);
  box->setRange(static_cast<int>(range.min), static_cast<int>(range.max));
  box->setSingleStep(1);
  box->setValue(static_cast<int>(range.stepper_default));
  return box;
}

QWidget* row(QWidget* parent, std::initializer_list<QWidget*> widgets) {
  auto* box = new QWidget(parent);
  auto* layout = new QHBoxLayout(box);
  layout->setContentsMargins(0, 0, 0, 0);
  for (QWidget* w : widgets) layout->addWidget(w);
  layout->addStretch();
  return box;
}

}  // namespace

PreferencesGraph::PreferencesGraph(DefaultSettings& store, QWidget* parent) : QWidget(parent), m_store(store) {
  build();
  setControls(GraphSwitches::load(m_store));
  settingsChanged();
}

void PreferencesGraph::build() {
  m_radio_default = new QRadioButton(tr("System appearance"), this);
  m_radio_light = new QRadioButton(tr("Light"), this);
  m_radio_dark = new QRadioButton(tr("Dark"), this);
  m_radio_group = new QButtonGroup(this);
  for (auto* radio : {m_radio_default, m_radio_light, m_radio_dark}) m_radio_group->addButton(radio);
  m_update_interval = new QComboBox(this);
  m_update_interval->addItems({tr("1 second"), tr("2 seconds"), tr("5 seconds")});
  m_net_avg = new QComboBox(this);
  m_net_avg->addItems({tr("5 samples"), tr("10 samples"), tr("60 samples")});
  m_thin_dividers = new QCheckBox(tr("Thin dividers"), this);
  m_show_offline_cpus = new QCheckBox(tr("Show offline CPUs"), this);
  m_show_cpu_frequency = new QCheckBox(tr("Show CPU frequency"), this);
  m_show_net_avg = new QCheckBox(tr("Show network average"), this);
  m_net_avg_exp = new QCheckBox(tr("Exponential average"), this);
  m_show_time_grid = new QCheckBox(tr("Show time grid"), this);
  m_show_scale_grid = new QCheckBox(tr("Show scale grid"), this);
  m_fill_graph = new QCheckBox(tr("Fill graph"), this);
  m_show_current = new QCheckBox(tr("Show current values"), this);
  m_max_cpu_rows = stepper(GraphSwitches::kMaxCpuRows, this);
  m_freq_sample_interval = stepper(GraphSwitches::kFreqSampleInterval_ms, this);
  m_time_grid = stepper(GraphSwitches::kTimeGrid, this);
  m_scale_grid = stepper(GraphSwitches::kScaleGrid, this);
  m_freq_sample_unit = new QLabel(tr("ms"), this);
  m_time_grid_unit = new QLabel(tr("samples"), this);
  m_scale_grid_unit = new QLabel(tr("% of height"), this);
  auto* restore = new QPushButton(tr("Restore Defaults"), this);

  auto* form = new QFormLayout(this);
  form->addRow(tr("Appearance:"), row(this, {m_radio_default, m_radio_light, m_radio_dark}));
  form->addRow(tr("Update interval:"), m_update_interval);
  form->addRow(QString(), row(this, {m_thin_dividers, m_fill_graph, m_show_current}));
  form->addRow(tr("CPU rows:"), m_max_cpu_rows);
  form->addRow(QString(), m_show_offline_cpus);
  form->addRow(QString(), m_show_cpu_frequency);
  form->addRow(tr("Frequency sample:"), row(this, {m_freq_sample_interval, m_freq_sample_unit}));
  form->addRow(QString(), row(this, {m_show_net_avg, m_net_avg_exp}));
  form->addRow(tr("Network average:"), m_net_avg);
  form->addRow(QString(), row(this, {m_show_time_grid, m_time_grid, m_time_grid_unit}));
  form->addRow(QString(), row(this, {m_show_scale_grid, m_scale_grid, m_scale_grid_unit}));
  form->addRow(QString(), row(this, {restore}));

  auto changed = [this] {
    if (!m_loading) settingsChanged();
  };
  for (auto* box : findChildren<QCheckBox*>()) connect(box, &QCheckBox::toggled, this, changed);
  for (auto* menu : {m_update_interval, m_net_avg})
    connect(menu, &QComboBox::currentIndexChanged, this, changed);
  for (auto* box : {m_max_cpu_rows, m_freq_sample_interval, m_time_grid, m_scale_grid})
    connect(box, &QSpinBox::valueChanged, this, changed);
  connect(m_radio_group, &QButtonGroup::buttonToggled, this, [changed](QAbstractButton*, bool on) {
    if (on) changed();  // one step per choice, not one for the button that went off
  });
  connect(restore, &QPushButton::clicked, this, &PreferencesGraph::restoreDefaults);
}

void PreferencesGraph::setControls(const GraphSwitches& v) {
  m_loading = true;
  // Exactly one appearance is on; "default" wins when the stored flags disagree.
  QRadioButton* appearance = v.radio_dark && !v.radio_default ? m_radio_dark
                             : v.radio_light && !v.radio_default ? m_radio_light
                                                                 : m_radio_default;
  appearance->setChecked(true);
  m_update_interval->setCurrentIndex(static_cast<int>(std::clamp<int64_t>(v.update_interval, 0, 2)));
  m_net_avg->setCurrentIndex(static_cast<int>(std::clamp<int64_t>(v.net_avg, 0, 2)));
  m_thin_dividers->setChecked(v.thin_dividers);
  m_show_offline_cpus->setChecked(v.show_offline_cpus);
  m_show_cpu_frequency->setChecked(v.show_cpu_frequency);
  m_show_net_avg->setChecked(v.show_net_avg);
  m_net_avg_exp->setChecked(v.net_avg_exp);
  m_show_time_grid->setChecked(v.show_time_grid);
  m_show_scale_grid->setChecked(v.show_scale_grid);
  m_fill_graph->setChecked(v.fill_graph);
  m_show_current->setChecked(v.show_current);
  m_max_cpu_rows->setValue(static_cast<int>(v.max_cpu_rows));
  m_freq_sample_interval->setValue(static_cast<int>(v.freq_sample_interval_ms));
  m_time_grid->setValue(static_cast<int>(v.time_grid));
  m_scale_grid->setValue(static_cast<int>(v.scale_grid));
  m_loading = false;
}

GraphSwitches PreferencesGraph::controlValues() const {
  GraphSwitches v;
  v.radio_default = m_radio_default->isChecked();
  v.radio_light = m_radio_light->isChecked();
  v.radio_dark = m_radio_dark->isChecked();
  v.update_interval = m_update_interval->currentIndex();
  v.net_avg = m_net_avg->currentIndex();
  v.thin_dividers = m_thin_dividers->isChecked();
  v.show_offline_cpus = m_show_offline_cpus->isChecked();
  v.show_cpu_frequency = m_show_cpu_frequency->isChecked();
  v.show_net_avg = m_show_net_avg->isChecked();
  v.net_avg_exp = m_net_avg_exp->isChecked();
  v.show_time_grid = m_show_time_grid->isChecked();
  v.show_scale_grid = m_show_scale_grid->isChecked();
  v.fill_graph = m_fill_graph->isChecked();
  v.show_current = m_show_current->isChecked();
  v.max_cpu_rows = m_max_cpu_rows->value();
  v.freq_sample_interval_ms = m_freq_sample_interval->value();
  v.time_grid = m_time_grid->value();
  v.scale_grid = m_scale_grid->value();
  return v;
}

void PreferencesGraph::settingsChanged() {
  const GraphSwitches v = controlValues();
  GraphSwitches::current() = v;
  // 1. The frequency sampler.
  emit frequencySamplingChanged(v.show_cpu_frequency, static_cast<int>(v.updateInterval_us() / 1'000'000),
                                static_cast<int>(v.freq_sample_interval_ms));
  // 2. Controls that only matter while another is on.
  m_freq_sample_interval->setEnabled(v.show_cpu_frequency);
  m_freq_sample_unit->setEnabled(v.show_cpu_frequency);
  m_time_grid->setEnabled(v.show_time_grid);
  m_time_grid_unit->setEnabled(v.show_time_grid);
  m_scale_grid->setEnabled(v.show_scale_grid);
  m_scale_grid_unit->setEnabled(v.show_scale_grid);
  // 3. The statistics window.
  emit graphSettingsChanged();
  // 4. Every control under its key.
  v.save(m_store);
}

void PreferencesGraph::restoreDefaults() {
  GraphSwitches defaults;
  defaults.max_cpu_rows = GraphSwitches::kMaxCpuRows.stepper_default;
  defaults.freq_sample_interval_ms = GraphSwitches::kFreqSampleInterval_ms.stepper_default;
  defaults.time_grid = GraphSwitches::kTimeGrid.stepper_default;
  defaults.scale_grid = GraphSwitches::kScaleGrid.stepper_default;
  setControls(defaults);
  GraphPalette::restoreDefaults(m_store);
  settingsChanged();
}

}  // namespace pelmora
