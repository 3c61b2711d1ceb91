// Catalogue readers (irises, backgrounds, eyelids, animations) on small files written
// by each test, and the bundled eye set read with the same readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeTestSupport.h"
#include "Helper.h"
#include "LoadEyeAnimations.h"
#include "catalogue/CatalogueRules.h"

namespace {

using Strings = std::vector<std::string>;

class Catalogue : public ::testing::Test {
 protected:
  void SetUp() override { eyetest::resetEyeControl(); }
  void TearDown() override { eyetest::resetEyeControl(); }
  eyetest::TempDir dir_;
  eyetest::LogCapture log_;
};

TEST_F(Catalogue, BrokenFilesGiveNothingAndMissingRequiredTextStopsTheReader) {
  const struct {
    std::function<size_t(const char*)> read;
    Strings required;  // entries lacking text a string is made from
  } readers[] = {
      {[](const char* p) { return EyeControl::getIrisTypes(p).size(); },
       {"<Iris_Type name=\"CLASSIC\"/><Iris_Type><Iris style=\"A\"/></Iris_Type>"}},
      {[](const char* p) { return EyeControl::getBackgroundTypes(p).size(); },
       {"<Background_Type><Background style=\"A\"/></Background_Type>"}},
      {[](const char* p) { return EyeControl::get_LidImages(p).size(); },
       {"<Images><Data name=\"a\" id=\"0\"/></Images><Animations/>"}},
      {[](const char* p) { return LoadEyeAnimations::get_Animations(p).size(); },
       {"<Animation Id=\"1\" Categories=\"IDLE\"/>", "<Animation Id=\"1\" Name=\"a\"/>",
        "<Animation Id=\"1\" Name=\"a\" Categories=\"IDLE\"><AnimationSide/></Animation>"}},
  };
  const Strings unreadable = {dir_.str() + "missing.xml",
                              dir_.write("broken.xml", "<List><Group name=\"A\"></List>"),
                              dir_.write("nolist.xml", "<Root><Iris_Type name=\"A\"/></Root>")};
  const std::string empty = dir_.write("empty.xml", "<List></List>");
  for (const auto& reader : readers) {
    for (const std::string& path : unreadable) {
      log_.clear();
      EXPECT_EQ(reader.read(path.c_str()), 0u);
      EXPECT_EQ(log_.errors(), Strings{path + " XML parse failed!"});
    }
    log_.clear();
    EXPECT_EQ(reader.read(empty.c_str()), 0u);
    EXPECT_TRUE(log_.entries().empty());
    for (const std::string& body : reader.required)
      EXPECT_THROW(reader.read(dir_.write("r.xml", "<List>" + body + "</List>").c_str()),
                   std::logic_error)
          << body;
  }
}

TEST_F(Catalogue, TypeNamesRoundTripAndUnknownNamesTakeTheDefaultOfTheMoment) {
  for (int v = 0; v < 12; ++v)
    EXPECT_EQ(IrisType::getShape(IrisType::getName(static_cast<IrisShape>(v))),
              static_cast<IrisShape>(v));
  EXPECT_EQ(IrisType::getName(IrisShape::GLOW) + IrisType::getName(static_cast<IrisShape>(12)),
            "GLOW");
  for (auto type : {EyeContentType::COLOR, EyeContentType::IMAGE})
    EXPECT_EQ(BackgroundType::getShape(BackgroundType::getName(type)), type);
  for (uint8_t shape : {7, 10}) {
    Helper::getSettings().defaultIrisShape = shape;
    Helper::getSettings().defaultBackgroundType = shape == 7;
    for (const char* name : {"classic", "", "CLASSIC "})
      EXPECT_EQ(IrisType::getShape(name), static_cast<IrisShape>(shape)) << name;
    EXPECT_EQ(BackgroundType::getShape("color"), static_cast<EyeContentType>(shape == 7));
  }
}

// Every element after a group's first entry is an entry; offsets are cut to a byte.
TEST_F(Catalogue, IrisAndBackgroundGroupsInFileOrder) {
  Helper::getSettings().defaultIrisShape = 9;
  const std::string irisPath = dir_.write("iris.xml", R"(<?xml version="1.0"?>
<List><Other name="GLOW"/><Iris_Type name="MODERN">
  <!-- comments are not entries -->
  <Iris style="A" left="a_l.png" right="a_r.png" offsetX="5" offsetY="-3"/>
  <Iris style="B" left="b.png" offsetX="200" offsetY="x"/>
  <Other style="A" left="c.png" offsetX="-129"/>
</Iris_Type><Iris_Type name="classic"/>
<Group name="MODERN"><Iris style="D" left="d.png" right=""/></Group></List>)");
  auto types = EyeControl::getIrisTypes(irisPath.c_str());
  ASSERT_EQ(types.size(), 3u);
  EXPECT_EQ(types[0].shape, IrisShape::MODERN);
  EXPECT_EQ(types[1].shape, IrisShape::SYMBOL);  // misspelt: the default shape, kept empty
  EXPECT_TRUE(types[1].irises.empty());
  EXPECT_EQ(types[2].shape, IrisShape::MODERN);
  Strings irises;
  for (const IrisType& type : types)
    for (const Iris& i : type.irises)
      irises.push_back(i.style + " " + i.left + " " + i.right + " " + std::to_string(i.offsetX) +
                       " " + std::to_string(i.offsetY));
  EXPECT_EQ(irises, (Strings{"A a_l.png a_r.png 5 -3", "B b.png b.png -56 0", "A c.png c.png 127 0",
                             "D d.png  0 0"}));
  EXPECT_EQ(types[0].getIris("A"), &types[0].irises[0]);  // first exact match
  EXPECT_EQ(types[0].getIris("a"), nullptr);

  // A left image alone serves both eyes; an image entry without a left one is reported
  // (and so is one of an unknown kind, which falls back to images) but kept.
  Helper::getSettings().defaultBackgroundType = 1;
  const std::string bgPath = dir_.write("bg.xml", R"(<List>
<Background_Type name="IMAGE"><Background style="ONE" left="l.png"/>
  <Background style="RIGHTONLY" right="r.png"/><Background style="PAIR" left="l.png" right="r.png"/>
  <Background style="ONE" left="x.png"/></Background_Type>
<Background_Type name="COLOR"><Background style="WHITE"/><Background style="TINT" left="t.png"/>
</Background_Type><Background_Type name="Image"><Background style="X"/></Background_Type></List>)");
  auto backgrounds = EyeControl::getBackgroundTypes(bgPath.c_str());
  EXPECT_EQ(log_.errors(), (Strings{bgPath + " XML parse detail:RIGHTONLY error!",
                                    bgPath + " XML parse detail:X error!"}));
  Strings found;
  for (const BackgroundType& t : backgrounds)
    for (const Background& b : t.backgrounds)
      found.push_back(BackgroundType::getName(t.type) + ":" + b.style + ":" + b.left + "|" +
                      b.right);
  EXPECT_EQ(found, (Strings{"IMAGE:ONE:l.png|l.png", "IMAGE:RIGHTONLY:|r.png",
                            "IMAGE:PAIR:l.png|r.png", "IMAGE:ONE:x.png|x.png", "COLOR:WHITE:|",
                            "COLOR:TINT:t.png|t.png", "IMAGE:X:|"}));
  EXPECT_EQ(backgrounds[0].getBackground("ONE"), &backgrounds[0].backgrounds[0]);
  EXPECT_EQ(backgrounds[0].getBackground("ONE2"), nullptr);
}

TEST_F(Catalogue, EyelidsAreReadConvertedAndSortedById) {
  std::vector<uint8_t> px(240 * 2 * 4, 0);  // red opaque row over a transparent one
  for (int i = 0; i < 240; ++i) px[i * 4] = 0xF0, px[i * 4 + 3] = 255;
  const std::string png = dir_.str() + "lid.png";
  ASSERT_TRUE(VContent::writePng(png, 240, 2, px.data(), true));
  const std::string path = dir_.write("eyelid.xml", R"(<List><Images>
  <Data name="two" id="2" path=")" + png + R"(" r="255" g="15" b="-17" a="300"/>
  <Data name="zero" id="0" path=")" + png + R"("/></Images><Animations>
  <Data name="one" id="1" path="seq/blink.png" ratio="300" loop="3" ft="7" w="240" h="80"/>
  <Other name="big" id="70000" path="seq/x.png"/></Animations></List>)");
  EyeControl::lid_images = EyeControl::get_LidImages(path.c_str());
  const auto& lids = EyeControl::lid_images;
  EXPECT_TRUE(log_.entries().empty());
  ASSERT_EQ(lids.size(), 4u);
  EXPECT_EQ(lids[0].name + lids[1].name + lids[2].name + lids[3].name, "zeroonetwobig");
  EXPECT_EQ(lids[3].id, 4464);  // cut to 16 bits

  // Images decoded with alpha in display depth; the fill colour divided by 16 toward
  // zero, alpha not divided, each cut to a byte.
  const VContent& two = lids[2].content;
  EXPECT_EQ((std::vector<int>{two.width, two.height, two.bytesPerPixel, two.frames[0][0],
                              two.frames[0][3], lids[2].color[0], lids[2].color[1],
                              lids[2].color[2], lids[2].color[3], lids[0].color[3]}),
            (std::vector<int>{240, 2, 4, 0x0F, 255, 15, 0, 255, 44, 0}));
  // Sequences: only described, frames come when first shown; ratio defaults to 1.
  const VContent& one = lids[1].content;
  EXPECT_TRUE(one.frames.empty());
  EXPECT_EQ(one.path, "seq/blink.png");
  EXPECT_EQ((std::vector<int>{one.ratio, one.loop, one.frameTotal, one.width, one.height,
                              lids[3].content.ratio, lids[3].content.loop}),
            (std::vector<int>{44, 3, 7, 240, 80, 1, 0}));

  // Lookup by position in id order; a failed one leaves the record alone.
  EyeLidPart out;
  ASSERT_EQ(EyeControl::getLid(3, out), 0);
  EXPECT_EQ(out.id, 4464);
  EXPECT_EQ(EyeControl::getLid(4, out), -1);
  EXPECT_EQ(out.name, "big");
}

std::string event(const std::string& x, const std::string& timeMs = "40",
                  const std::string& wait = "0", const std::string& tag = "Event") {
  return "<" + tag + " X=\"" + x + "\" Y=\"2\" TimeMs=\"" + timeMs + "\" Wait=\"" + wait +
         "\" ScaleX=\"1.5\" ScaleY=\"0.25\" LidTopY=\"010\" LidBotY=\"0x1E\" TopLidIndex=\"2\""
         " BotLidIndex=\"3\" RotateAngle=\"-90\" Ellipse_H=\"40\"/>";
}

TEST_F(Catalogue, AnimationsFillTheirTracksInOrder) {
  const std::string path = dir_.write(
      "anim.xml",
      "<List><Animation Id=\"0x10\" Name=\"look\" Categories=\"HAPPINESS,IDLE\">"
      "<AnimationSide Side=\"Right\">" +
          event("1", "100", "1000") + "<!-- skipped -->" + event("3", "0", "60", "Step") +
          "</AnimationSide><AnimationSide Side=\"Left\">" + event("5") +
          "</AnimationSide><Side Side=\"Left\">" + event("6") +
          "</Side><AnimationSide Side=\"left\">" + event("7") +
          "</AnimationSide></Animation><Animation Id=\"010\" Name=\"bare\" "
          "Categories=\"\"/><Thing Name=\"odd\" Categories=\"ANGER\"><AnimationSide "
          "Side=\"Right\"><Event X=\"7\"/></AnimationSide></Thing></List>");
  const auto animations = LoadEyeAnimations::get_Animations(path.c_str());
  EXPECT_EQ(log_.errors(), Strings{"Loading eyeside xml parse error!"});
  ASSERT_EQ(animations.size(), 3u);
  const EyeAnimation& a = *animations[0];
  EXPECT_EQ(a.id, 16);
  EXPECT_EQ(a.categories,
            (std::vector<EyeAnimationCategory>{EYEANIMATION_HAPPINESS, EYEANIMATION_IDLE}));
  EXPECT_EQ(a.state.load(), AnimationState::IDLE);
  ASSERT_EQ(a.right.events.size(), 2u);
  ASSERT_EQ(a.left.events.size(), 2u);  // a second Left side appends, "left" is no side
  EXPECT_EQ(a.left.events[0].x * 10 + a.left.events[1].x, 56);

  // Time rounded to whole frames (2.5 up), lid lines in octal and hexadecimal.
  const moveEvent& e = a.right.events[0];
  EXPECT_EQ(
      (std::vector<int>{e.x, e.y, e.move_ms, e.wait_ms, e.lid_top_y, e.lid_bot_y, e.top_lid_index,
                        e.bot_lid_index, e.rotate_angle, e.ellipse_h, e.frame_ms}),
      (std::vector<int>{1, 2, 120, 1000, 8, 30, 2, 3, -90, 40, 40}));
  EXPECT_EQ(e.scale_x, 1.5f);
  EXPECT_EQ(e.scale_y, 0.25f);
  EXPECT_EQ(e.iris_name, nullptr);
  EXPECT_EQ(a.right.events[1].move_ms + a.right.events[1].wait_ms, 80);

  EXPECT_EQ(animations[1]->id, 8);
  EXPECT_TRUE(animations[1]->categories.empty() && animations[1]->left.events.empty());
  const EyeAnimation& odd = *animations[2];  // absent numbers read as 0
  EXPECT_EQ(odd.id, 0);
  EXPECT_EQ(odd.categories, std::vector<EyeAnimationCategory>{EYEANIMATION_ANGER});
  ASSERT_EQ(odd.right.events.size(), 1u);
  EXPECT_EQ(odd.right.events[0].x, 7);
  EXPECT_EQ(odd.right.events[0].y + odd.right.events[0].move_ms + odd.right.events[0].scale_x, 0);
}

TEST_F(Catalogue, CategoryNamesAndWrittenNumbersReadBack) {
  using V = std::vector<EyeAnimationCategory>;
  // Short names only, exact; not alphabetical (MISC before CONFUSION).
  EXPECT_EQ(LoadEyeAnimations::getEyeAnimationCategories(Helper::split(
                "HAPPINESS, IDLE,EYEANIMATION_ANGER,MISC,CONFUSION,USER_DEFINED,anger", ',')),
            (V{EYEANIMATION_HAPPINESS, EYEANIMATION_NONE, EYEANIMATION_NONE, EYEANIMATION_MISC,
               EYEANIMATION_CONFUSION, EYEANIMATION_USER_DEFINED, EYEANIMATION_NONE}));
  EXPECT_EQ(LoadEyeAnimations::getEyeAnimationCategories(Strings(255, "HURT")),
            V(255, EYEANIMATION_HURT));

  using namespace catalogue;
  for (float v : {0.1f, 1.35f, -2.5f, 0.001f, 123456.7f, 555.0f})
    EXPECT_EQ(static_cast<float>(std::strtod(formatDecimal(v).c_str(), nullptr)), v) << v;
  for (long v : {0L, 8L, -90L, 32767L, -32768L})
    EXPECT_EQ(readBase0(formatInteger(v).c_str(), 16, true).stored, v) << v;
  const V categories = {EYEANIMATION_HURT, EYEANIMATION_MISC};
  EXPECT_EQ(
      LoadEyeAnimations::getEyeAnimationCategories(splitCategories(joinCategories(categories))),
      categories);
}

// --- the bundled set ---

class BundledSet : public Catalogue {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kDir + "/iris_type.xml")) GTEST_SKIP() << "eye set not built";
    Catalogue::SetUp();
    ASSERT_EQ(EyeControl::loadEyeFilesFrom(kDir), 0);
  }
  void TearDown() override {
    EXPECT_TRUE(log_.errors().empty()) << log_.errors().front();
    Catalogue::TearDown();
  }
  const std::string kDir = EYE_ASSETS_DIR;
};

