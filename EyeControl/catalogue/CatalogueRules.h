// The catalogue grammar in one place: which files are read in which order, how names
// map to values, which elements count as entries, which attributes each entry has and
// how their numbers are read. The readers, `eyes lint` and the studio's writer all
// follow these tables, so a rule changed here changes everywhere at once.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Background.h"
#include "EyeAnimation.h"
#include "Iris.h"

namespace tinyxml2 {
class XMLElement;
}

namespace catalogue {

// --- files ---

// The four catalogues in the order the library loads them.
enum class CatalogueFile : uint8_t { Animations, Backgrounds, Eyelids, Irises };
constexpr std::array<CatalogueFile, 4> kLoadOrder = {CatalogueFile::Animations,
                                                     CatalogueFile::Backgrounds,
                                                     CatalogueFile::Eyelids, CatalogueFile::Irises};
const char* fileName(CatalogueFile file);  // "eyeanimations.xml", ...
constexpr const char* kRootElement = "List";

// --- names <-> values ---

// Name strings indexed by value, exactly as the catalogues write them.
const std::vector<std::string>& irisShapeNames();    // "CLASSIC" (0) ... "MATCH" (11)
const std::vector<std::string>& contentKindNames();  // "COLOR" (0), "IMAGE" (1)
// Short category names as the catalogue writes them, indexed by value; index 0 is
// "NONE", which no catalogue name maps to.
const std::vector<std::string>& categoryNames();
constexpr const char* kCategoryPrefix = "EYEANIMATION_";

// Exact, case-sensitive matches; nothing when the name is not in the table (the
// library then falls back to the settings' default or to EYEANIMATION_NONE).
std::optional<IrisShape> irisShapeFromName(const std::string& name);
std::optional<EyeContentType> contentKindFromName(const std::string& name);
// Takes the short name ("HAPPINESS"); the full "EYEANIMATION_" form is not a name.
std::optional<EyeAnimationCategory> categoryFromName(const std::string& shortName);
// "" for values outside the tables; categoryName gives "NONE" for 0 and unknown values.
std::string irisShapeName(IrisShape shape);
std::string contentKindName(EyeContentType kind);
std::string categoryName(int category);

// Categories="A,B": split at ',' with nothing trimmed. The reader's 8-bit counter
// caps a list at kMaxCategories names; longer lists never finish reading.
constexpr char kCategorySeparator = ',';
constexpr size_t kMaxCategories = 255;
std::vector<std::string> splitCategories(const std::string& text);
std::string joinCategories(const std::vector<EyeAnimationCategory>& categories);

// --- elements and attributes ---

// How an attribute's text becomes a value.
enum class ValueKind : uint8_t {
  RequiredText,  // missing: the reader stops with std::logic_error
  Text,          // missing: "" (or the rule the reader documents, e.g. right = left)
  Int,           // tinyxml2 IntAttribute: default when missing or not a whole number,
                 // then cut to `bits`
  Base0,         // strtoul base 0 (0x1E hex, 010 octal, -90 wraps back), cut to `bits`
  Decimal,       // strtod, narrowed to float
};

struct AttributeRule {
  const char* name;
  ValueKind kind;
  long defaultValue;  // Int only
  uint8_t bits;       // Int and Base0: width of the field
  bool isSigned;      // Int and Base0: the field is signed
};

// One kind of entry: its element name, where it sits, and its attributes in the order
// the reader reads them (also the order a writer should emit them).
struct EntryRule {
  const char* element;
  const char* parent;
  std::vector<AttributeRule> attributes;
  const AttributeRule* find(const std::string& attribute) const;
  // The known attribute nearest to `attribute` by edit distance (for "did you mean").
  const char* nearest(const std::string& attribute) const;
};

const EntryRule& irisGroupRule();        // Iris_Type under List
const EntryRule& irisRule();             // Iris under Iris_Type
const EntryRule& backgroundGroupRule();  // Background_Type under List
const EntryRule& backgroundRule();       // Background under Background_Type
const EntryRule& lidImageRule();         // Data under Images
const EntryRule& lidSequenceRule();      // Data under Animations
const EntryRule& animationRule();        // Animation under List
const EntryRule& sideRule();             // AnimationSide under Animation
const EntryRule& eventRule();            // Event under AnimationSide: X Y TimeMs Wait ...

constexpr const char* kLidImagesSection = "Images";
constexpr const char* kLidSequencesSection = "Animations";
constexpr const char* kLeftSide = "Left";
constexpr const char* kRightSide = "Right";
// What ends a track's step: move and hold are rounded to whole frames of this length.
constexpr double kFramePeriodMs = 40.0;

// The entry walk: the first child named `element`, then every following sibling
// element whatever its name (a later <Foo> is read as one more entry). Elements before
// the first named one are not read.
const tinyxml2::XMLElement* firstEntry(const tinyxml2::XMLElement* parent, const char* element);
const tinyxml2::XMLElement* nextEntry(const tinyxml2::XMLElement* entry);
template <typename Fn>
void forEachEntry(const tinyxml2::XMLElement* parent, const char* element, Fn fn) {
  if (parent == nullptr) return;
  for (const tinyxml2::XMLElement* e = firstEntry(parent, element); e != nullptr; e = nextEntry(e))
    fn(e);
}

// --- numbers ---

// How a Base0 text reads, with what a checker needs to warn about it.
struct Base0Reading {
  long stored = 0;        // the value the field holds after the cut to `bits`
  long written = 0;       // the number the text spells (before the cut)
  bool isNumber = false;  // some digits were read
  bool trailing = false;  // text follows the number (ignored by the reader)
  bool octal = false;     // a leading 0 made it octal
  bool fits = false;      // `written` fits the field without wrapping
};
Base0Reading readBase0(const char* text, uint8_t bits, bool isSigned);
// The reader's value of a Base0 attribute: 0 when absent.
long base0Attribute(const tinyxml2::XMLElement* e, const AttributeRule& rule);
// What the readers take from an entry, by the entry's rule: RequiredText throws
// std::logic_error when missing, Text gives "" ; Int and Base0 give the value cut to
// the field; Decimal the float.
std::string textOf(const tinyxml2::XMLElement* e, const EntryRule& entry, const char* attribute);
long numberOf(const tinyxml2::XMLElement* e, const EntryRule& entry, const char* attribute);
// An Int attribute before the cut (the lid colours are divided first).
int uncutIntOf(const tinyxml2::XMLElement* e, const EntryRule& entry, const char* attribute);
float decimalOf(const tinyxml2::XMLElement* e, const EntryRule& entry, const char* attribute);
// `value` cut to the rule's field width, as the reader stores it.
long cutToField(long value, const AttributeRule& rule);
// IntAttribute reading: nothing when the text is not a whole number (the default is used).
std::optional<int> readInt(const char* text);
// Decimal reading: nothing when no number could be read or text follows it.
std::optional<double> readDecimal(const char* text);

// Writing numbers so that the readers give them back: integers in plain decimal (never
// a leading zero, which would read as octal), scales in the shortest text that reads
// back as the same float.
std::string formatInteger(long value);
std::string formatDecimal(float value);

// --- images ---

constexpr int kPanelSize = 240;  // backgrounds are kPanelSize square; lid frames this wide
// One image or sequence may hold at most this many pixels (VContent refuses more).
uint64_t maxImagePixels();

// What each catalogue image is used as, and so how it is decoded and sized.
enum class ImageUse : uint8_t { Iris, Background, Lid, LidSequence };
bool decodesWithAlpha(ImageUse use);
// "" when width x height suits the use, else what it must be ("must be 240 x 240").
std::string sizeProblem(ImageUse use, unsigned width, unsigned height);

}  // namespace catalogue
