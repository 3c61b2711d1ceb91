// A named eye animation: a keyframe track per eye, its categories and play state.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "EyeSideAnimation.h"

enum EyeAnimationCategory : uint8_t {
  EYEANIMATION_NONE = 0,
  EYEANIMATION_ANGER = 1,
  EYEANIMATION_MISC = 2,
  EYEANIMATION_CONFUSION = 3,
  EYEANIMATION_SPECIAL = 4,
  EYEANIMATION_DEPRESSION = 5,
  EYEANIMATION_FEAR = 6,
  EYEANIMATION_HAPPINESS = 7,
  EYEANIMATION_HURT = 8,
  EYEANIMATION_IDLE = 9,
  EYEANIMATION_INTERNAL = 10,
  EYEANIMATION_USER_DEFINED = 11,
};

enum class AnimationState : uint8_t {
  IDLE = 0,
  PLAYING = 1,
  ABORTING = 2,
  COMPLETED = 3,
};

class EyeAnimation {
 public:
  EyeAnimation(uint16_t id, std::string name);
  EyeAnimation(const EyeAnimation& other);

  // State back to IDLE and both tracks rewound, ready to play again.
  void ClearAnimation();
  // The category whose full name ("EYEANIMATION_ANGER", ...) equals `name`, else NONE.
  static EyeAnimationCategory getCategory(std::string name);

  EyeSideAnimation left;
  EyeSideAnimation right;
  uint16_t id;
  std::string name;
  std::atomic<AnimationState> state;
  std::vector<EyeAnimationCategory> categories;
};
