// Puts the eye library's process-wide state back to how the process started, so
// each test begins from a known place.
#pragma once

#include <memory>

#include "EyeControl.h"
#include "Helper.h"
#include "LcdControl.h"
#include "VContent.h"

namespace eyetest {

inline void resetEyeControl() {
  // Only the eye kinds ever finish; a worker of any other kind has already returned
  // with the flag left set, and waiting for it would never end.
  const uint8_t type = EyeControl::active_type;
  if (type >= BLOCK_EYE_ANIMATION && type <= BLOCK_EYE_BACKGROUND) EyeControl::Abort();
  EyeControl::is_active = false;
  EyeControl::is_processing = false;
  EyeControl::active_type = BLOCK_EYE_POSITION;
  std::atomic_store(&EyeControl::active_animation, std::shared_ptr<EyeAnimation>());

  // The eyes let go of the records before the records go.
  for (Eyes* eye : {&EyeControl::Left_Eye, &EyeControl::Right_Eye}) {
    eye->rest();
    eye->busy = false;
  }
  EyeControl::eye_animations.clear();
  EyeControl::lid_images.clear();
  EyeControl::iris_types.clear();
  EyeControl::background_types.clear();
  EyeControl::default_iris = EyePart{};
  EyeControl::default_background = EyePart{};

  LcdControl::resetCounters();
  Helper::getSettings() = Settings{};
  VContent::setBaseDirectory("");
}

}  // namespace eyetest
