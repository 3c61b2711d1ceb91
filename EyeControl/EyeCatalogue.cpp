// Readers of the iris, background and eyelid catalogues, and eyelid lookup.
#include <spdlog/spdlog.h>
#include <tinyxml2.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "EyeControl.h"

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace {

const char* printable(const char* path) {
  return path != nullptr ? path : "(null)";
}

// A missing required attribute ends the read the way a std::string built from
// null would, but without relying on the standard library to notice.
std::string requiredText(const XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  if (value == nullptr) throw std::logic_error("basic_string: construction from null is not valid");
  return value;
}

// Attributes the format requires but which are not checked: absent reads as "".
std::string optionalText(const XMLElement* element, const char* name) {
  const char* value = element->Attribute(name);
  return value != nullptr ? value : "";
}

// Loads `path`; null (after logging) when it cannot be read or has no List root.
const XMLElement* loadList(XMLDocument& doc, const char* path) {
  doc.LoadFile(path);
  const XMLElement* list =
      doc.ErrorID() == tinyxml2::XML_SUCCESS ? doc.FirstChildElement("List") : nullptr;
  if (list == nullptr) spdlog::error("{} XML parse failed!", printable(path));
  return list;
}

// First child named `name`, then every following sibling element whatever its name.
template <typename Fn>
void forEachEntry(const XMLElement* parent, const char* name, Fn fn) {
  if (parent == nullptr) return;
  for (const XMLElement* e = parent->FirstChildElement(name); e != nullptr;
       e = e->NextSiblingElement())
    fn(e);
}

}  // namespace

std::vector<IrisType> EyeControl::getIrisTypes(const char* path) {
  std::vector<IrisType> result;
  XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  const XMLElement* list = loadList(doc, path);
  if (list == nullptr) return result;

  forEachEntry(list, "Iris_Type", [&](const XMLElement* group) {
    IrisType type;
    type.shape = IrisType::getShape(requiredText(group, "name"));
    std::vector<Iris> irises;
    forEachEntry(group, "Iris", [&](const XMLElement* e) {
      Iris iris;
      iris.style = optionalText(e, "style");
      // Only the low byte is kept: 200 becomes -56.
      iris.offsetX = static_cast<int8_t>(e->IntAttribute("offsetX", 0));
      iris.offsetY = static_cast<int8_t>(e->IntAttribute("offsetY", 0));
      iris.left = optionalText(e, "left");
      const char* right = e->Attribute("right");
      iris.right = right != nullptr ? right : iris.left;
      irises.push_back(iris);
    });
    type.irises = irises;
    result.push_back(type);
  });
  return result;
}

std::vector<BackgroundType> EyeControl::getBackgroundTypes(const char* path) {
  std::vector<BackgroundType> result;
  XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  const XMLElement* list = loadList(doc, path);
  if (list == nullptr) return result;

  forEachEntry(list, "Background_Type", [&](const XMLElement* group) {
    BackgroundType type;
    type.type = BackgroundType::getShape(requiredText(group, "name"));
    std::vector<Background> backgrounds;
    forEachEntry(group, "Background", [&](const XMLElement* e) {
      Background background;
      background.style = optionalText(e, "style");
      background.left = optionalText(e, "left");
      background.right = optionalText(e, "right");
      if (!background.left.empty() && background.right.empty()) {
        background.right = background.left;
      } else if (type.type == EyeContentType::IMAGE && background.left.empty()) {
        // Kept anyway: the message only warns about the file.
        spdlog::error("{} XML parse detail:{} error!", printable(path), background.style);
      }
      backgrounds.push_back(background);
    });
    type.backgrounds = backgrounds;
    result.push_back(type);
  });
  return result;
}

std::vector<EyeLidPart> EyeControl::get_LidImages(const char* path) {
  std::vector<EyeLidPart> result;
  XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  const XMLElement* list = loadList(doc, path);
  if (list == nullptr) return result;

  // A missing section simply contributes nothing.
  forEachEntry(list->FirstChildElement("Images"), "Data", [&](const XMLElement* e) {
    EyeLidPart lid;
    lid.name = optionalText(e, "name");
    lid.id = static_cast<uint16_t>(e->IntAttribute("id", 0));
    const std::string image = requiredText(e, "path");
    lid.content = VContent::getImage(image, true, true);
    // Fill colour in display depth; alpha stays 8-bit.
    lid.color[0] = static_cast<uint8_t>(e->IntAttribute("r", 0) / 16);
    lid.color[1] = static_cast<uint8_t>(e->IntAttribute("g", 0) / 16);
    lid.color[2] = static_cast<uint8_t>(e->IntAttribute("b", 0) / 16);
    lid.color[3] = static_cast<uint8_t>(e->IntAttribute("a", 0));
    result.push_back(lid);
  });

  // Sequences: only their description now; the player loads the frames when shown.
  forEachEntry(list->FirstChildElement("Animations"), "Data", [&](const XMLElement* e) {
    EyeLidPart lid;
    lid.name = optionalText(e, "name");
    lid.id = static_cast<uint16_t>(e->IntAttribute("id", 0));
    lid.content.path = optionalText(e, "path");
    lid.content.ratio = static_cast<uint8_t>(e->IntAttribute("ratio", 1));
    lid.content.loop = static_cast<uint16_t>(e->IntAttribute("loop", 0));
    lid.content.frameTotal = static_cast<uint16_t>(e->IntAttribute("ft", 0));
    lid.content.width = static_cast<uint16_t>(e->IntAttribute("w", 0));
    lid.content.height = static_cast<uint16_t>(e->IntAttribute("h", 0));
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
