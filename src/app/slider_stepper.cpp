#include "app/slider_stepper.h"

#include <QHBoxLayout>
#include <QSignalBlocker>
#include <QSlider>
#include <QSpinBox>

#include <algorithm>

namespace pelmora {

int clampSliderValue(int requested, int minimum, int maximum) {
  if (maximum < minimum) return minimum;
  return std::clamp(requested, minimum, maximum);
}

SliderStepper::SliderStepper(QWidget* placeholder, int minimum, int maximum, int increment, int value,
                             SliderStepperDelegate* delegate)
    : QWidget(placeholder), m_slider(new QSlider(Qt::Horizontal, this)), m_stepper(new QSpinBox(this)) {
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(m_slider, 1);
  layout->addWidget(m_stepper);
  if (placeholder) {
    auto* outer = placeholder->layout() ? placeholder->layout() : new QHBoxLayout(placeholder);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(this);
  }
  m_slider->setTickPosition(QSlider::TicksBelow);
  m_slider->setTickInterval(1);
  m_slider->setPageStep(increment);
  m_slider->setSingleStep(increment);
  m_stepper->setSingleStep(increment);
  // The stepper starts as 1..128 at 1 before the real range arrives, as a fresh stepper would.
  m_stepper->setRange(1, 128);
  m_stepper->setValue(1);
  setMinimum(minimum);
  setMaximum(maximum);
  setValue(value);
  connect(m_slider, &QSlider::valueChanged, this, [this] { sliderAction(); });
  connect(m_stepper, &QSpinBox::valueChanged, this, [this] { numberStepperValueChanged(m_stepper); });
  m_delegate = delegate;
}

int SliderStepper::value() const { return m_stepper->value(); }
int SliderStepper::minimum() const { return m_stepper->minimum(); }
int SliderStepper::maximum() const { return m_stepper->maximum(); }

void SliderStepper::setValue(int value) {
  const int v = clampSliderValue(value, m_stepper->minimum(), m_stepper->maximum());
  if (m_stepper->value() == v && m_slider->value() == v) return;
  {
    const QSignalBlocker block_stepper(m_stepper);
    const QSignalBlocker block_slider(m_slider);
    m_stepper->setValue(v);
    m_slider->setValue(v);
  }
  if (m_delegate) m_delegate->sliderStepperValueChanged(*this);
}

void SliderStepper::setMaximum(int maximum) {
  const QSignalBlocker block_stepper(m_stepper);
  const QSignalBlocker block_slider(m_slider);
  m_stepper->setMaximum(maximum);
  m_slider->setMaximum(maximum);
  m_slider->setTickInterval(1);
}

void SliderStepper::setMinimum(int minimum) {
  const QSignalBlocker block_stepper(m_stepper);
  const QSignalBlocker block_slider(m_slider);
  m_stepper->setMinimum(minimum);
  m_slider->setMinimum(minimum);
}

void SliderStepper::setControlEnabled(bool enabled) {
  m_enabled = enabled;
  m_stepper->setEnabled(enabled);
  m_slider->setEnabled(enabled);
}

// The user moved the slider: the slider's integer value becomes the value.
void SliderStepper::sliderAction() { setValue(m_slider->value()); }

// Only our own stepper may set the value through this path.
void SliderStepper::numberStepperValueChanged(QObject* sender) {
  if (sender != m_stepper) return;
  setValue(m_stepper->value());
}

}  // namespace pelmora
