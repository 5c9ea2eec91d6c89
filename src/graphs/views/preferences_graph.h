#pragma once
// The "Graph" pane of the preferences: every graph setting, its default and range, the controls that
// depend on others, and restore-defaults (all nine colour arrays included). The graph views paint
// with what this pane shows (GraphSwitches::current() is kept equal to the controls).
#include <QWidget>

#include "graphs/graph_switches.h"

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QRadioButton;
class QSpinBox;

namespace pelmora {

class DefaultSettings;

class PreferencesGraph : public QWidget {
  Q_OBJECT
 public:
  // Reads every control from the store, then applies the settings.
  explicit PreferencesGraph(DefaultSettings& store, QWidget* parent = nullptr);
  static QString toolbarTitle() { return tr("Graph"); }
  static QString toolbarIcon() { return QStringLiteral("graphprefs"); }

  // What the controls show now.
  GraphSwitches controlValues() const;

  // The controls' action: the settings-changed steps.
  void settingsChanged();
  void restoreDefaults();

  // Controls, for the application and for tests.
  QRadioButton* m_radio_default;
  QRadioButton* m_radio_light;
  QRadioButton* m_radio_dark;
  QComboBox* m_update_interval;
  QComboBox* m_net_avg;
  QCheckBox* m_thin_dividers;
  QCheckBox* m_show_offline_cpus;
  QCheckBox* m_show_cpu_frequency;
  QCheckBox* m_show_net_avg;
  QCheckBox* m_net_avg_exp;
  QCheckBox* m_show_time_grid;
  QCheckBox* m_show_scale_grid;
  QCheckBox* m_fill_graph;
  QCheckBox* m_show_current;
  QSpinBox* m_max_cpu_rows;
  QSpinBox* m_freq_sample_interval;
  QSpinBox* m_time_grid;
  QSpinBox* m_scale_grid;
  QLabel* m_freq_sample_unit;
  QLabel* m_time_grid_unit;
  QLabel* m_scale_grid_unit;

 signals:
  // Step 1: the frequency sampler is to be on or off, measure every interval_s seconds and sample
  // for sample_interval_ms milliseconds. Connected by the application to the power-metrics reader.
  void frequencySamplingChanged(bool use, int interval_s, int sample_interval_ms);
  // Step 3: the statistics window reapplies the graph settings and redraws.
  void graphSettingsChanged();

 private:
  void build();
  void setControls(const GraphSwitches& values);

  DefaultSettings& m_store;
  QButtonGroup* m_radio_group;
  bool m_loading = false;
};

}  // namespace pelmora
