#include "Background.h"

#include "Helper.h"
#include "catalogue/CatalogueRules.h"

EyeContentType BackgroundType::getShape(std::string name) {
  // An unknown group name takes the user's current background kind.
  return catalogue::contentKindFromName(name).value_or(
      static_cast<EyeContentType>(Helper::getSettings().defaultBackgroundType));
}

std::string BackgroundType::getName(EyeContentType type) {
  return catalogue::contentKindName(type);
}

Background* BackgroundType::getBackground(std::string style) {
  for (Background& background : backgrounds)
    if (background.style == style) return &background;
  return nullptr;
}
