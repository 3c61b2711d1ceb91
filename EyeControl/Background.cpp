#include "Background.h"

#include "Helper.h"

EyeContentType BackgroundType::getShape(std::string name) {
  if (name == "COLOR") return EyeContentType::COLOR;
  if (name == "IMAGE") return EyeContentType::IMAGE;
  // An unknown group name takes the user's current background kind.
  return static_cast<EyeContentType>(Helper::getSettings().defaultBackgroundType);
}

std::string BackgroundType::getName(EyeContentType type) {
  switch (type) {
    case EyeContentType::COLOR:
      return "COLOR";
    case EyeContentType::IMAGE:
      return "IMAGE";
  }
  return "";
}

Background* BackgroundType::getBackground(std::string style) {
  for (Background& background : backgrounds)
    if (background.style == style) return &background;
  return nullptr;
}
