// Catalogue readers (irises, backgrounds, eyelids, animations) on small files written by
// each test: what broken files give, what missing values default to, and in which order
// entries come out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Color.h"
#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeTestSupport.h"
#include "Helper.h"
#include "LoadEyeAnimations.h"
#include "catalogue/CatalogueRules.h"

namespace {

using Strings = std::vector<std::string>;
using Ints = std::vector<int>;

class Catalogue : public ::testing::Test {
 protected:
  void SetUp() override { eyetest::resetEyeControl(); }
  void TearDown() override { eyetest::resetEyeControl(); }
  eyetest::TempDir dir_;
  eyetest::LogCapture log_;
};

TEST_F(Catalogue, BrokenFilesGiveNothingAndMissingRequiredTextStopsTheReader) {
  const std::pair<std::function<size_t(const char*)>, Strings> readers[] = {
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
  for (const auto& [read, required] : readers) {
    for (const std::string& path : unreadable) {
      log_.clear();
      EXPECT_EQ(read(path.c_str()), 0u);
      EXPECT_EQ(log_.errors(), Strings{path + " XML parse failed!"});
    }
    log_.clear();
    EXPECT_EQ(read(empty.c_str()), 0u);
    EXPECT_TRUE(log_.entries().empty());
    for (const std::string& body : required)  // text a string is made from
      EXPECT_THROW(read(dir_.write("r.xml", "<List>" + body + "</List>").c_str()), std::logic_error)
          << body;
  }
}

// Entries start at the first element of their name, and every later element counts;
// unknown group names take the settings' default of the moment; offsets are cut to a
// byte; a left image alone serves both eyes; an image entry without a left one is
// reported but kept.
TEST_F(Catalogue, IrisAndBackgroundGroupsInFileOrder) {
  Helper::getSettings().defaultIrisShape = 9;
  Helper::getSettings().defaultBackgroundType = 1;
  const std::string irisPath = dir_.write("iris.xml", R"(<List><Other name="GLOW"/>
<Iris_Type name="MODERN"><!-- not an entry --><Iris style="A" left="l" right="r" offsetX="5"
offsetY="-3"/><Iris style="B" left="b" offsetX="200" offsetY="x"/><Other style="A" left="c"
offsetX="-129"/></Iris_Type><Iris_Type name="classic"/><G name="MODERN"><Iris style="D" left="d"
right=""/></G></List>)");
  const std::string bgPath = dir_.write("bg.xml", R"(<List><Background_Type name="IMAGE">
<Background style="ONE" left="l"/><Background style="R" right="r"/><Background style="LR" left="l"
right="r"/></Background_Type><Background_Type name="COLOR"><Background style="WHITE"/>
<Background style="T" left="t"/></Background_Type><Background_Type name="Image"><Background
style="X"/></Background_Type></List>)");
  Strings found;
  auto irises = EyeControl::getIrisTypes(irisPath.c_str());
  for (const IrisType& t : irises) {
    found.push_back(IrisType::getName(t.shape) + ":");
    for (const Iris& i : t.irises)
      found.push_back(i.style + " " + i.left + "|" + i.right + " " + std::to_string(i.offsetX) +
                      " " + std::to_string(i.offsetY));
  }
  for (const BackgroundType& t : EyeControl::getBackgroundTypes(bgPath.c_str()))
    for (const Background& b : t.backgrounds)
      found.push_back(BackgroundType::getName(t.type) + " " + b.style + " " + b.left + "|" +
                      b.right);
  EXPECT_EQ(found, (Strings{"MODERN:", "A l|r 5 -3", "B b|b -56 0", "A c|c 127 0",
                            "SYMBOL:", "MODERN:", "D d| 0 0", "IMAGE ONE l|l", "IMAGE R |r",
                            "IMAGE LR l|r", "COLOR WHITE |", "COLOR T t|t", "IMAGE X |"}));
  EXPECT_EQ(irises[0].getIris("A"), &irises[0].irises[0]);
  EXPECT_EQ(log_.errors(), (Strings{bgPath + " XML parse detail:R error!",
                                    bgPath + " XML parse detail:X error!"}));
  Helper::getSettings().defaultBackgroundType = 0;
  EXPECT_EQ(EyeControl::getBackgroundTypes(bgPath.c_str())[2].type, EyeContentType::COLOR);
}

TEST_F(Catalogue, EyelidsAreReadConvertedAndSortedById) {
  VContent red;
  red.AddFrame("", 240, 2, true, false, 0xF0, 0, 0, 255);
  const std::string png = dir_.str() + "lid.png";
  ASSERT_TRUE(VContent::writePng(png, 240, 2, red.frames[0].data(), true));
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
  // Images decoded with alpha in display depth; the fill colour divided by 16 toward
  // zero, alpha not divided, each cut to a byte, absent ones 0. Sequences are only
  // described (frames come when first shown); ratio defaults to 1; ids cut to 16 bits.
  const VContent &two = lids[2].content, &one = lids[1].content;
  const uint8_t* colour = lids[2].color;
  EXPECT_EQ((Ints{two.width, two.height, two.bytesPerPixel, two.frames.at(0)[0], two.frames[0][3],
                  colour[0], colour[1], colour[2], colour[3], lids[0].color[3]}),
            (Ints{240, 2, 4, 0x0F, 255, 15, 0, 255, 44, 0}));
  EXPECT_EQ(one.path + std::to_string(one.frames.size()), "seq/blink.png0");
  EXPECT_EQ((Ints{one.ratio, one.loop, one.frameTotal, one.width, one.height, lids[3].content.ratio,
                  lids[3].content.loop, lids[3].id}),
            (Ints{44, 3, 7, 240, 80, 1, 0, 4464}));
  // Lookup by position in id order; a failed one leaves the record alone.
  EyeLidPart out;
  ASSERT_EQ(EyeControl::getLid(3, out), 0);
  EXPECT_EQ(EyeControl::getLid(4, out), -1);
  EXPECT_EQ(out.name, "big");
}

// Sides named "Left" and "Right" exactly, a second one of a name appends; categories by
// their short names only; times rounded to whole frames (2.5 up); lid lines in octal and
// hexadecimal; absent numbers read as 0.
TEST_F(Catalogue, AnimationsFillTheirTracksInOrder) {
  const std::string path = dir_.write("anim.xml", R"(<List><Animation Id="0x10" Name="look"
Categories="HAPPINESS, IDLE,anger,EYEANIMATION_ANGER,MISC"><AnimationSide Side="Right">
<Event X="1" Y="2" TimeMs="100" Wait="1000" ScaleX="1.5" ScaleY="0.25" LidTopY="010"
LidBotY="0x1E" TopLidIndex="2" BotLidIndex="3" RotateAngle="-90" Ellipse_H="40"/>
<Event X="3" TimeMs="0" Wait="60"/></AnimationSide><AnimationSide Side="Left"><Event X="5"/>
</AnimationSide><AnimationSide Side="left"><Event X="6"/></AnimationSide><AnimationSide
Side="Left"><Event X="7"/></AnimationSide></Animation><Animation Id="010" Name="" Categories=""/>
</List>)");
  const auto animations = LoadEyeAnimations::get_Animations(path.c_str());
  EXPECT_EQ(log_.errors(), Strings{"Loading eyeside xml parse error!"});
  ASSERT_EQ(animations.size(), 2u);
  const EyeAnimation &a = *animations[0], &bare = *animations[1];
  EXPECT_EQ(a.categories, (std::vector<EyeAnimationCategory>{
                              EYEANIMATION_HAPPINESS, EYEANIMATION_NONE, EYEANIMATION_NONE,
                              EYEANIMATION_NONE, EYEANIMATION_MISC}));
  EXPECT_EQ(a.state.load(), AnimationState::IDLE);
  ASSERT_EQ(a.right.events.size() + a.left.events.size(), 4u);
  const moveEvent &e = a.right.events[0], &step = a.right.events.at(1);
  EXPECT_EQ((Ints{e.x, e.y, e.move_ms, e.wait_ms, e.lid_top_y, e.lid_bot_y, e.top_lid_index,
                  e.bot_lid_index, e.rotate_angle, e.ellipse_h, e.frame_ms}),
            (Ints{1, 2, 120, 1000, 8, 30, 2, 3, -90, 40, 40}));
  EXPECT_EQ(std::make_pair(e.scale_x, e.scale_y), std::make_pair(1.5f, 0.25f));
  EXPECT_EQ(e.iris_name, nullptr);
  EXPECT_EQ((Ints{step.x, step.y, step.move_ms, step.wait_ms, step.rotate_angle, step.ellipse_h}),
            (Ints{3, 0, 0, 80, 0, 0}));
  EXPECT_EQ(step.scale_x, 0.0f);
  EXPECT_EQ((Ints{a.left.events[0].x, a.left.events.at(1).x, a.id, bare.id}), (Ints{5, 7, 16, 8}));
  EXPECT_TRUE(bare.categories.empty() && bare.left.events.empty());
}

// The bundled set as drawn: irises clear at the corners and solid in the middle, one
// classic iris per colour name, and every lid's edge row opaque in its fill colour so
// that no seam shows where the fill takes over; somewhere each lid is clear.
TEST_F(Catalogue, BundledIrisesAndLidsAreDrawnToJoin) {
  if (!std::filesystem::exists(EYE_ASSETS_DIR "/iris_type.xml")) GTEST_SKIP() << "not built";
  ASSERT_EQ(EyeControl::loadEyeFilesFrom(EYE_ASSETS_DIR), 0);
  const auto pixel = [](const VContent& image, int x, int y) {
    return &image.frames.at(0).at((size_t(y) * image.width + x) * 4);
  };
  std::multiset<std::string> classic;
  for (const IrisType& group : EyeControl::iris_types)
    for (const Iris& iris : group.irises) {
      if (group.shape == IrisShape::CLASSIC) classic.insert(iris.style);
      EyePart part;
      ASSERT_EQ(EyeControl::getIris(group.shape, iris.style, part), 0);
      const VContent& image = part.left;
      const int w = image.width, h = image.height;
      EXPECT_TRUE(pixel(image, 0, 0)[3] == 0 && pixel(image, w - 1, h - 1)[3] == 0 &&
                  pixel(image, w / 2, h / 2)[3] == 255)
          << iris.left;
    }
  EXPECT_EQ(classic.size(), size_t(ColorCode::COUNT));
  for (int c = 0; c < int(ColorCode::COUNT); ++c)
    EXPECT_EQ(classic.count(Color::getColorName(ColorCode(c))), 1u) << c;
  for (const EyeLidPart& lid : EyeControl::lid_images) {
    const VContent& image = lid.content;
    if (image.frames.empty()) continue;  // a sequence, loaded when first shown
    const auto rowIs = [&](int y, auto wanted) {
      for (int x = 0; x < 240; ++x)
        if (!wanted(pixel(image, x, y))) return false;
      return true;
    };
    const auto skin = [&](const uint8_t* p) { return std::equal(p, p + 4, lid.color); };
    EXPECT_TRUE(lid.color[3] == 255 && (rowIs(0, skin) || rowIs(image.height - 1, skin)));
    bool clear = false;
    for (int y = 0; y < image.height; ++y)
      clear = clear || !rowIs(y, [](const uint8_t* p) { return p[3] != 0; });
    EXPECT_TRUE(clear) << lid.name;
  }
}

// What the studio writes and lint reports must read back as the same value.
TEST(CatalogueRules, WrittenValuesReadBackAsTheyWere) {
  using namespace catalogue;
  for (float v : {0.1f, 1.35f, -2.5f, 0.001f, 123456.7f, 555.0f})
    EXPECT_EQ(static_cast<float>(std::strtod(formatDecimal(v).c_str(), nullptr)), v) << v;
  for (long v : {0L, -90L, 32767L, -32768L})
    EXPECT_EQ(readBase0(formatInteger(v).c_str(), 16, true).stored, v) << v;
  const Base0Reading octal = readBase0("010", 16, true);
  EXPECT_TRUE(octal.octal && octal.fits && octal.stored == 8);
  const std::vector<EyeAnimationCategory> categories = {EYEANIMATION_HURT, EYEANIMATION_MISC};
  EXPECT_EQ(
      LoadEyeAnimations::getEyeAnimationCategories(splitCategories(joinCategories(categories))),
      categories);
}

}  // namespace
