#include "EyeAnimation.h"

#include <utility>

EyeAnimation::EyeAnimation(uint16_t id, std::string name)
    : id(id), name(std::move(name)), state(AnimationState::IDLE) {}

EyeAnimation::EyeAnimation(const EyeAnimation& other)
    : left(other.left),
      right(other.right),
      id(other.id),
      name(other.name),
      state(other.state.load()),
      categories(other.categories) {}

void EyeAnimation::ClearAnimation() {
  state.store(AnimationState::IDLE);
  left.clearAnimationSide();
  right.clearAnimationSide();
}

EyeAnimationCategory EyeAnimation::getCategory(std::string name) {
  if (name == "EYEANIMATION_ANGER") return EYEANIMATION_ANGER;
  if (name == "EYEANIMATION_MISC") return EYEANIMATION_MISC;
  if (name == "EYEANIMATION_CONFUSION") return EYEANIMATION_CONFUSION;
  if (name == "EYEANIMATION_SPECIAL") return EYEANIMATION_SPECIAL;
  if (name == "EYEANIMATION_DEPRESSION") return EYEANIMATION_DEPRESSION;
  if (name == "EYEANIMATION_FEAR") return EYEANIMATION_FEAR;
  if (name == "EYEANIMATION_HAPPINESS") return EYEANIMATION_HAPPINESS;
  if (name == "EYEANIMATION_HURT") return EYEANIMATION_HURT;
  if (name == "EYEANIMATION_IDLE") return EYEANIMATION_IDLE;
  if (name == "EYEANIMATION_INTERNAL") return EYEANIMATION_INTERNAL;
  if (name == "EYEANIMATION_USER_DEFINED") return EYEANIMATION_USER_DEFINED;
  return EYEANIMATION_NONE;
}
