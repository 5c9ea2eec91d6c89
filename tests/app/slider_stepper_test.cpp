#include <QSlider>
#include <QSpinBox>

#include <gtest/gtest.h>

#include "app/slider_stepper.h"

namespace pelmora {
namespace {

struct RecordingDelegate : SliderStepperDelegate {
  void sliderStepperValueChanged(SliderStepper& sender) override {
    values.push_back(sender.value());
    if (echo) sender.setValue(sender.value());  // setting it again from inside must not loop
  }
  std::vector<int> values;
  bool echo = false;
};

// Built at 20 on 1..8: clamped and shown on both controls, without telling the delegate. Then each
// value set is clamped, shown twice, and told only when it changed.
TEST(SliderStepper, SettingTheValueClampsShowsItTwiceAndTellsTheDelegateOnlyOnRealChanges) {
  struct Step { int set; int shown; bool told; };
  const Step steps[] = {
      {4, 4, true}, {4, 4, false}, {100, 8, true}, {9, 8, false}, {0, 1, true}, {-5, 1, false}, {8, 8, true},
  };
  QWidget placeholder;
  RecordingDelegate d;
  d.echo = true;
  SliderStepper s(&placeholder, 1, 8, 1, 20, &d);
  EXPECT_TRUE(d.values.empty());
  EXPECT_EQ(s.value(), 8);
  EXPECT_EQ(s.m_slider->value(), 8);
  EXPECT_EQ(s.m_slider->maximum(), 8);
  EXPECT_EQ(s.parentWidget(), &placeholder);
  for (const auto& step : steps) {
    const size_t before = d.values.size();
    s.setValue(step.set);
    EXPECT_EQ(s.value(), step.shown) << "set " << step.set;
    EXPECT_EQ(s.m_slider->value(), step.shown) << "set " << step.set;
    EXPECT_EQ(d.values.size(), before + (step.told ? 1 : 0)) << "set " << step.set;
  }
  EXPECT_EQ(clampSliderValue(7, 3, 2), 3) << "an empty range gives its minimum";
}

TEST(SliderStepper, UserChangesReachTheOtherControlAndMaximumAndEnablingCoverBoth) {
  QWidget placeholder;
  RecordingDelegate d;
  SliderStepper s(&placeholder, 1, 16, 1, 4, &d);
  s.m_slider->setValue(10);  // as a drag would
  EXPECT_EQ(s.m_stepper->value(), 10);
  s.m_stepper->setValue(12);  // as an arrow click would
  EXPECT_EQ(s.m_slider->value(), 12);
  EXPECT_EQ(d.values, (std::vector<int>{10, 12}));
  s.setMaximum(6);  // lowering the maximum clamps silently
  EXPECT_EQ(s.value(), 6);
  EXPECT_EQ(s.m_slider->value(), 6);
  EXPECT_EQ(d.values.size(), 2u);
  s.setControlEnabled(false);
  EXPECT_FALSE(s.controlEnabled());
  EXPECT_FALSE(s.m_slider->isEnabled());
  EXPECT_FALSE(s.m_stepper->isEnabled());
  s.setControlEnabled(true);
  EXPECT_TRUE(s.m_slider->isEnabled() && s.m_stepper->isEnabled());
}

}  // namespace
}  // namespace pelmora
