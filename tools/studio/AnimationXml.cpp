#include "AnimationXml.h"

#include <tinyxml2.h>

#include <cctype>
#include <cmath>

#include "EyeAnimation.h"
#include "LoadEyeAnimations.h"
#include "catalogue/CatalogueRules.h"

namespace studio {

namespace {

using catalogue::eventRule;

moveEvent eventOf(const EventDraft& e) {
  const auto& v = e.values;
  const auto s = [&](size_t i) { return static_cast<short>(v[i]); };
  return moveEvent(s(0), s(1), s(2), s(3), static_cast<float>(v[4]), static_cast<float>(v[5]),
                   catalogue::kFramePeriodMs, s(6), s(7), s(8), s(9), s(10), s(11));
}

EventDraft draftOf(const moveEvent& e) {
  EventDraft d;
  d.values = {static_cast<double>(e.x),
              static_cast<double>(e.y),
              static_cast<double>(e.move_ms),
              static_cast<double>(e.wait_ms),
              e.scale_x,
              e.scale_y,
              static_cast<double>(e.lid_top_y),
              static_cast<double>(e.lid_bot_y),
              static_cast<double>(e.top_lid_index),
              static_cast<double>(e.bot_lid_index),
              static_cast<double>(e.rotate_angle),
              static_cast<double>(e.ellipse_h)};
  return d;
}

// Indents as the bundled catalogue does: two spaces a level, "List" children one in.
class CataloguePrinter : public tinyxml2::XMLPrinter {
 protected:
  void PrintSpace(int depth) override {
    for (int i = 0; i <= depth; ++i) Write("  ");
  }
};

void addSide(tinyxml2::XMLElement& animation, const char* name,
             const std::vector<EventDraft>& events) {
  auto* side = animation.InsertNewChildElement(catalogue::sideRule().element);
  side->SetAttribute("Side", name);
  for (const EventDraft& e : events) {
    auto* event = side->InsertNewChildElement(eventRule().element);
    const auto& attributes = eventRule().attributes;
    for (size_t i = 0; i < attributes.size(); ++i) {
      const auto& rule = attributes[i];
      // Integers never with a leading zero: the reader takes 010 as octal.
      event->SetAttribute(rule.name,
                          (rule.kind == catalogue::ValueKind::Decimal
                               ? catalogue::formatDecimal(static_cast<float>(e.values[i]))
                               : catalogue::formatInteger(std::lround(e.values[i])))
                              .c_str());
    }
  }
}

// Offset just past what starts at `at` when it is a comment, declaration or CDATA
// section; `at` otherwise.
size_t skipMarkup(const std::string& text, size_t at) {
  for (const auto& [open, close] : {std::pair<const char*, const char*>{"<!--", "-->"},
                                    {"<![CDATA[", "]]>"},
                                    {"<?", "?>"},
                                    {"<!", ">"}}) {
    if (text.compare(at, std::char_traits<char>::length(open), open) == 0) {
      const size_t end = text.find(close, at);
      return end == std::string::npos ? text.size() : end + std::char_traits<char>::length(close);
    }
  }
  return at;
}

bool isNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' ||
         c == ':';
}

// Value of attribute `name` in the start tag text `tag`.
std::string attribute(const std::string& tag, const std::string& name) {
  for (size_t at = tag.find(name); at != std::string::npos; at = tag.find(name, at + 1)) {
    if (at == 0 || isNameChar(tag[at - 1])) continue;
    size_t p = at + name.size();
    while (p < tag.size() && std::isspace(static_cast<unsigned char>(tag[p]))) ++p;
    if (p >= tag.size() || tag[p] != '=') continue;
    ++p;
    while (p < tag.size() && std::isspace(static_cast<unsigned char>(tag[p]))) ++p;
    if (p >= tag.size() || (tag[p] != '"' && tag[p] != '\'')) continue;
    const size_t end = tag.find(tag[p], p + 1);
    if (end == std::string::npos) return {};
    return tag.substr(p + 1, end - p - 1);
  }
  return {};
}

}  // namespace

