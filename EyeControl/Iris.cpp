#include "Iris.h"

#include "Helper.h"
#include "catalogue/CatalogueRules.h"

IrisShape IrisType::getShape(std::string name) {
  // A misspelt group lands under the user's current shape instead of being dropped.
  return catalogue::irisShapeFromName(name).value_or(
      static_cast<IrisShape>(Helper::getSettings().defaultIrisShape));
}

std::string IrisType::getName(IrisShape shape) {
  return catalogue::irisShapeName(shape);
}

Iris* IrisType::getIris(std::string style) {
  for (Iris& iris : irises)
    if (iris.style == style) return &iris;
  return nullptr;
}
