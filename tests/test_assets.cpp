// The bundled default eye set: the four catalogues read directly with tinyxml2 and
// every image they name decoded, independently of the eye library's own readers.
#include <Color.h>
#include <VContent.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

const std::string kDir = EYE_ASSETS_DIR;

struct Doc {
  explicit Doc(const std::string& file) {
    ok = xml.LoadFile((kDir + "/" + file).c_str()) == tinyxml2::XML_SUCCESS &&
         xml.FirstChildElement("List") != nullptr;
  }
  const tinyxml2::XMLElement* list() const { return xml.FirstChildElement("List"); }
  tinyxml2::XMLDocument xml;
  bool ok = false;
};

std::vector<const tinyxml2::XMLElement*> children(const tinyxml2::XMLElement* parent) {
  std::vector<const tinyxml2::XMLElement*> out;
  if (parent == nullptr) return out;
  for (auto* e = parent->FirstChildElement(); e != nullptr; e = e->NextSiblingElement())
    out.push_back(e);
  return out;
}

std::string attr(const tinyxml2::XMLElement* e, const char* name) {
  const char* v = e->Attribute(name);
  return v ? v : "";
}

VContent load(const std::string& relative, bool withAlpha) {
  return VContent::getImage(kDir + "/" + relative, withAlpha, false);
}

const uint8_t* pixel(const VContent& img, int x, int y, int frame = 0) {
  const int bpp = static_cast<int>(img.frames[frame].size() / (img.width * img.height));
  return &img.frames[frame][(static_cast<size_t>(y) * img.width + x) * bpp];
}

TEST(BundledIrises, EveryImageDecodesWithTransparentCornersAndOpaqueCentre) {
  Doc doc("iris_type.xml");
  ASSERT_TRUE(doc.ok);
  std::map<std::string, int> classicStyles;
  int irises = 0;
  for (auto* group : children(doc.list())) {
    ASSERT_STREQ(group->Name(), "Iris_Type");
    const std::string shape = attr(group, "name");
    for (auto* iris : children(group)) {
      ASSERT_STREQ(iris->Name(), "Iris");
      if (shape == "CLASSIC") ++classicStyles[attr(iris, "style")];
      for (const char* side : {"left", "right"}) {
        const std::string path = attr(iris, side);
        if (path.empty()) continue;  // right falls back to left
        SCOPED_TRACE(path);
        const VContent img = load(path, true);
        ASSERT_EQ(img.frames.size(), 1u);
        ASSERT_GE(img.width, 100);
        ASSERT_LE(img.width, 128);
        ASSERT_EQ(img.frames[0].size(), size_t{img.width} * img.height * 4);
        EXPECT_EQ(pixel(img, 0, 0)[3], 0);
        EXPECT_EQ(pixel(img, img.width - 1, img.height - 1)[3], 0);
        EXPECT_EQ(pixel(img, img.width / 2, img.height / 2)[3], 255);
        ++irises;
      }
    }
  }
  EXPECT_GE(irises, 25);
  // One classic iris per colour name, the style being the name itself.
  for (int c = 0; c < static_cast<int>(ColorCode::COUNT); ++c) {
    const std::string name = Color::getColorName(static_cast<ColorCode>(c));
    EXPECT_EQ(classicStyles[name], 1) << name;
  }
  EXPECT_EQ(classicStyles.size(), static_cast<size_t>(ColorCode::COUNT));
}

TEST(BundledBackgrounds, ColourGroupExistsAndImagesAreFullPanels) {
  Doc doc("background_type.xml");
  ASSERT_TRUE(doc.ok);
  std::set<std::string> kinds;
  int images = 0;
  for (auto* group : children(doc.list())) {
    const std::string kind = attr(group, "name");
    kinds.insert(kind);
    for (auto* bg : children(group)) {
      ASSERT_FALSE(attr(bg, "style").empty());
      if (kind != "IMAGE") continue;
      ASSERT_FALSE(attr(bg, "left").empty());
      SCOPED_TRACE(attr(bg, "left"));
      const VContent img = load(attr(bg, "left"), false);
      ASSERT_EQ(img.frames.size(), 1u);
      EXPECT_EQ(img.width, 240);
      EXPECT_EQ(img.height, 240);
      EXPECT_EQ(img.frames[0].size(), 240u * 240u * 3u);
      ++images;
    }
  }
  EXPECT_EQ(kinds, (std::set<std::string>{"COLOR", "IMAGE"}));
  EXPECT_GE(images, 3);
}