std::shared_ptr<EyeAnimation> buildAnimation(const AnimationDraft& draft) {
  auto animation = std::make_shared<EyeAnimation>(static_cast<uint16_t>(draft.id), draft.name);
  animation->categories = LoadEyeAnimations::getEyeAnimationCategories(draft.categories);
  for (const EventDraft& e : draft.left) animation->left.events.push_back(eventOf(e));
  for (const EventDraft& e : draft.right) animation->right.events.push_back(eventOf(e));
  return animation;
}

AnimationDraft draftOf(const EyeAnimation& animation) {
  AnimationDraft draft;
  draft.id = animation.id;
  draft.name = animation.name;
  for (auto category : animation.categories)
    draft.categories.push_back(catalogue::categoryName(category));
  for (const auto& e : animation.left.events) draft.left.push_back(draftOf(e));
  for (const auto& e : animation.right.events) draft.right.push_back(draftOf(e));
  return draft;
}

std::string animationElement(const AnimationDraft& draft) {
  std::string categories;
  for (const auto& c : draft.categories)
    categories += (categories.empty() ? "" : std::string(1, catalogue::kCategorySeparator)) + c;
  tinyxml2::XMLDocument document;
  auto* animation = document.NewElement(catalogue::animationRule().element);
  document.InsertEndChild(animation);
  animation->SetAttribute("Id", draft.id);
  animation->SetAttribute("Name", draft.name.c_str());
  animation->SetAttribute("Categories", categories.c_str());
  addSide(*animation, catalogue::kLeftSide, draft.left);
  addSide(*animation, catalogue::kRightSide, draft.right);
  CataloguePrinter printer;
  animation->Accept(&printer);
  // The printer puts a line break and indent before every element, the first included.
  std::string text = printer.CStr();
  text.erase(0, text.find('<'));
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return "  " + text + "\n";
}

std::string spliceAnimation(const std::string& text, const std::string& replaces,
                            const AnimationDraft& draft, std::string& error) {
  // Walks the tags outside comments: Animation elements do not nest, so each one
  // runs from its start tag to the first end tag after it.
  const std::string listClose = std::string("</") + catalogue::kRootElement + ">";
  const std::string open = std::string("<") + catalogue::animationRule().element;
  const std::string close = "</" + open.substr(1);
  size_t listEnd = std::string::npos;
  size_t start = std::string::npos, end = std::string::npos;
  for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
    const size_t skipped = skipMarkup(text, at);
    if (skipped != at) {
      at = skipped - 1;
      continue;
    }
    if (text.compare(at, listClose.size(), listClose) == 0) listEnd = at;
    if (replaces.empty() || start != std::string::npos) continue;
    if (text.compare(at, open.size(), open) != 0 || isNameChar(text[at + open.size()])) continue;
    const size_t tagEnd = text.find('>', at);
    if (tagEnd == std::string::npos) break;
    if (attribute(text.substr(at, tagEnd - at), "Name") != replaces) continue;
    start = at;
    if (text[tagEnd - 1] == '/') {
      end = tagEnd + 1;
    } else {
      size_t closeAt = text.find(close, tagEnd);
      while (closeAt != std::string::npos && isNameChar(text[closeAt + close.size()]))
        closeAt = text.find(close, closeAt + 1);  // </AnimationSide
      const size_t closeEnd = closeAt == std::string::npos ? closeAt : text.find('>', closeAt);
      if (closeEnd == std::string::npos) break;
      end = closeEnd + 1;
    }
  }
  std::string element = animationElement(draft);
  if (!replaces.empty()) {
    if (start == std::string::npos || end == std::string::npos) {
      error = "the catalogue has no animation named \"" + replaces + "\" any more";
      return {};
    }
    // The element text starts where the old one started and ends where it ended.
    element = element.substr(2, element.size() - 3);
    return text.substr(0, start) + element + text.substr(end);
  }
  if (listEnd == std::string::npos) {
    error = "the catalogue has no " + listClose + " to add the animation to";
    return {};
  }
  // Added on a line of its own, after a blank line, as the bundled file spaces them.
  size_t lineStart = text.rfind('\n', listEnd);
  lineStart = lineStart == std::string::npos ? 0 : lineStart + 1;
  const bool ownLine = text.find_first_not_of(" \t", lineStart) == listEnd;
  const size_t insertAt = ownLine ? lineStart : listEnd;
  return text.substr(0, insertAt) + (ownLine ? "\n" : "\n\n") + element + text.substr(insertAt);
}

}  // namespace studio
