#include "lint.h"

#include <cmath>
#include <map>
#include <set>

#include "Color.h"
#include "LintContext.h"
#include "moveEvent.h"

namespace eyes {
namespace {

using namespace lintcheck;

class Linter : public LintContext {
 public:
  using LintContext::LintContext;

  std::vector<Finding> run() {
    const int lidCount = lintEyelids();
    lintAnimations(lidCount);
    lintBackgrounds();
    lintIrises();
    return findings();
  }

 private:
  // --- iris_type.xml ---
  void lintIrises() {
    XMLDocument doc;
    const XMLElement* list = open(doc, CatalogueFile::Irises);
    if (!list) return;
    std::set<std::string> shapes;
    for (const XMLElement* group : entries(list, irisGroupRule())) {
      if (const char* name = group->Attribute("name")) {
        if (!irisShapeFromName(name))
          error(group, "unknown iris shape " + inQuotes(name) +
                           ": the group is filed under the default shape");
        else if (!shapes.insert(name).second)
          warning(group, "a second " + std::string(name) +
                             " group is never searched; merge it into the first");
      }
      std::set<std::string> styles;
      for (const XMLElement* iris : entries(group, irisRule())) {
        const char* style = iris->Attribute("style");
        if (!style)
          error(iris, "<Iris> has no style: the iris cannot be chosen");
        else if (!styles.insert(style).second)
          warning(iris,
                  "style " + inQuotes(style) + " appears twice in this group: the first wins");
        const char* left = iris->Attribute("left");
        if (!left)
          error(iris, "<Iris> has no left: the iris has no image");
        else
          image(iris, left, "iris image", ImageUse::Iris);
        if (const char* right = iris->Attribute("right"))
          image(iris, right, "iris image", ImageUse::Iris);
      }
    }
  }

  // --- background_type.xml ---
  void lintBackgrounds() {
    XMLDocument doc;
    const XMLElement* list = open(doc, CatalogueFile::Backgrounds);
    if (!list) return;
    std::set<std::string> kinds;
    for (const XMLElement* group : entries(list, backgroundGroupRule())) {
      const char* name = group->Attribute("name");
      const auto kind = name ? contentKindFromName(name) : std::nullopt;
      if (name && !kind)
        error(group, "unknown background kind " + inQuotes(name) +
                         " (COLOR or IMAGE): the group is filed under the default kind");
      else if (name && !kinds.insert(name).second)
        warning(group, "a second " + std::string(name) +
                           " group is never searched; merge it into the first");
      for (const XMLElement* background : entries(group, backgroundRule())) {
        const char* style = background->Attribute("style");
        if (!style) error(background, "<Background> has no style: it cannot be chosen");
        if (kind == EyeContentType::COLOR) {
          if (style && Color::getColorName(Color::getColorCode(style)) != style)
            warning(background, "style " + inQuotes(style) +
                                    " is not a colour name: the eyes are painted black");
          continue;
        }
        if (kind != EyeContentType::IMAGE) continue;
        const char* left = background->Attribute("left");
        const char* right = background->Attribute("right");
        if (!left || !*left)
          error(background, "image background without left: it shows nothing");
        else
          image(background, left, "background image", ImageUse::Background);
        if (right && *right) image(background, right, "background image", ImageUse::Background);
      }
    }
    if (!kinds.count(contentKindName(EyeContentType::COLOR)))
      report(list->GetLineNum(), Severity::Error,
             "no COLOR group: plain-colour backgrounds (the default among them) cannot be set");
  }

