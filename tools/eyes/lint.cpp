#include "lint.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include "Color.h"
#include "Logging.h"
#include "VContent.h"
#include "moveEvent.h"

namespace fs = std::filesystem;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using namespace catalogue;

namespace eyes {
namespace {

constexpr const char* kCrashes = "the library stops with an exception at start-up";

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

std::string tag(const XMLElement* e) {
  return "<" + std::string(e->Name()) + ">";
}

struct ImageSize {
  unsigned width = 0;
  unsigned height = 0;
};

class Linter {
 public:
  explicit Linter(std::string dir) : dir_(std::move(dir)) {}

  std::vector<Finding> run() {
    const int lidCount = lintEyelids();
    lintAnimations(lidCount);
    lintBackgrounds();
    lintIrises();
    std::stable_sort(findings_.begin(), findings_.end(), [](const Finding& a, const Finding& b) {
      return fileRank(a.file) != fileRank(b.file) ? fileRank(a.file) < fileRank(b.file)
                                                  : a.line < b.line;
    });
    return std::move(findings_);
  }

 private:
  // Reports in the order the library loads the files.
  static size_t fileRank(const std::string& file) {
    const std::string name = fs::path(file).filename().string();
    for (size_t i = 0; i < kLoadOrder.size(); ++i)
      if (name == fileName(kLoadOrder[i])) return i;
    return kLoadOrder.size();
  }

  void report(int line, Severity severity, std::string message) {
    findings_.push_back({file_, line, severity, std::move(message)});
  }
  void error(const XMLElement* at, std::string message) {
    report(at ? at->GetLineNum() : 0, Severity::Error, std::move(message));
  }
  void warning(const XMLElement* at, std::string message) {
    report(at ? at->GetLineNum() : 0, Severity::Warning, std::move(message));
  }

  // Loads one catalogue and returns its root element, or null after reporting.
  const XMLElement* open(XMLDocument& doc, CatalogueFile file) {
    file_ = (fs::path(dir_) / fileName(file)).string();
    std::error_code ec;
    if (!fs::exists(file_, ec)) {
      report(0, Severity::Error, "file missing: the eyes do not start without it");
      return nullptr;
    }
    if (doc.LoadFile(file_.c_str()) != tinyxml2::XML_SUCCESS) {
      report(doc.ErrorLineNum(), Severity::Error,
             std::string("XML does not parse (") + doc.ErrorName() +
                 "): the catalogue is read as empty");
      return nullptr;
    }
    const XMLElement* list = doc.FirstChildElement(kRootElement);
    if (!list)
      report(1, Severity::Error,
             std::string("no <") + kRootElement + "> root element: the catalogue is read as empty");
    return list;
  }

  // The entries the library reads under `parent`, each with its attributes checked.
  std::vector<const XMLElement*> entries(const XMLElement* parent, const EntryRule& rule) {
    std::vector<const XMLElement*> result;
    const XMLElement* first = firstEntry(parent, rule.element);
    for (const XMLElement* e = parent->FirstChildElement(); e != first; e = e->NextSiblingElement())
      warning(e, tag(e) + " is ignored: only <" + rule.element + "> belongs under " + tag(parent));
    for (const XMLElement* e = first; e; e = nextEntry(e)) {
      if (std::string(e->Name()) != rule.element)
        error(e, tag(e) + " after the first <" + rule.element + "> is read as one more <" +
                     rule.element + ">");
      attributes(e, rule);
      result.push_back(e);
    }
    return result;
  }

  // Every attribute against the entry's rule: unknown ones, missing ones, and numbers
  // that do not read as written.
  void attributes(const XMLElement* e, const EntryRule& rule) {
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a; a = a->Next()) {
      if (rule.find(a->Name())) continue;
      const char* near = rule.nearest(a->Name());
      warning(e, "unknown attribute " + std::string(a->Name()) + " is ignored" +
                     (near ? std::string("; did you mean ") + near + "?" : std::string()));
    }
    for (const AttributeRule& attribute : rule.attributes) {
      const char* raw = e->Attribute(attribute.name);
      const std::string name = attribute.name;
      const std::string limits = range(attribute);
      switch (attribute.kind) {
        case ValueKind::RequiredText:
          if (!raw) error(e, tag(e) + " has no " + name + ": " + kCrashes);
          break;
        case ValueKind::Text:
          break;
        case ValueKind::Int: {
          if (!raw) break;
          const auto value = readInt(raw);
          if (!value)
            error(e, name + "=" + inQuotes(raw) + " is not a whole number: the default " +
                         std::to_string(attribute.defaultValue) + " is used");
          else if (cutToField(*value, attribute) != *value)
            error(e, name + " " + std::to_string(*value) + " is outside " + limits +
                         ": stored as " + std::to_string(cutToField(*value, attribute)));
          break;
        }
        case ValueKind::Base0: {
          if (!raw) {
            error(e, tag(e) + " has no " + name + ": read as 0");
            break;
          }
          const Base0Reading r = readBase0(raw, attribute.bits, attribute.isSigned);
          if (!r.isNumber)
            error(e, name + "=" + inQuotes(raw) + " is not a number: read as 0");
          else if (r.trailing)
            error(e, name + "=" + inQuotes(raw) + " has text after the number: read as " +
                         std::to_string(r.stored));
          else if (!r.fits)
            error(e, name + " " + raw + " is outside " + limits + ": read as " +
                         std::to_string(r.stored));
          else if (r.octal)
            warning(e, name + "=" + inQuotes(raw) +
                           " starts with 0, which makes it octal: read as " +
                           std::to_string(r.stored) + "; drop the leading zero");
          break;
        }
        case ValueKind::Decimal:
          if (!raw)
            error(e, tag(e) + " has no " + name + ": read as 0");
          else if (!readDecimal(raw))
            error(e, name + "=" + inQuotes(raw) + " is not a number");
          break;
      }
    }
  }

