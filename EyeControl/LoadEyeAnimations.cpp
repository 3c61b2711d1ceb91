#include "LoadEyeAnimations.h"

#include <spdlog/spdlog.h>
#include <tinyxml2.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "Helper.h"

using tinyxml2::XMLElement;

namespace {

constexpr double kFramePeriodMs = 40.0;

// Name, Categories and Side are required: without one the read ends the way a
// std::string built from null would.
std::string requiredText(const XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  if (value == nullptr) throw std::logic_error("basic_string: construction from null is not valid");
  return value;
}

// Integers are base 0 on purpose: 0x1E is hexadecimal, 010 octal, -90 wraps back to
// -90 in 16 bits. A missing number reads as 0.
uint16_t number(const XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  if (value == nullptr) return 0;
  return static_cast<uint16_t>(std::strtoul(value, nullptr, 0));
}

short signedNumber(const XMLElement* element, const char* name) {
  return static_cast<short>(number(element, name));
}

float decimal(const XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  if (value == nullptr) return 0.0f;
  return static_cast<float>(std::strtod(value, nullptr));
}

moveEvent readEvent(const XMLElement* e) {
  const short x = signedNumber(e, "X");
  const short y = signedNumber(e, "Y");
  const short timeMs = signedNumber(e, "TimeMs");
  const short wait = signedNumber(e, "Wait");
  const float scaleX = decimal(e, "ScaleX");
  const float scaleY = decimal(e, "ScaleY");
  const short lidTopY = signedNumber(e, "LidTopY");
  const short lidBotY = signedNumber(e, "LidBotY");
  const short topLidIndex = signedNumber(e, "TopLidIndex");
  const short botLidIndex = signedNumber(e, "BotLidIndex");
  const short rotateAngle = signedNumber(e, "RotateAngle");
  const short ellipseH = signedNumber(e, "Ellipse_H");
  return moveEvent(x, y, timeMs, wait, scaleX, scaleY, kFramePeriodMs, lidTopY, lidBotY,
                   topLidIndex, botLidIndex, rotateAngle, ellipseH);
}

}  // namespace

std::vector<std::shared_ptr<EyeAnimation>> LoadEyeAnimations::get_Animations(const char* path) {
  std::vector<std::shared_ptr<EyeAnimation>> result;
  tinyxml2::XMLDocument doc;
  doc.LoadFile(path);
  const XMLElement* list =
      doc.ErrorID() == tinyxml2::XML_SUCCESS ? doc.FirstChildElement("List") : nullptr;
  if (list == nullptr) {
    spdlog::error("{} XML parse failed!", path != nullptr ? path : "(null)");
    return result;
  }

  // Every element after the first of its kind is read as one more of that kind.
  for (const XMLElement* a = list->FirstChildElement("Animation"); a != nullptr;
       a = a->NextSiblingElement()) {
    const uint16_t id = number(a, "Id");
    auto animation = std::make_shared<EyeAnimation>(id, requiredText(a, "Name"));
    animation->categories =
        getEyeAnimationCategories(Helper::split(requiredText(a, "Categories"), ','));

    for (const XMLElement* s = a->FirstChildElement("AnimationSide"); s != nullptr;
         s = s->NextSiblingElement()) {
      const std::string side = requiredText(s, "Side");
      EyeSideAnimation* track = nullptr;
      if (side == "Left")
        track = &animation->left;
      else if (side == "Right")
        track = &animation->right;
      for (const XMLElement* e = s->FirstChildElement("Event"); e != nullptr;
           e = e->NextSiblingElement()) {
        moveEvent event = readEvent(e);
        if (track != nullptr) track->events.push_back(event);
      }
      if (track == nullptr) spdlog::error("Loading eyeside xml parse error!");
    }
    result.push_back(animation);
  }
  return result;
}

std::vector<EyeAnimationCategory> LoadEyeAnimations::getEyeAnimationCategories(
    std::vector<std::string> names) {
  std::vector<EyeAnimationCategory> categories;
  // The 8-bit counter caps a list at 255 names, a limit of the catalogue format:
  // with 256 or more it wraps and this loop never ends.
  for (uint8_t i = 0; i < names.size(); i++)
    categories.push_back(EyeAnimation::getCategory("EYEANIMATION_" + names[i]));
  return categories;
}
