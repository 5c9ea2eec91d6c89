#pragma once
// The "PID" pane of the preferences: the limiter's and the adjuster's intervals (milliseconds), the
// switch between the proportional correction and the full PID law, its three gains, and the two
// times derived from them. Every change is saved at once and announced with
// "net.tandrel.pelmora.prefschanged", on which the limiter reloads its settings.
#include <QString>
#include <QWidget>

class QCheckBox;
class QDoubleSpinBox;
class QLabel;
class QSpinBox;

namespace pelmora {

class DefaultSettings;

class PreferencesPID : public QWidget {
  Q_OBJECT
 public:
  explicit PreferencesPID(DefaultSettings& store, QWidget* parent = nullptr);
  static QString toolbarTitle() { return tr("PID"); }
  static QString toolbarIcon() { return QStringLiteral("pidprefs"); }

  void load();
  void save();
  // A control changed: update the derived times, save and announce.
  void settingsChanged();
  // Intervals back to 30 and 500 ms; the gains too, but only while the PID law is on.
  void restoreDefaults();

  QSpinBox* m_limiter_interval;
  QSpinBox* m_adjuster_interval;
  QCheckBox* m_use_pid;
  QDoubleSpinBox* m_kp;
  QDoubleSpinBox* m_ki;
  QDoubleSpinBox* m_kd;
  QLabel* m_integral_time;
  QLabel* m_derivative_time;

 private:
  void build();
  void updateDerived();

  DefaultSettings& m_store;
  bool m_loading = false;
};

// Integral time = proportional / integral, "%.2f"; blank when the integral gain is 0. Pure.
QString integralTimeText(double kp, double ki);
// Derivative time = derivative / proportional, "%.2f"; blank when the proportional gain is 0. Pure.
QString derivativeTimeText(double kp, double kd);

}  // namespace pelmora
