#include <QApplication>
#include <QSlider>
#include <QSpinBox>

#include <gtest/gtest.h>

#include "app/slider_stepper.h"

namespace pelmora {
namespace {

struct RecordingDelegate : SliderStepperDelegate {
  void sliderStepperValueChanged(SliderStepper& sender) override { values.push_back(sender.value()); }
  std::vector<int> values;
};

TEST(SliderStepperClamp, Table) {
  struct Case { int requested, minimum, maximum, expected; };
  const Case cases[] = {
      {5, 1, 8, 5}, {0, 1, 8, 1}, {-3, 1, 8, 1}, {9, 1, 8, 8}, {1000, 1, 128, 128}, {8, 1, 8, 8},
      {4, 4, 4, 4}, {7, 3, 2, 3},
  };
  for (const auto& c : cases)
    EXPECT_EQ(clampSliderValue(c.requested, c.minimum, c.maximum), c.expected)
        << c.requested << " in [" << c.minimum << ", " << c.maximum << "]";
}

TEST(SliderStepper, BuildingCallsNoDelegateAndShowsTheValueTwice) {
  QWidget placeholder;
  RecordingDelegate d;
  SliderStepper s(&placeholder, 1, 8, 1, 20, &d);
  EXPECT_TRUE(d.values.empty());
  EXPECT_EQ(s.value(), 8);
  EXPECT_EQ(s.m_slider->value(), 8);
  EXPECT_EQ(s.m_slider->maximum(), 8);
  EXPECT_EQ(s.parentWidget(), &placeholder);
}

TEST(SliderStepper, SettingTheValueTellsTheDelegateOnlyOnRealChanges) {
  struct Step { int set; int shown; bool told; };
  const Step steps[] = {
      {4, 4, true}, {4, 4, false}, {100, 8, true}, {9, 8, false}, {0, 1, true}, {-5, 1, false}, {8, 8, true},
  };
  QWidget placeholder;
  RecordingDelegate d;
  SliderStepper s(&placeholder, 1, 8, 1, 2, &d);
  for (const auto& step : steps) {
    const size_t before = d.values.size();
    s.setValue(step.set);
    EXPECT_EQ(s.value(), step.shown) << "set " << step.set;
    EXPECT_EQ(s.m_slider->value(), step.shown) << "set " << step.set;
    EXPECT_EQ(d.values.size(), before + (step.told ? 1 : 0)) << "set " << step.set;
  }
}

TEST(SliderStepper, UserChangesOnEitherControlReachTheOther) {
  QWidget placeholder;
  RecordingDelegate d;
  SliderStepper s(&placeholder, 1, 16, 1, 4, &d);
  s.m_slider->setValue(10);  // as a drag would
  EXPECT_EQ(s.m_stepper->value(), 10);
  s.m_stepper->setValue(12);  // as an arrow click would
  EXPECT_EQ(s.m_slider->value(), 12);
  EXPECT_EQ(d.values, (std::vector<int>{10, 12}));
}

// A delegate that sets the value again from inside its callback must not loop.
TEST(SliderStepper, DelegateSettingTheSameValueDoesNotRecurse) {
  struct Echo : SliderStepperDelegate {
    void sliderStepperValueChanged(SliderStepper& sender) override {
      ++calls;
      sender.setValue(sender.value());
    }
    int calls = 0;
  } echo;
  QWidget placeholder;
  SliderStepper s(&placeholder, 1, 8, 1, 1, &echo);
  s.setValue(6);
  EXPECT_EQ(echo.calls, 1);
}

TEST(SliderStepper, LoweringTheMaximumClampsSilentlyAndEnablingCoversBothControls) {
  QWidget placeholder;
  RecordingDelegate d;
  SliderStepper s(&placeholder, 1, 16, 1, 12, &d);
  s.setMaximum(6);
  EXPECT_EQ(s.value(), 6);
  EXPECT_EQ(s.m_slider->value(), 6);
  EXPECT_TRUE(d.values.empty());
  s.setControlEnabled(false);
  EXPECT_FALSE(s.controlEnabled());
  EXPECT_FALSE(s.m_slider->isEnabled());
  EXPECT_FALSE(s.m_stepper->isEnabled());
  s.setControlEnabled(true);
  EXPECT_TRUE(s.m_slider->isEnabled() && s.m_stepper->isEnabled());
}

}  // namespace
}  // namespace pelmora