  static std::string range(const AttributeRule& rule) {
    if (rule.bits == 0) return "";
    const long low = rule.isSigned ? -(1L << (rule.bits - 1)) : 0;
    const long high = rule.isSigned ? (1L << (rule.bits - 1)) - 1 : (1L << rule.bits) - 1;
    return std::to_string(low) + ".." + std::to_string(high);
  }

  fs::path resolve(const std::string& path) const {
    return fs::path(path).is_absolute() ? fs::path(path) : fs::path(dir_) / path;
  }

  // Why the library's loader refused an image, in its own words minus its prefix.
  static std::string reason(const LogCapture& capture, const std::string& resolved) {
    const auto lines = capture.lines();
    std::string text = lines.empty() ? "it holds no frames" : lines.back();
    const std::string prefix = "VContent: ";
    if (text.rfind(prefix, 0) == 0) text.erase(0, prefix.size());
    for (size_t at; (at = text.find(" " + resolved)) != std::string::npos;)
      text.erase(at, resolved.size() + 1);
    // libpng's words for a file that ends before its image data does.
    if (text.find("Read Error") != std::string::npos) text += " (the file is cut short)";
    return text;
  }

  bool firstTime(const std::string& path, ImageUse use) {
    return checked_.insert({resolve(path).lexically_normal().string(), static_cast<int>(use)})
        .second;
  }

  // Decodes `path` as the library will and checks its size for `use`. Each image is
  // checked (and reported) once per use.
  void image(const XMLElement* e, const std::string& path, const std::string& what, ImageUse use) {
    if (!firstTime(path, use)) return;
    const std::string resolved = resolve(path).string();
    std::error_code ec;
    if (!fs::exists(resolved, ec)) {
      error(e, what + " " + inQuotes(path) + " does not exist");
      return;
    }
    std::optional<ImageSize> size;
    {
      LogCapture capture;
      const VContent loaded = VContent::getImage(resolved, decodesWithAlpha(use), true);
      if (loaded.frames.empty())
        error(e, what + " " + inQuotes(path) + " cannot be loaded: " + reason(capture, resolved));
      else
        size = ImageSize{loaded.width, loaded.height};
    }
    if (size) checkSize(e, path, what, use, *size);
  }

  void checkSize(const XMLElement* e, const std::string& path, const std::string& what,
                 ImageUse use, ImageSize size) {
    const std::string problem = sizeProblem(use, size.width, size.height);
    if (!problem.empty())
      error(e, what + " " + inQuotes(path) + " is " + std::to_string(size.width) + " x " +
                   std::to_string(size.height) + ", " + problem);
  }

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

  // Loads the sequence as the player will when the lid is first shown.
  void lidSequence(const XMLElement* data, const std::string& path) {
    if (!firstTime(path, ImageUse::LidSequence)) return;
    const EntryRule& rule = lidSequenceRule();
    const std::string resolved = resolve(path).string();
    std::error_code ec;
    if (!fs::exists(resolved, ec)) {
      error(data, "lid sequence " + inQuotes(path) + " does not exist");
      return;
    }
    VContent sequence;
    sequence.path = resolved;
    sequence.width = static_cast<uint16_t>(numberOf(data, rule, "w"));
    sequence.height = static_cast<uint16_t>(numberOf(data, rule, "h"));
    sequence.frameTotal = static_cast<uint16_t>(numberOf(data, rule, "ft"));
    {
      LogCapture capture;
      sequence.loadSequence();
      if (sequence.frames.empty()) {
        error(data,
              "lid sequence " + inQuotes(path) + " cannot be loaded: " + reason(capture, resolved));
        return;
      }
      // A sequence that loads with frames skipped still plays, but not as drawn.
      for (const std::string& line : capture.lines())
        warning(data, "lid sequence " + inQuotes(path) + ": " + line.substr(line.find(": ") + 2));
    }
    checkSize(data, path, "lid frames of", ImageUse::LidSequence,
              {sequence.width, sequence.height});
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

  std::string dir_;
  std::string file_;
  std::set<std::pair<std::string, int>> checked_;
  std::vector<Finding> findings_;
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
