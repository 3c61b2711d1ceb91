// Readers of the iris, background and eyelid catalogues, and eyelid lookup.
#include <spdlog/spdlog.h>
#include <tinyxml2.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CatalogueRules.h"
#include "EyeControl.h"

using namespace catalogue;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace {

const char* printable(const char* path) {
  return path != nullptr ? path : "(null)";
}

// Loads `path`; null (after logging) when it cannot be read or has no List root.
const XMLElement* loadList(XMLDocument& doc, const char* path) {
  doc.LoadFile(path);
  const XMLElement* list =
      doc.ErrorID() == tinyxml2::XML_SUCCESS ? doc.FirstChildElement(kRootElement) : nullptr;
  if (list == nullptr) spdlog::error("{} XML parse failed!", printable(path));
  return list;
}

// One Group per group element of the catalogue at `path`, in file order.
template <typename Group, typename ReadGroup>
std::vector<Group> readGroups(const char* path, const EntryRule& groupRule, ReadGroup readGroup) {
  std::vector<Group> result;
  XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  const XMLElement* list = loadList(doc, path);
  forEachEntry(list, groupRule.element,
               [&](const XMLElement* group) { result.push_back(readGroup(group)); });
  return result;
}

}  // namespace

std::vector<IrisType> EyeControl::getIrisTypes(const char* path) {
  const EntryRule& groupRule = irisGroupRule();
  const EntryRule& entry = irisRule();
  return readGroups<IrisType>(path, groupRule, [&](const XMLElement* group) {
    IrisType type;
    type.shape = IrisType::getShape(textOf(group, groupRule, "name"));
    std::vector<Iris> irises;
    forEachEntry(group, entry.element, [&](const XMLElement* e) {
      Iris iris;
      iris.style = textOf(e, entry, "style");
      iris.offsetX = static_cast<int8_t>(numberOf(e, entry, "offsetX"));
      iris.offsetY = static_cast<int8_t>(numberOf(e, entry, "offsetY"));
      iris.left = textOf(e, entry, "left");
      iris.right = e->Attribute("right") != nullptr ? textOf(e, entry, "right") : iris.left;
      irises.push_back(iris);
    });
    type.irises = irises;
    return type;
  });
}

std::vector<BackgroundType> EyeControl::getBackgroundTypes(const char* path) {
  const EntryRule& groupRule = backgroundGroupRule();
  const EntryRule& entry = backgroundRule();
  return readGroups<BackgroundType>(path, groupRule, [&](const XMLElement* group) {
    BackgroundType type;
    type.type = BackgroundType::getShape(textOf(group, groupRule, "name"));
    std::vector<Background> backgrounds;
    forEachEntry(group, entry.element, [&](const XMLElement* e) {
      Background background;
      background.style = textOf(e, entry, "style");
      background.left = textOf(e, entry, "left");
      background.right = textOf(e, entry, "right");
      if (!background.left.empty() && background.right.empty()) {
        background.right = background.left;
      } else if (type.type == EyeContentType::IMAGE && background.left.empty()) {
        // Kept anyway: the message only warns about the file.
        spdlog::error("{} XML parse detail:{} error!", printable(path), background.style);
      }
      backgrounds.push_back(background);
    });
    type.backgrounds = backgrounds;
    return type;
  });
}

std::vector<EyeLidPart> EyeControl::get_LidImages(const char* path) {
  std::vector<EyeLidPart> result;
  XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  const XMLElement* list = loadList(doc, path);
  if (list == nullptr) return result;

  // A missing section simply contributes nothing.
  const EntryRule& still = lidImageRule();
  forEachEntry(list->FirstChildElement(still.parent), still.element, [&](const XMLElement* e) {
    EyeLidPart lid;
    lid.name = textOf(e, still, "name");
    lid.id = static_cast<uint16_t>(numberOf(e, still, "id"));
    const std::string image = textOf(e, still, "path");
    lid.content = VContent::getImage(image, decodesWithAlpha(ImageUse::Lid), true);
    // Fill colour in display depth; alpha stays 8-bit.
    lid.color[0] = static_cast<uint8_t>(uncutIntOf(e, still, "r") / 16);
    lid.color[1] = static_cast<uint8_t>(uncutIntOf(e, still, "g") / 16);
    lid.color[2] = static_cast<uint8_t>(uncutIntOf(e, still, "b") / 16);
    lid.color[3] = static_cast<uint8_t>(numberOf(e, still, "a"));
    result.push_back(lid);
  });

  // Sequences: only their description now; the player loads the frames when shown.
  const EntryRule& sequence = lidSequenceRule();
  forEachEntry(list->FirstChildElement(sequence.parent), sequence.element,
               [&](const XMLElement* e) {
                 EyeLidPart lid;
                 lid.name = textOf(e, sequence, "name");
                 lid.id = static_cast<uint16_t>(numberOf(e, sequence, "id"));
                 lid.content.path = textOf(e, sequence, "path");
                 lid.content.ratio = static_cast<uint8_t>(numberOf(e, sequence, "ratio"));
                 lid.content.loop = static_cast<uint16_t>(numberOf(e, sequence, "loop"));
                 lid.content.frameTotal = static_cast<uint16_t>(numberOf(e, sequence, "ft"));
                 lid.content.width = static_cast<uint16_t>(numberOf(e, sequence, "w"));
                 lid.content.height = static_cast<uint16_t>(numberOf(e, sequence, "h"));
                 result.push_back(lid);
               });

  // Lid indexes are positions in id order. Not stable: ids must be unique.
  std::sort(result.begin(), result.end(),
            [](const EyeLidPart& a, const EyeLidPart& b) { return a.id < b.id; });
  return result;
}

int EyeControl::getLid(unsigned short index, EyeLidPart& out) {
  if (index >= lid_images.size()) return -1;
  out = lid_images[index];
  return 0;
}
