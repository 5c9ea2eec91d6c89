#include "app/preferences_pid.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>

#include "support/broadcast.h"
#include "support/settings_keys.h"

namespace pelmora {

QString integralTimeText(double kp, double ki) {
  if (ki == 0.0) return QString();
  return QString::asprintf("%.2f", kp / ki);
}

QString derivativeTimeText(double kp, double kd) {
  if (kp == 0.0) return QString();
  return QString::asprintf("%.2f", kd / kp);
}

PreferencesPID::PreferencesPID(DefaultSettings& store, QWidget* parent) : QWidget(parent), m_store(store) {
  build();
  load();
}

void PreferencesPID::build() {
  auto* form = new QFormLayout(this);
  auto interval = [this](int min, int max) {
    auto* s = new QSpinBox(this);
    s->setRange(min, max);
    s->setSingleStep(1);
    s->setSuffix(tr(" ms"));
    return s;
  };
  auto gain = [this] {
    auto* g = new QDoubleSpinBox(this);
    g->setRange(0.0, 100.0);
    g->setDecimals(4);
    g->setSingleStep(0.01);
    return g;
  };
  m_limiter_interval = interval(1, 1000);
  m_adjuster_interval = interval(100, 5000);
  m_use_pid = new QCheckBox(tr("Steer limits with the PID controller"), this);
  m_kp = gain();
  m_ki = gain();
  m_kd = gain();
  m_integral_time = new QLabel(this);
  m_derivative_time = new QLabel(this);
  auto* restore = new QPushButton(tr("Restore Defaults"), this);
  form->addRow(tr("Limiter interval:"), m_limiter_interval);
  form->addRow(tr("Adjuster interval:"), m_adjuster_interval);
  form->addRow(m_use_pid);
  form->addRow(tr("Proportional gain:"), m_kp);
  form->addRow(tr("Integral gain:"), m_ki);
  form->addRow(tr("Derivative gain:"), m_kd);
  form->addRow(tr("Integral time (s):"), m_integral_time);
  form->addRow(tr("Derivative time (s):"), m_derivative_time);
  form->addRow(restore);
  for (QSpinBox* s : {m_limiter_interval, m_adjuster_interval})
    connect(s, &QSpinBox::valueChanged, this, [this] { settingsChanged(); });
  for (QDoubleSpinBox* g : {m_kp, m_ki, m_kd})
    connect(g, &QDoubleSpinBox::valueChanged, this, [this] { settingsChanged(); });
  connect(m_use_pid, &QCheckBox::toggled, this, [this] { settingsChanged(); });
  connect(restore, &QPushButton::clicked, this, [this] { restoreDefaults(); });
}

void PreferencesPID::load() {
  m_loading = true;
  m_limiter_interval->setValue(static_cast<int>(keys::kLimiterInterval_ms.load(m_store)));
  m_adjuster_interval->setValue(static_cast<int>(keys::kAdjusterInterval_ms.load(m_store)));
  m_use_pid->setChecked(keys::kUsePIDController.load(m_store));
  m_kp->setValue(keys::kPIDProportional.load(m_store));
  m_ki->setValue(keys::kPIDIntegral.load(m_store));
  m_kd->setValue(keys::kPIDDerivative.load(m_store));
  m_loading = false;
  updateDerived();
}

void PreferencesPID::save() {
  keys::kLimiterInterval_ms.save(m_store, m_limiter_interval->value());
  keys::kAdjusterInterval_ms.save(m_store, m_adjuster_interval->value());
  keys::kUsePIDController.save(m_store, m_use_pid->isChecked());
  keys::kPIDProportional.save(m_store, m_kp->value());
  keys::kPIDIntegral.save(m_store, m_ki->value());
  keys::kPIDDerivative.save(m_store, m_kd->value());
}

void PreferencesPID::updateDerived() {
  m_integral_time->setText(integralTimeText(m_kp->value(), m_ki->value()));
  m_derivative_time->setText(derivativeTimeText(m_kp->value(), m_kd->value()));
  // The gains only act under the PID law.
  for (QDoubleSpinBox* g : {m_kp, m_ki, m_kd}) g->setEnabled(m_use_pid->isChecked());
}

void PreferencesPID::settingsChanged() {
  if (m_loading) return;
  updateDerived();
  save();
  Broadcast("net.tandrel.pelmora.prefschanged", true);
}

void PreferencesPID::restoreDefaults() {
  m_loading = true;
  m_limiter_interval->setValue(static_cast<int>(keys::kLimiterInterval_ms.def));
  m_adjuster_interval->setValue(static_cast<int>(keys::kAdjusterInterval_ms.def));
  if (m_use_pid->isChecked()) {
    m_kp->setValue(keys::kPIDProportional.def);
    m_ki->setValue(keys::kPIDIntegral.def);
    m_kd->setValue(keys::kPIDDerivative.def);
  }
  m_loading = false;
  settingsChanged();
}

}  // namespace pelmora
