#include "lint.h"

#include <png.h>
#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "Background.h"
#include "EyeAnimation.h"
#include "Iris.h"

namespace fs = std::filesystem;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace eyes {
namespace {

constexpr int kPanelSize = 240;
constexpr int kFrameMs = 40;
constexpr const char* kCrashes = "the library stops with an exception at start-up";

struct PngSize {
  unsigned width = 0;
  unsigned height = 0;
};

// Width and height from the file's header, or nothing when it is not a PNG.
std::optional<PngSize> readPngSize(const fs::path& path) {
  // Only regular files: a FIFO or device named by a catalogue must not block the check.
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return std::nullopt;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return std::nullopt;
  PngSize size{image.width, image.height};
  png_image_free(&image);
  return size;
}

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

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
  static int fileRank(const std::string& file) {
    static const char* order[] = {"eyeanimations.xml", "background_type.xml", "eyelid.xml",
                                  "iris_type.xml"};
    for (int i = 0; i < 4; ++i)
      if (fs::path(file).filename() == order[i]) return i;
    return 4;
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

  // Loads one catalogue and returns its List element, or null after reporting.
  const XMLElement* open(XMLDocument& doc, const char* name) {
    file_ = (fs::path(dir_) / name).string();
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
    const XMLElement* list = doc.FirstChildElement("List");
    if (!list) report(1, Severity::Error, "no <List> root element: the catalogue is read as empty");
    return list;
  }

  // The library takes the first child named `name`, then every later sibling element
  // whatever its name; earlier elements of other names are skipped.
  std::vector<const XMLElement*> entries(const XMLElement* parent, const char* name) {
    std::vector<const XMLElement*> result;
    for (const XMLElement* e = parent->FirstChildElement(); e; e = e->NextSiblingElement()) {
      const bool named = std::string(e->Name()) == name;
      if (result.empty() && !named) {
        warning(e, "<" + std::string(e->Name()) + "> is ignored: only <" + name +
                       "> belongs under <" + parent->Name() + ">");
        continue;
      }
      if (!named)
        error(e, "<" + std::string(e->Name()) + "> after the first <" + name +
                     "> is read as one more <" + name + ">");
      result.push_back(e);
    }
    return result;
  }

  // A required text attribute; `consequence` says what its absence does.
  std::optional<std::string> text(const XMLElement* e, const char* attribute,
                                  const char* consequence) {
    const char* value = e->Attribute(attribute);
    if (value) return std::string(value);
    error(e, "<" + std::string(e->Name()) + "> has no " + attribute + ": " + consequence);
    return std::nullopt;
  }

  // An optional whole-number attribute as the catalogue readers take it: default when
  // absent or not a number, then cut to the field's width.
  std::optional<long> integer(const XMLElement* e, const char* attribute, long low, long high) {
    const char* raw = e->Attribute(attribute);
    if (!raw) return std::nullopt;
    int value = 0;
    if (e->QueryIntAttribute(attribute, &value) != tinyxml2::XML_SUCCESS) {
      error(e, std::string(attribute) + "=" + inQuotes(raw) +
                   " is not a whole number: the default is used");
      return std::nullopt;
    }
    if (value < low || value > high) {
      error(e, std::string(attribute) + " " + std::to_string(value) + " is outside " +
                   std::to_string(low) + ".." + std::to_string(high) +
                   ": only its low bits are kept");
      return std::nullopt;
    }
    return value;
  }

  // An animation number, read with strtoul in base 0 and cut to 16 bits.
  std::optional<long> number(const XMLElement* e, const char* attribute, long low, long high) {
    const char* raw = e->Attribute(attribute);
    if (!raw) {
      error(e, "<" + std::string(e->Name()) + "> has no " + attribute);
      return std::nullopt;
    }
    const std::string name = attribute;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(raw, &end, 0);
    const unsigned long bits = std::strtoul(raw, nullptr, 0) & 0xFFFF;
    const long stored =
        low < 0 ? static_cast<long>(static_cast<int16_t>(bits)) : static_cast<long>(bits);
    if (end == raw) {
      error(e, name + "=" + inQuotes(raw) + " is not a number: read as 0");
      return std::nullopt;
    }
    if (*end != '\0') {
      error(e, name + "=" + inQuotes(raw) + " has text after the number: read as " +
                   std::to_string(value));
      return std::nullopt;
    }
    const char* digits = raw + std::strspn(raw, " \t+-");
    if (digits[0] == '0' && std::isdigit(static_cast<unsigned char>(digits[1])))
      warning(e, name + "=" + inQuotes(raw) + " starts with 0, which makes it octal: read as " +
                     std::to_string(value) + "; drop the leading zero");
    if (errno == ERANGE || value < low || value > high) {
      error(e, name + " " + raw + " is outside " + std::to_string(low) + ".." +
                   std::to_string(high) + ": read as " + std::to_string(stored));
      return std::nullopt;
    }
    return value;
  }

  fs::path resolve(const std::string& path) const {
    return fs::path(path).is_absolute() ? fs::path(path) : fs::path(dir_) / path;
  }

  // Checks that `path` names a PNG; returns its size.
  std::optional<PngSize> image(const XMLElement* e, const std::string& path,
                               const std::string& what) {
    const fs::path file = resolve(path);
    std::error_code ec;
    if (!fs::exists(file, ec)) {
      error(e, what + " " + inQuotes(path) + " does not exist");
      return std::nullopt;
    }
    auto size = readPngSize(file);
    if (!size) error(e, what + " " + inQuotes(path) + " is not a PNG image");
    return size;
  }

  void expectSize(const XMLElement* e, const std::string& path, const std::string& what,
                  unsigned width, unsigned height) {
    auto size = image(e, path, what);
    if (!size) return;
    if ((width && size->width != width) || (height && size->height != height))
      error(e, what + " " + inQuotes(path) + " is " + std::to_string(size->width) + " x " +
                   std::to_string(size->height) + ", must be " + std::to_string(width) + " x " +
                   (height ? std::to_string(height) : std::string("any height")));
  }

  // --- iris_type.xml ---
  void lintIrises() {
    XMLDocument doc;
    const XMLElement* list = open(doc, "iris_type.xml");
    if (!list) return;
    std::set<std::string> shapes;
    for (const XMLElement* group : entries(list, "Iris_Type")) {
      auto name = text(group, "name", kCrashes);
      if (name) {
        if (!knownIrisShape(*name))
          error(group, "unknown iris shape " + inQuotes(*name) +
                           ": the group is filed under the default shape");
        else if (!shapes.insert(*name).second)
          warning(group, "a second " + *name + " group is never searched; merge it into the first");
      }
      std::set<std::string> styles;
      for (const XMLElement* iris : entries(group, "Iris")) {
        auto style = text(iris, "style", "the iris cannot be chosen");
        if (style && !styles.insert(*style).second)
          warning(iris,
                  "style " + inQuotes(*style) + " appears twice in this group: the first wins");
        integer(iris, "offsetX", -128, 127);
        integer(iris, "offsetY", -128, 127);
        if (auto left = text(iris, "left", "the iris has no image"))
          image(iris, *left, "iris image");
        if (const char* right = iris->Attribute("right")) image(iris, right, "iris image");
      }
    }
  }

  static bool knownIrisShape(const std::string& name) {
    for (int v = 0; v < 12; ++v)
      if (IrisType::getName(static_cast<IrisShape>(v)) == name) return true;
    return false;
  }

  // --- background_type.xml ---
  void lintBackgrounds() {
    XMLDocument doc;
    const XMLElement* list = open(doc, "background_type.xml");
    if (!list) return;
    std::set<std::string> kinds;
    for (const XMLElement* group : entries(list, "Background_Type")) {
      auto name = text(group, "name", kCrashes);
      const bool isImage = name && *name == BackgroundType::getName(EyeContentType::IMAGE);
      if (name) {
        if (!isImage && *name != BackgroundType::getName(EyeContentType::COLOR))
          error(group, "unknown background kind " + inQuotes(*name) +
                           " (COLOR or IMAGE): the group is filed under the default kind");
        else if (!kinds.insert(*name).second)
          warning(group, "a second " + *name + " group is never searched; merge it into the first");
      }
      for (const XMLElement* background : entries(group, "Background")) {
        text(background, "style", "the background cannot be chosen");
        const char* left = background->Attribute("left");
        const char* right = background->Attribute("right");
        if (!isImage) continue;
        if (!left || !*left) {
          error(background, "image background without left: it shows nothing");
        } else {
          expectSize(background, left, "background image", kPanelSize, kPanelSize);
        }
        if (right && *right)
          expectSize(background, right, "background image", kPanelSize, kPanelSize);
      }
    }
    if (!kinds.count("COLOR"))
      report(list->GetLineNum(), Severity::Error,
             "no COLOR group: plain-colour backgrounds (the default among them) cannot be set");
  }

  // --- eyelid.xml; returns the number of lids, or -1 when unknown ---
  int lintEyelids() {
    XMLDocument doc;
    const XMLElement* list = open(doc, "eyelid.xml");
    if (!list) return -1;
    std::vector<std::pair<long, const XMLElement*>> ids;
    for (const char* section : {"Images", "Animations"}) {
      const XMLElement* part = list->FirstChildElement(section);
      if (!part) {
        error(list, std::string("no <") + section + "> section");
        continue;
      }
      if (const XMLElement* again = part->NextSiblingElement(section))
        warning(again, std::string("only the first <") + section + "> is read");
      const bool still = section == std::string("Images");
      for (const XMLElement* data : entries(part, "Data")) {
        text(data, "name", "the lid has no name");
        ids.emplace_back(integer(data, "id", 0, 65535).value_or(0), data);
        auto path = text(data, "path", still ? kCrashes : "the lid has no images");
        if (still) {
          for (const char* channel : {"r", "g", "b", "a"}) integer(data, channel, 0, 255);
          if (path) expectSize(data, *path, "lid image", kPanelSize, 0);
        } else {
          integer(data, "ratio", 0, 255);
          for (const char* field : {"loop", "ft", "w", "h"}) integer(data, field, 0, 65535);
          if (path) lidSequence(data, *path);
        }
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

  void lidSequence(const XMLElement* data, const std::string& path) {
    const fs::path file = resolve(path);
    std::error_code ec;
    if (fs::is_directory(file, ec)) {
      std::vector<fs::path> frames;
      for (const auto& entry : fs::directory_iterator(file, ec))
        if (entry.path().extension() == ".png") frames.push_back(entry.path());
      if (frames.empty()) {
        error(data, "lid sequence " + inQuotes(path) + " holds no .png frames");
        return;
      }
      std::sort(frames.begin(), frames.end());
      auto size = readPngSize(frames.front());
      if (!size)
        error(data, "lid frame " + inQuotes(frames.front().string()) + " is not a PNG image");
      else if (size->width != kPanelSize)
        error(data, "lid frames of " + inQuotes(path) + " are " + std::to_string(size->width) +
                        " wide, must be 240");
      return;
    }
    auto size = image(data, path, "lid sheet");
    if (!size) return;
    const long w = data->IntAttribute("w"), h = data->IntAttribute("h");
    const long frameWidth = (w && h) ? w : static_cast<long>(size->width);
    if (frameWidth != kPanelSize)
      error(data, "lid frames are " + std::to_string(frameWidth) + " wide, must be 240");
  }

  // --- eyeanimations.xml ---
  void lintAnimations(int lidCount) {
    XMLDocument doc;
    const XMLElement* list = open(doc, "eyeanimations.xml");
    if (!list) return;
    std::map<std::string, int> names;
    std::map<long, int> ids;
    for (const XMLElement* animation : entries(list, "Animation")) {
      if (auto id = number(animation, "Id", 0, 65535);
          id && !ids.emplace(*id, animation->GetLineNum()).second)
        warning(animation, "Id " + std::to_string(*id) + " is already used on line " +
                               std::to_string(ids[*id]));
      if (auto name = text(animation, "Name", kCrashes);
          name && !names.emplace(*name, animation->GetLineNum()).second)
        error(animation, "Name " + inQuotes(*name) + " is already used on line " +
                             std::to_string(names[*name]) + ": this one can never be played");
      if (auto categories = text(animation, "Categories", kCrashes))
        lintCategories(animation, *categories);
      auto sides = entries(animation, "AnimationSide");
      if (sides.empty()) warning(animation, "no <AnimationSide>: the animation shows nothing");
      for (const XMLElement* side : sides) {
        auto sideName = text(side, "Side", kCrashes);
        if (sideName && *sideName != "Left" && *sideName != "Right")
          error(side, "Side " + inQuotes(*sideName) +
                          " is neither Left nor Right: its events are dropped");
        for (const XMLElement* event : entries(side, "Event")) lintEvent(event, lidCount);
      }
    }
  }

  void lintCategories(const XMLElement* animation, const std::string& list) {
    std::stringstream pieces(list);
    std::string piece;
    const std::string prefix = "EYEANIMATION_";
    while (std::getline(pieces, piece, ',')) {
      if (EyeAnimation::getCategory(prefix + piece) != EYEANIMATION_NONE) continue;
      if (piece.find(' ') != std::string::npos)
        warning(animation,
                "category " + inQuotes(piece) + " contains a space: read as no category");
      else if (piece.rfind(prefix, 0) == 0)
        warning(animation, "category " + inQuotes(piece) + " is written with its prefix: write " +
                               inQuotes(piece.substr(prefix.size())));
      else
        warning(animation, "unknown category " + inQuotes(piece) + ": read as no category");
    }
  }

  void lintEvent(const XMLElement* event, int lidCount) {
    constexpr long kMin = -32768, kMax = 32767;
    for (const char* field : {"X", "Y", "LidTopY", "LidBotY", "RotateAngle", "Ellipse_H"})
      number(event, field, kMin, kMax);
    for (const char* field : {"TimeMs", "Wait"}) {
      auto value = number(event, field, kMin, kMax);
      if (value && *value % kFrameMs != 0) {
        const long played = std::lround(static_cast<double>(*value) / kFrameMs) * kFrameMs;
        warning(event, std::string(field) + " " + std::to_string(*value) +
                           " is not a multiple of 40: played as " + std::to_string(played) + " ms");
      }
    }
    for (const char* field : {"ScaleX", "ScaleY"}) {
      const char* raw = event->Attribute(field);
      char* end = nullptr;
      if (!raw)
        error(event, "<Event> has no " + std::string(field));
      else if (std::strtod(raw, &end), end == raw || *end != '\0')
        error(event, std::string(field) + "=" + inQuotes(raw) + " is not a number");
    }
    for (const char* field : {"TopLidIndex", "BotLidIndex"}) {
      auto index = number(event, field, kMin, kMax);
      if (index && lidCount >= 0 && (*index < 0 || *index >= lidCount))
        error(event, std::string(field) + " " + std::to_string(*index) +
                         " is outside the eyelid catalogue (" + std::to_string(lidCount) +
                         " lids): the lid stays as it was");
    }
  }

  std::string dir_;
  std::string file_;
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

const char* categoryName(int category) {
  static constexpr const char* kNames[] = {"NONE",    "ANGER",      "MISC",     "CONFUSION",
                                           "SPECIAL", "DEPRESSION", "FEAR",     "HAPPINESS",
                                           "HURT",    "IDLE",       "INTERNAL", "USER_DEFINED"};
  return category > 0 && category < static_cast<int>(std::size(kNames)) ? kNames[category]
                                                                        : kNames[0];
}

}  // namespace eyes
