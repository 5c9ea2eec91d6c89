#pragma once
// SliderStepper: a slider joined to a numeric stepper that always show the same integer. Changing
// either one (or setting the value in code) tells the delegate once; setting the value it already
// has tells nobody, so a delegate may set the value from inside its own callback without a loop.
#include <QWidget>

class QSlider;
class QSpinBox;

namespace pelmora {

class SliderStepper;

class SliderStepperDelegate {
 public:
  virtual ~SliderStepperDelegate() = default;
  // Optional: the default does nothing.
  virtual void sliderStepperValueChanged(SliderStepper& sender) { (void)sender; }
};

class SliderStepper : public QWidget {
  Q_OBJECT
 public:
  // Builds itself inside placeholder (filling it), with the range [minimum, maximum], the stepper's
  // increment and the first value. The delegate is stored last, so building calls nobody.
  SliderStepper(QWidget* placeholder, int minimum, int maximum, int increment, int value,
                SliderStepperDelegate* delegate);

  int value() const;
  // Clamped to [minimum, maximum]; the delegate is called only when the value really changes.
  void setValue(int value);
  int minimum() const;
  int maximum() const;
  // Stepper maximum, slider maximum and one tick mark per value; a value above it is clamped
  // silently (no delegate call), as a range change is not a user's choice.
  void setMaximum(int maximum);
  void setMinimum(int minimum);

  SliderStepperDelegate* delegate() const { return m_delegate; }
  void setDelegate(SliderStepperDelegate* delegate) { m_delegate = delegate; }

  // Enables or disables the stepper and the slider together.
  void setControlEnabled(bool enabled);
  bool controlEnabled() const { return m_enabled; }

  QSlider* m_slider;
  QSpinBox* m_stepper;

 private:
  void sliderAction();
  void numberStepperValueChanged(QObject* sender);

  SliderStepperDelegate* m_delegate = nullptr;
  bool m_enabled = true;
};

// The value a request for `requested` ends with in [minimum, maximum]. Pure.
int clampSliderValue(int requested, int minimum, int maximum);

}  // namespace pelmora
