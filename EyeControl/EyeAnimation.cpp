#include "EyeAnimation.h"

#include <utility>

#include "catalogue/CatalogueRules.h"

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
  const std::string prefix = catalogue::kCategoryPrefix;
  if (name.compare(0, prefix.size(), prefix) != 0) return EYEANIMATION_NONE;
  return catalogue::categoryFromName(name.substr(prefix.size())).value_or(EYEANIMATION_NONE);
}
