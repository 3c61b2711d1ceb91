#include "Iris.h"

#include "Helper.h"

IrisShape IrisType::getShape(std::string name) {
  if (name == "CLASSIC") return IrisShape::CLASSIC;
  if (name == "MODERN") return IrisShape::MODERN;
  if (name == "SPACE") return IrisShape::SPACE;
  if (name == "ORBIT") return IrisShape::ORBIT;
  if (name == "GLOW") return IrisShape::GLOW;
  if (name == "DIGI") return IrisShape::DIGI;
  if (name == "FOOD") return IrisShape::FOOD;
  if (name == "MISC") return IrisShape::MISC;
  if (name == "SEASONAL") return IrisShape::SEASONAL;
  if (name == "SYMBOL") return IrisShape::SYMBOL;
  if (name == "CASINO") return IrisShape::CASINO;
  if (name == "MATCH") return IrisShape::MATCH;
  // A misspelt group lands under the user's current shape instead of being dropped.
  return static_cast<IrisShape>(Helper::getSettings().defaultIrisShape);
}

std::string IrisType::getName(IrisShape shape) {
  switch (shape) {
    case IrisShape::CLASSIC:
      return "CLASSIC";
    case IrisShape::MODERN:
      return "MODERN";
    case IrisShape::SPACE:
      return "SPACE";
    case IrisShape::ORBIT:
      return "ORBIT";
    case IrisShape::GLOW:
      return "GLOW";
    case IrisShape::DIGI:
      return "DIGI";
    case IrisShape::FOOD:
      return "FOOD";
    case IrisShape::MISC:
      return "MISC";
    case IrisShape::SEASONAL:
      return "SEASONAL";
    case IrisShape::SYMBOL:
      return "SYMBOL";
    case IrisShape::CASINO:
      return "CASINO";
    case IrisShape::MATCH:
      return "MATCH";
  }
  return "";
}

Iris* IrisType::getIris(std::string style) {
  for (Iris& iris : irises)
    if (iris.style == style) return &iris;
  return nullptr;
}