  // --- eyelid.xml; returns the number of lids, or -1 when unknown ---
  int lintEyelids() {
    XMLDocument doc;
    const XMLElement* list = open(doc, CatalogueFile::Eyelids);
    if (!list) return -1;
    std::vector<std::pair<long, const XMLElement*>> ids;
    for (const EntryRule* rule : {&lidImageRule(), &lidSequenceRule()}) {
      const XMLElement* part = list->FirstChildElement(rule->parent);
      if (!part) {
        error(list, std::string("no <") + rule->parent + "> section");
        continue;
      }
      if (const XMLElement* again = part->NextSiblingElement(rule->parent))
        warning(again, std::string("only the first <") + rule->parent + "> is read");
      const bool still = rule == &lidImageRule();
      for (const XMLElement* data : entries(part, *rule)) {
        ids.emplace_back(numberOf(data, *rule, "id"), data);
        const char* path = data->Attribute("path");
        if (!path && !still) error(data, "<Data> has no path: the lid has no images");
        if (path && still) image(data, path, "lid image", ImageUse::Lid);
        if (path && !still) lidSequence(data, path);
      }
    }
    std::stable_sort(ids.begin(), ids.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    long expected = 0;  // the id the next distinct lid should have
    bool gapReported = false;
    for (size_t i = 0; i < ids.size(); ++i) {
      if (i > 0 && ids[i].first == ids[i - 1].first) {
        error(ids[i].second,
              "lid id " + std::to_string(ids[i].first) +
                  " is used twice: which of the two a lid index means is unspecified");
        continue;
      }
      if (ids[i].first != expected && !gapReported) {
        gapReported = true;
        warning(ids[i].second, "lid ids leave a gap: no lid has id " + std::to_string(expected) +
                                   ", and animations name lids by position, not by id");
      }
      expected = ids[i].first + 1;
    }
    return static_cast<int>(ids.size());
  }

  // --- eyeanimations.xml ---
  void lintAnimations(int lidCount) {
    XMLDocument doc;
    const XMLElement* list = open(doc, CatalogueFile::Animations);
    if (!list) return;
    std::map<std::string, int> names;
    std::map<long, int> ids;
    const EntryRule& rule = animationRule();
    for (const XMLElement* animation : entries(list, rule)) {
      if (animation->Attribute("Id")) {
        const long id = numberOf(animation, rule, "Id");
        if (!ids.emplace(id, animation->GetLineNum()).second)
          warning(animation, "Id " + std::to_string(id) + " is already used on line " +
                                 std::to_string(ids[id]));
      }
      if (const char* name = animation->Attribute("Name");
          name && !names.emplace(name, animation->GetLineNum()).second)
        error(animation, "Name " + inQuotes(name) + " is already used on line " +
                             std::to_string(names[name]) + ": this one can never be played");
      if (const char* categories = animation->Attribute("Categories"))
        lintCategories(animation, categories);
      auto sides = entries(animation, sideRule());
      if (sides.empty()) warning(animation, "no <AnimationSide>: the animation shows nothing");
      for (const XMLElement* side : sides) {
        const char* sideName = side->Attribute("Side");
        if (sideName && std::string(sideName) != kLeftSide && std::string(sideName) != kRightSide)
          error(side, "Side " + inQuotes(sideName) +
                          " is neither Left nor Right: its events are dropped");
        for (const XMLElement* event : entries(side, eventRule())) lintEvent(event, lidCount);
      }
    }
  }

  void lintCategories(const XMLElement* animation, const std::string& list) {
    for (const std::string& piece : splitCategories(list)) {
      if (categoryFromName(piece)) continue;
      if (piece.find(' ') != std::string::npos)
        warning(animation,
                "category " + inQuotes(piece) + " contains a space: read as no category");
      else if (piece.rfind(kCategoryPrefix, 0) == 0)
        warning(animation, "category " + inQuotes(piece) + " is written with its prefix: write " +
                               inQuotes(piece.substr(std::string(kCategoryPrefix).size())));
      else
        warning(animation, "unknown category " + inQuotes(piece) + ": read as no category");
    }
  }

  // What reads fine but plays differently from what the numbers seem to say.
  void lintEvent(const XMLElement* event, int lidCount) {
    const EntryRule& rule = eventRule();
    auto value = [&](const char* name) { return numberOf(event, rule, name); };
    constexpr long kFrameMs = static_cast<long>(kFramePeriodMs);
    for (const char* field : {"TimeMs", "Wait"}) {
      if (!event->Attribute(field)) continue;
      const long ms = value(field);
      if (ms < 0) {
        warning(event, std::string(field) + " " + std::to_string(ms) +
                           " is negative: this eye's track ends early and runs out of step");
      } else if (ms % kFrameMs != 0) {
        const long played = std::lround(static_cast<double>(ms) / kFrameMs) * kFrameMs;
        warning(event, std::string(field) + " " + std::to_string(ms) + " is not a multiple of " +
                           std::to_string(kFrameMs) + ": played as " + std::to_string(played) +
                           " ms");
      }
    }
    for (const char* field : {"ScaleX", "ScaleY"}) {
      const auto scale = readDecimal(event->Attribute(field));
      if (scale && *scale <= 0)
        warning(event, std::string(field) + " " + event->Attribute(field) +
                           " is not above 0: the iris disappears or turns inside out");
    }
    const bool keepsPosition = value("X") == KEEP_CURRENT && value("Y") == KEEP_CURRENT;
    // One panel beyond any edge is out of sight, not a deliberate glance off the edge.
    auto farOff = [](long v) { return v < -kPanelSize || v > 2 * kPanelSize; };
    for (const char* field : {"X", "Y", "LidTopY", "LidBotY"}) {
      const bool position = field[1] == '\0';
      if (!event->Attribute(field) || (position && keepsPosition)) continue;
      if (farOff(value(field)))
        warning(event, std::string(field) + " " + std::to_string(value(field)) +
                           " is far off the " + std::to_string(kPanelSize) + "-pixel panel");
    }
    for (const char* field : {"TopLidIndex", "BotLidIndex"}) {
      if (!event->Attribute(field)) continue;
      const long index = value(field);
      if (lidCount >= 0 && (index < 0 || index >= lidCount))
        error(event, std::string(field) + " " + std::to_string(index) +
                         " is outside the eyelid catalogue (" + std::to_string(lidCount) +
                         " lids): the lid stays as it was");
    }
  }
};

}  // namespace

std::vector<Finding> lintCatalogues(const std::string& dir) {
  return Linter(dir).run();
}

std::string formatFinding(const Finding& finding) {
  std::string out = finding.file;
  if (finding.line > 0) out += ":" + std::to_string(finding.line);
  out += finding.severity == Severity::Error ? ": error: " : ": warning: ";
  return out + finding.message;
}

bool hasErrors(const std::vector<Finding>& findings) {
  return std::any_of(findings.begin(), findings.end(),
                     [](const Finding& f) { return f.severity == Severity::Error; });
}

}  // namespace eyes