TEST(BundledEyelids, IdsAreDenseAndImagesJoinTheirFillColour) {
  Doc doc("eyelid.xml");
  ASSERT_TRUE(doc.ok);
  std::set<int> ids;
  int count = 0;
  for (auto* d : children(doc.list()->FirstChildElement("Images"))) {
    const std::string path = attr(d, "path");
    SCOPED_TRACE(path);
    ids.insert(d->IntAttribute("id", -1));
    ++count;
    const VContent img = load(path, true);
    ASSERT_EQ(img.frames.size(), 1u);
    ASSERT_EQ(img.width, 240);  // the composer addresses lid rows with a fixed stride
    ASSERT_GT(img.height, 0);
    EXPECT_EQ(d->IntAttribute("a"), 255);
    // A top lid's first row, or a bottom lid's last row, is opaque skin in exactly the
    // fill colour painted beyond it, so no seam shows at the panel's 4-bit depth.
    const uint8_t fill[3] = {static_cast<uint8_t>(d->IntAttribute("r") / 16),
                             static_cast<uint8_t>(d->IntAttribute("g") / 16),
                             static_cast<uint8_t>(d->IntAttribute("b") / 16)};
    auto joins = [&](int row) {
      for (int x = 0; x < 240; ++x) {
        const uint8_t* p = pixel(img, x, row);
        if (p[3] != 255 || p[0] >> 4 != fill[0] || p[1] >> 4 != fill[1] || p[2] >> 4 != fill[2])
          return false;
      }
      return true;
    };
    EXPECT_TRUE(joins(0) || joins(img.height - 1));
    // And somewhere the lid is see-through, or it would have no edge.
    bool clear = false;
    for (int y = 0; y < img.height && !clear; ++y)
      for (int x = 0; x < 240 && !clear; ++x) clear = pixel(img, x, y)[3] == 0;
    EXPECT_TRUE(clear);
  }
  const auto* animated = doc.list()->FirstChildElement("Animations");
  ASSERT_NE(animated, nullptr);
  int sequences = 0;
  VContent::setBaseDirectory(kDir);
  for (auto* d : children(animated)) {
    SCOPED_TRACE(attr(d, "path"));
    ids.insert(d->IntAttribute("id", -1));
    ++count;
    VContent seq;
    seq.path = attr(d, "path");
    seq.width = static_cast<uint16_t>(d->IntAttribute("w"));
    seq.height = static_cast<uint16_t>(d->IntAttribute("h"));
    seq.frameTotal = static_cast<uint16_t>(d->IntAttribute("ft"));
    seq.loadSequence();
    ASSERT_TRUE(seq.isReady());
    EXPECT_EQ(seq.width, 240);
    EXPECT_GT(seq.frameTotal, 1);
    EXPECT_EQ(seq.frames.size(), seq.frameTotal);
    ++sequences;
  }
  VContent::setBaseDirectory("");
  EXPECT_GE(sequences, 1);
  ASSERT_EQ(static_cast<int>(ids.size()), count) << "duplicate lid ids";
  EXPECT_EQ(*ids.begin(), 0);
  EXPECT_EQ(*ids.rbegin(), count - 1);
}

TEST(BundledAnimations, EveryEventIsCompleteAndEveryCategoryIsUsed) {
  Doc lids("eyelid.xml");
  ASSERT_TRUE(lids.ok);
  const long lidCount =
      static_cast<long>(children(lids.list()->FirstChildElement("Images")).size() +
                        children(lids.list()->FirstChildElement("Animations")).size());

  Doc doc("eyeanimations.xml");
  ASSERT_TRUE(doc.ok);
  const std::set<std::string> known = {"ANGER",      "MISC",     "CONFUSION",   "SPECIAL",
                                       "DEPRESSION", "FEAR",     "HAPPINESS",   "HURT",
                                       "IDLE",       "INTERNAL", "USER_DEFINED"};
  const char* const fields[] = {"X",           "Y",           "TimeMs",      "Wait",
                                "ScaleX",      "ScaleY",      "LidTopY",     "LidBotY",
                                "TopLidIndex", "BotLidIndex", "RotateAngle", "Ellipse_H"};
  std::set<std::string> used, names, ids;
  int animations = 0;
  for (auto* a : children(doc.list())) {
    ASSERT_STREQ(a->Name(), "Animation");
    const std::string name = attr(a, "Name");
    SCOPED_TRACE(name);
    ++animations;
    EXPECT_TRUE(names.insert(name).second) << "duplicate name";
    EXPECT_TRUE(ids.insert(attr(a, "Id")).second) << "duplicate id";
    const std::string cats = attr(a, "Categories");
    ASSERT_FALSE(cats.empty());
    for (size_t start = 0; start <= cats.size();) {
      const size_t comma = std::min(cats.find(',', start), cats.size());
      const std::string cat = cats.substr(start, comma - start);
      EXPECT_TRUE(known.count(cat)) << "category '" << cat << "'";
      used.insert(cat);
      start = comma + 1;
    }
    std::set<std::string> sides;
    for (auto* side : children(a)) {
      ASSERT_STREQ(side->Name(), "AnimationSide");
      sides.insert(attr(side, "Side"));
      const auto events = children(side);
      EXPECT_FALSE(events.empty());
      for (auto* e : events) {
        ASSERT_STREQ(e->Name(), "Event");
        for (const char* f : fields) {
          const char* v = e->Attribute(f);
          ASSERT_NE(v, nullptr) << f;
          char* end = nullptr;
          std::strtod(v, &end);
          EXPECT_TRUE(*v != '\0' && *end == '\0') << f << "=" << v;
          // Decimal only: a leading zero would silently turn a value octal.
          if (f[0] != 'S') EXPECT_FALSE(v[0] == '0' && v[1] != '\0') << f << "=" << v;
        }
        EXPECT_EQ(e->IntAttribute("TimeMs") % 40, 0);
        EXPECT_EQ(e->IntAttribute("Wait") % 40, 0);
        for (const char* lid : {"TopLidIndex", "BotLidIndex"}) {
          EXPECT_GE(e->IntAttribute(lid), 0);
          EXPECT_LT(e->IntAttribute(lid), lidCount);
        }
      }
    }
    EXPECT_EQ(sides, (std::set<std::string>{"Left", "Right"}));
  }
  EXPECT_GE(animations, 16);
  EXPECT_EQ(used, known);
}

}  // namespace
