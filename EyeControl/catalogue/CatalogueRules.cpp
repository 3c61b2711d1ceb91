#include "CatalogueRules.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "Helper.h"
#include "VContent.h"

using tinyxml2::XMLElement;

namespace catalogue {

const char* fileName(CatalogueFile file) {
  switch (file) {
    case CatalogueFile::Animations:
      return "eyeanimations.xml";
    case CatalogueFile::Backgrounds:
      return "background_type.xml";
    case CatalogueFile::Eyelids:
      return "eyelid.xml";
    case CatalogueFile::Irises:
      return "iris_type.xml";
  }
  return "";
}

// --- names ---

const std::vector<std::string>& irisShapeNames() {
  // Stored in the settings record: the numbering is fixed, not alphabetical.
  static const std::vector<std::string> names = {"CLASSIC",  "MODERN", "SPACE",  "ORBIT",
                                                 "GLOW",     "DIGI",   "FOOD",   "MISC",
                                                 "SEASONAL", "SYMBOL", "CASINO", "MATCH"};
  return names;
}

const std::vector<std::string>& contentKindNames() {
  static const std::vector<std::string> names = {"COLOR", "IMAGE"};
  return names;
}

const std::vector<std::string>& categoryNames() {
  // MISC is 2 and CONFUSION 3: neither alphabetical nor by theme.
  static const std::vector<std::string> names = {
      "NONE", "ANGER",     "MISC", "CONFUSION", "SPECIAL",  "DEPRESSION",
      "FEAR", "HAPPINESS", "HURT", "IDLE",      "INTERNAL", "USER_DEFINED"};
  return names;
}

namespace {

std::optional<size_t> indexOf(const std::vector<std::string>& names, const std::string& name,
                              size_t from = 0) {
  for (size_t i = from; i < names.size(); ++i)
    if (names[i] == name) return i;
  return std::nullopt;
}

std::string nameAt(const std::vector<std::string>& names, size_t value) {
  return value < names.size() ? names[value] : std::string();
}

}  // namespace

std::optional<IrisShape> irisShapeFromName(const std::string& name) {
  if (auto i = indexOf(irisShapeNames(), name)) return static_cast<IrisShape>(*i);
  return std::nullopt;
}

std::optional<EyeContentType> contentKindFromName(const std::string& name) {
  if (auto i = indexOf(contentKindNames(), name)) return static_cast<EyeContentType>(*i);
  return std::nullopt;
}

std::optional<EyeAnimationCategory> categoryFromName(const std::string& shortName) {
  // "NONE" is not a name a catalogue can give.
  if (auto i = indexOf(categoryNames(), shortName, 1)) return static_cast<EyeAnimationCategory>(*i);
  return std::nullopt;
}

std::string irisShapeName(IrisShape shape) {
  return nameAt(irisShapeNames(), static_cast<size_t>(shape));
}

std::string contentKindName(EyeContentType kind) {
  return nameAt(contentKindNames(), static_cast<size_t>(kind));
}

std::string categoryName(int category) {
  const std::string name = category > 0 ? nameAt(categoryNames(), category) : std::string();
  return name.empty() ? categoryNames()[0] : name;
}

std::vector<std::string> splitCategories(const std::string& text) {
  return Helper::split(text, kCategorySeparator);
}

std::string joinCategories(const std::vector<EyeAnimationCategory>& categories) {
  std::string text;
  for (EyeAnimationCategory c : categories) {
    if (!text.empty()) text += kCategorySeparator;
    text += categoryName(c);
  }
  return text;
}

// --- entries ---

namespace {

constexpr AttributeRule required(const char* name) {
  return {name, ValueKind::RequiredText, 0, 0, false};
}
constexpr AttributeRule text(const char* name) {
  return {name, ValueKind::Text, 0, 0, false};
}
constexpr AttributeRule integer(const char* name, long byDefault, uint8_t bits, bool isSigned) {
  return {name, ValueKind::Int, byDefault, bits, isSigned};
}
constexpr AttributeRule base0(const char* name, bool isSigned = true) {
  return {name, ValueKind::Base0, 0, 16, isSigned};
}
constexpr AttributeRule decimal(const char* name) {
  return {name, ValueKind::Decimal, 0, 0, false};
}

size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

const AttributeRule* EntryRule::find(const std::string& attribute) const {
  for (const AttributeRule& rule : attributes)
    if (attribute == rule.name) return &rule;
  return nullptr;
}

const char* EntryRule::nearest(const std::string& attribute) const {
  const char* best = nullptr;
  size_t bestDistance = 0;
  for (const AttributeRule& rule : attributes) {
    const size_t d = editDistance(attribute, rule.name);
    if (best == nullptr || d < bestDistance) {
      best = rule.name;
      bestDistance = d;
    }
  }
  // Only a plausible slip, not any name at all.
  return best != nullptr && bestDistance <= std::max<size_t>(2, attribute.size() / 3) ? best
                                                                                      : nullptr;
}

const EntryRule& irisGroupRule() {
  static const EntryRule rule{"Iris_Type", kRootElement, {required("name")}};
  return rule;
}
const EntryRule& irisRule() {
  static const EntryRule rule{"Iris",
                              "Iris_Type",
                              {text("style"), integer("offsetX", 0, 8, true),
                               integer("offsetY", 0, 8, true), text("left"), text("right")}};
  return rule;
}
const EntryRule& backgroundGroupRule() {
  static const EntryRule rule{"Background_Type", kRootElement, {required("name")}};
  return rule;
}
const EntryRule& backgroundRule() {
  static const EntryRule rule{
      "Background", "Background_Type", {text("style"), text("left"), text("right")}};
  return rule;
}
const EntryRule& lidImageRule() {
  // The colour channels are divided by 16 before the cut, so they are not cut here.
  static const EntryRule rule{
      "Data",
      kLidImagesSection,
      {text("name"), integer("id", 0, 16, false), required("path"), integer("r", 0, 8, false),
       integer("g", 0, 8, false), integer("b", 0, 8, false), integer("a", 0, 8, false)}};
  return rule;
}
const EntryRule& lidSequenceRule() {
  static const EntryRule rule{
      "Data",
      kLidSequencesSection,
      {text("name"), integer("id", 0, 16, false), text("path"), integer("ratio", 1, 8, false),
       integer("loop", 0, 16, false), integer("ft", 0, 16, false), integer("w", 0, 16, false),
       integer("h", 0, 16, false)}};
  return rule;
}
const EntryRule& animationRule() {
  static const EntryRule rule{
      "Animation", kRootElement, {base0("Id", false), required("Name"), required("Categories")}};
  return rule;
}
const EntryRule& sideRule() {
  static const EntryRule rule{"AnimationSide", "Animation", {required("Side")}};
  return rule;
}
const EntryRule& eventRule() {
  // The order of moveEvent's constructor after the frame period is taken out.
  static const EntryRule rule{
      "Event",
      "AnimationSide",
      {base0("X"), base0("Y"), base0("TimeMs"), base0("Wait"), decimal("ScaleX"), decimal("ScaleY"),
       base0("LidTopY"), base0("LidBotY"), base0("TopLidIndex"), base0("BotLidIndex"),
       base0("RotateAngle"), base0("Ellipse_H")}};
  return rule;
}

const XMLElement* firstEntry(const XMLElement* parent, const char* element) {
  return parent != nullptr ? parent->FirstChildElement(element) : nullptr;
}

const XMLElement* nextEntry(const XMLElement* entry) {
  return entry->NextSiblingElement();
}

// --- numbers ---

long cutToField(long value, const AttributeRule& rule) {
  if (rule.bits == 0 || rule.bits >= 32) return value;
  const unsigned long mask = (1UL << rule.bits) - 1;
  const unsigned long low = static_cast<unsigned long>(value) & mask;
  if (rule.isSigned && (low >> (rule.bits - 1)) != 0)
    return static_cast<long>(low) - (1L << rule.bits);
  return static_cast<long>(low);
}

Base0Reading readBase0(const char* text, uint8_t bits, bool isSigned) {
  Base0Reading reading;
  if (text == nullptr) return reading;
  char* end = nullptr;
  errno = 0;
  const long long written = std::strtoll(text, &end, 0);
  const bool overflow = errno == ERANGE;
  reading.isNumber = end != text;
  reading.trailing = reading.isNumber && *end != '\0';
  const char* digits = text + std::strspn(text, " \t\n\r\f\v+-");
  reading.octal = digits[0] == '0' && std::isdigit(static_cast<unsigned char>(digits[1]));
  const AttributeRule field{"", ValueKind::Base0, 0, bits, isSigned};
  // What the reader does: strtoul, then keep the low bits.
  reading.stored =
      cutToField(static_cast<long>(std::strtoul(text, nullptr, 0) & 0xFFFFFFFFUL), field);
  reading.written = static_cast<long>(written);
  const long low = isSigned ? -(1L << (bits - 1)) : 0;
  const long high = isSigned ? (1L << (bits - 1)) - 1 : (1L << bits) - 1;
  reading.fits = reading.isNumber && !overflow && written >= low && written <= high;
  return reading;
}

long base0Attribute(const XMLElement* e, const AttributeRule& rule) {
  const char* value = e->Attribute(rule.name);
  return value != nullptr ? readBase0(value, rule.bits, rule.isSigned).stored : 0;
}

std::optional<int> readInt(const char* text) {
  int value = 0;
  if (text == nullptr || !tinyxml2::XMLUtil::ToInt(text, &value)) return std::nullopt;
  return value;
}

std::optional<double> readDecimal(const char* text) {
  if (text == nullptr) return std::nullopt;
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0') return std::nullopt;
  return value;
}

namespace {

const AttributeRule& ruleOf(const EntryRule& entry, const char* attribute) {
  const AttributeRule* rule = entry.find(attribute);
  // A reader asking for an attribute its table lacks is a programming error.
  if (rule == nullptr)
    throw std::invalid_argument(std::string("no attribute ") + attribute + " in " + entry.element);
  return *rule;
}

}  // namespace

std::string textOf(const XMLElement* e, const EntryRule& entry, const char* attribute) {
  const AttributeRule& rule = ruleOf(entry, attribute);
  const char* value = e->Attribute(rule.name);
  if (value != nullptr) return value;
  // The documented end of a read that meets a missing required name or path.
  if (rule.kind == ValueKind::RequiredText)
    throw std::logic_error("basic_string: construction from null is not valid");
  return std::string();
}

int uncutIntOf(const XMLElement* e, const EntryRule& entry, const char* attribute) {
  const AttributeRule& rule = ruleOf(entry, attribute);
  return e->IntAttribute(rule.name, static_cast<int>(rule.defaultValue));
}

long numberOf(const XMLElement* e, const EntryRule& entry, const char* attribute) {
  const AttributeRule& rule = ruleOf(entry, attribute);
  if (rule.kind == ValueKind::Base0) return base0Attribute(e, rule);
  return cutToField(e->IntAttribute(rule.name, static_cast<int>(rule.defaultValue)), rule);
}

float decimalOf(const XMLElement* e, const EntryRule& entry, const char* attribute) {
  const char* value = e->Attribute(ruleOf(entry, attribute).name);
  return value != nullptr ? static_cast<float>(std::strtod(value, nullptr)) : 0.0f;
}

std::string formatInteger(long value) {
  return std::to_string(value);
}

std::string formatDecimal(float value) {
  char text[32];
  for (int digits = 1; digits <= 9; ++digits) {
    std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
    if (static_cast<float>(std::strtod(text, nullptr)) == value) break;
  }
  return text;
}

// --- images ---

uint64_t maxImagePixels() {
  return VContent::kMaxPixels;
}

bool decodesWithAlpha(ImageUse use) {
  return use != ImageUse::Background;
}

std::string sizeProblem(ImageUse use, unsigned width, unsigned height) {
  const std::string panel = std::to_string(kPanelSize);
  switch (use) {
    case ImageUse::Background:
      if (width != kPanelSize || height != kPanelSize) return "must be " + panel + " x " + panel;
      break;
    case ImageUse::Lid:
    case ImageUse::LidSequence:
      if (width != kPanelSize) return "must be " + panel + " wide";
      break;
    case ImageUse::Iris:
      break;
  }
  return std::string();
}

}  // namespace catalogue
