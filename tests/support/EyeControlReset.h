// Puts the eye library's process-wide state back to how the process started, so
// each test begins from a known place.
#pragma once

#include <memory>

#include "EyeControl.h"
#include "Helper.h"
#include "LcdControl.h"
#include "VContent.h"

namespace eyetest {

inline void resetEye(Eyes& eye, short irisX, short irisY) {
  eye.iris = eye.background = eye.topLid = eye.bottomLid = nullptr;
  eye.lidImages = nullptr;
  eye.topLidColor = eye.bottomLidColor = nullptr;
  eye.offsetX = eye.offsetY = 0;
  eye.irisSeq = eye.topLidSeq = eye.bottomLidSeq = eye.backgroundSeq = SequenceState{};
  eye.irisX = irisX;
  eye.irisY = irisY;
  eye.scaleX = eye.scaleY = 1.0f;
  eye.topLidY = 0;
  eye.bottomLidY = 240;
  eye.topLidIndex = eye.bottomLidIndex = 0;
  eye.busy = false;
}

inline void resetEyeControl() {
  // Only the eye kinds ever finish; a worker of any other kind has already returned
  // with the flag left set, and waiting for it would never end.
  if (EyeControl::is_processing) {
    const uint8_t type = EyeControl::active_type;
    if (type >= BLOCK_EYE_ANIMATION && type <= BLOCK_EYE_BACKGROUND) EyeControl::Abort();
  }
  EyeControl::is_active = false;
  EyeControl::is_processing = false;
  EyeControl::active_type = BLOCK_EYE_POSITION;
  std::atomic_store(&EyeControl::active_animation, std::shared_ptr<EyeAnimation>());

  // The eyes let go of the records before the records go.
  resetEye(EyeControl::Left_Eye, 100, 140);
  resetEye(EyeControl::Right_Eye, 140, 140);
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