const uint8_t* pixel(const VContent& image, int x, int y) {
  return &image.frames.at(0)[(static_cast<size_t>(y) * image.width + x) * image.bytesPerPixel];
}

// Every colour name has its classic iris (clear corners, opaque centre); every lid image
// is panel wide and its edge row is opaque skin in the fill colour, so no seam shows;
// the animations use every category and only lids that exist.
TEST_F(BundledSet, ServesEveryColourCategoryAndLid) {
  for (int c = 0; c < static_cast<int>(ColorCode::COUNT); ++c) {
    EyePart part;
    ASSERT_EQ(EyeControl::getIris(IrisShape::CLASSIC, Color::getColorName(ColorCode(c)), part), 0);
    const VContent& iris = part.right;
    EXPECT_EQ(pixel(iris, 0, 0)[3] + pixel(iris, iris.width - 1, iris.height - 1)[3], 0) << c;
    EXPECT_EQ(pixel(iris, iris.width / 2, iris.height / 2)[3], 255) << c;
  }
  const auto& lids = EyeControl::lid_images;
  for (const EyeLidPart& lid : lids) {
    if (lid.content.frames.empty()) continue;  // a sequence, loaded when first shown
    ASSERT_EQ(lid.content.width, 240) << lid.name;
    auto joins = [&](int row) {
      for (int x = 0; x < 240; ++x)
        if (!std::equal(lid.color, lid.color + 3, pixel(lid.content, x, row)) ||
            pixel(lid.content, x, row)[3] != 255)
          return false;
      return true;
    };
    EXPECT_TRUE(joins(0) || joins(lid.content.height - 1)) << lid.name;
  }
  std::set<int> categories;
  for (const auto& animation : EyeControl::eye_animations) {
    categories.insert(animation->categories.begin(), animation->categories.end());
    for (const EyeSideAnimation* track : {&animation->left, &animation->right})
      for (const moveEvent& e : track->events)
        EXPECT_LT(std::max(e.top_lid_index, e.bot_lid_index), lids.size()) << animation->name;
  }
  EXPECT_EQ(categories.size(), 11u);
  EXPECT_EQ(categories.count(EYEANIMATION_NONE), 0u);
}

}  // namespace
