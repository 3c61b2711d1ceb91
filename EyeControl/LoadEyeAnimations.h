// Reader of the animation catalogue.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "EyeAnimation.h"

class LoadEyeAnimations {
 public:
  // Every animation of the catalogue at `path`, in file order; empty (after logging
  // "{} XML parse failed!") when the file cannot be read.
  static std::vector<std::shared_ptr<EyeAnimation>> get_Animations(const char* path);
  // One category per short name ("HAPPINESS" -> EYEANIMATION_HAPPINESS), 0 when unknown.
  static std::vector<EyeAnimationCategory> getEyeAnimationCategories(std::vector<std::string> names);
};
