#include "LoadEyeAnimations.h"

#include <spdlog/spdlog.h>
#include <tinyxml2.h>

#include <array>
#include <cstdint>

#include "CatalogueRules.h"

using namespace catalogue;
using tinyxml2::XMLElement;

namespace {

// The twelve event attributes in the order of the rule, which is the order of
// moveEvent's constructor.
moveEvent readEvent(const XMLElement* e) {
  const EntryRule& rule = eventRule();
  auto n = [&](const char* name) { return static_cast<short>(numberOf(e, rule, name)); };
  return moveEvent(n("X"), n("Y"), n("TimeMs"), n("Wait"), decimalOf(e, rule, "ScaleX"),
                   decimalOf(e, rule, "ScaleY"), kFramePeriodMs, n("LidTopY"), n("LidBotY"),
                   n("TopLidIndex"), n("BotLidIndex"), n("RotateAngle"), n("Ellipse_H"));
}

}  // namespace

std::vector<std::shared_ptr<EyeAnimation>> LoadEyeAnimations::get_Animations(const char* path) {
  std::vector<std::shared_ptr<EyeAnimation>> result;
  tinyxml2::XMLDocument doc;
  doc.LoadFile(path);
  const XMLElement* list =
      doc.ErrorID() == tinyxml2::XML_SUCCESS ? doc.FirstChildElement(kRootElement) : nullptr;
  if (list == nullptr) {
    spdlog::error("{} XML parse failed!", path != nullptr ? path : "(null)");
    return result;
  }

  const EntryRule& animationEntry = animationRule();
  const EntryRule& sideEntry = sideRule();
  forEachEntry(list, animationEntry.element, [&](const XMLElement* a) {
    const auto id = static_cast<uint16_t>(numberOf(a, animationEntry, "Id"));
    auto animation = std::make_shared<EyeAnimation>(id, textOf(a, animationEntry, "Name"));
    animation->categories =
        getEyeAnimationCategories(splitCategories(textOf(a, animationEntry, "Categories")));

    forEachEntry(a, sideEntry.element, [&](const XMLElement* s) {
      const std::string side = textOf(s, sideEntry, "Side");
      EyeSideAnimation* track = nullptr;
      if (side == kLeftSide)
        track = &animation->left;
      else if (side == kRightSide)
        track = &animation->right;
      forEachEntry(s, eventRule().element, [&](const XMLElement* e) {
        moveEvent event = readEvent(e);
        if (track != nullptr) track->events.push_back(event);
      });
      if (track == nullptr) spdlog::error("Loading eyeside xml parse error!");
    });
    result.push_back(animation);
  });
  return result;
}

std::vector<EyeAnimationCategory> LoadEyeAnimations::getEyeAnimationCategories(
    std::vector<std::string> names) {
  std::vector<EyeAnimationCategory> categories;
  // The 8-bit counter caps a list at 255 names, a limit of the catalogue format:
  // with 256 or more it wraps and this loop never ends.
  for (uint8_t i = 0; i < names.size(); i++)
    categories.push_back(EyeAnimation::getCategory(kCategoryPrefix + names[i]));
  return categories;
}
