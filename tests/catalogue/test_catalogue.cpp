// Catalogue readers (irises, backgrounds, eyelids, animations), the type-name tables
// and eyelid lookup, on small files written by each test.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "EyeControl.h"
#include "EyeTestSupport.h"
#include "Helper.h"
#include "LoadEyeAnimations.h"
#include "catalogue/CatalogueRules.h"

namespace {

using eyetest::LogCapture;
using eyetest::TempDir;

// Every test may change the settings defaults; put them back afterwards.
class Catalogue : public ::testing::Test {
 protected:
  void TearDown() override { Helper::getSettings() = saved_; }

  Settings saved_ = Helper::getSettings();
  TempDir dir_;
  LogCapture log_;
};

// --- failures shared by the four readers ---

TEST_F(Catalogue, ReadersReportUnreadableFilesAndStopOnMissingRequiredText) {
  using Reader = std::function<size_t(const char*)>;
  const struct {
    const char* name;
    Reader read;
    std::vector<std::string> required;  // files lacking text a string is made from
  } readers[] = {
      {"iris",
       [](const char* p) { return EyeControl::getIrisTypes(p).size(); },
       {"<Iris_Type name=\"CLASSIC\"/><Iris_Type><Iris style=\"A\"/></Iris_Type>"}},
      {"background",
       [](const char* p) { return EyeControl::getBackgroundTypes(p).size(); },
       {"<Background_Type><Background style=\"A\"/></Background_Type>"}},
      {"eyelid",
       [](const char* p) { return EyeControl::get_LidImages(p).size(); },
       {"<Images><Data name=\"a\" id=\"0\"/></Images><Animations/>"}},
      {"animation",
       [](const char* p) { return LoadEyeAnimations::get_Animations(p).size(); },
       {"<Animation Id=\"1\" Categories=\"IDLE\"/>", "<Animation Id=\"1\" Name=\"a\"/>",
        "<Animation Id=\"1\" Name=\"a\" Categories=\"IDLE\"><AnimationSide/></Animation>"}},
  };
  const std::string missing = dir_.str() + "missing.xml";
  const std::string broken = dir_.write("broken.xml", "<List><Group name=\"A\"></List>");
  const std::string empty = dir_.write("empty.xml", "<List></List>");
  for (const auto& reader : readers) {
    SCOPED_TRACE(reader.name);
    for (const std::string& path : {missing, broken}) {
      log_.clear();
      EXPECT_EQ(reader.read(path.c_str()), 0u);
      EXPECT_EQ(log_.errors(), std::vector<std::string>{path + " XML parse failed!"});
    }
    log_.clear();
    EXPECT_EQ(reader.read(empty.c_str()), 0u);
    EXPECT_TRUE(log_.entries().empty());
    for (const std::string& body : reader.required) {
      const std::string path = dir_.write("required.xml", "<List>" + body + "</List>");
      try {
        reader.read(path.c_str());
        ADD_FAILURE() << "no exception for " << body;
      } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "basic_string: construction from null is not valid");
      }
    }
  }
  // Without a List element the iris and animation readers report the file as well.
  const std::string noList = dir_.write("nolist.xml", "<Root><Iris_Type name=\"A\"/></Root>");
  log_.clear();
  EXPECT_EQ(readers[0].read(noList.c_str()) + readers[3].read(noList.c_str()), 0u);
  EXPECT_EQ(log_.errors(), std::vector<std::string>(2, noList + " XML parse failed!"));
}

// --- type names ---

TEST_F(Catalogue, TypeNamesRoundTripAndUnknownNamesTakeTheSettingsDefault) {
  for (int v = 0; v < 12; ++v)
    EXPECT_EQ(IrisType::getShape(IrisType::getName(static_cast<IrisShape>(v))),
              static_cast<IrisShape>(v));
  EXPECT_EQ(IrisType::getName(IrisShape::GLOW) + IrisType::getName(IrisShape::SYMBOL),
            "GLOWSYMBOL");
  EXPECT_EQ(IrisType::getName(static_cast<IrisShape>(12)), "");
  for (auto type : {EyeContentType::COLOR, EyeContentType::IMAGE})
    EXPECT_EQ(BackgroundType::getShape(BackgroundType::getName(type)), type);
  EXPECT_EQ(BackgroundType::getName(static_cast<EyeContentType>(2)), "");

  // The default is read at the moment of the call.
  for (uint8_t shape : {7, 10}) {
    Helper::getSettings().defaultIrisShape = shape;
    Helper::getSettings().defaultBackgroundType = shape == 7;
    for (const char* name : {"classic", "", "CLASSIC "})
      EXPECT_EQ(IrisType::getShape(name), static_cast<IrisShape>(shape)) << name;
    EXPECT_EQ(BackgroundType::getShape("color"), static_cast<EyeContentType>(shape == 7));
  }
}

TEST_F(Catalogue, StyleSearchReturnsTheFirstExactMatch) {
  IrisType irises;
  EXPECT_EQ(irises.getIris(""), nullptr);
  irises.irises = {{1, 0, "a", "a", "BLUE"}, {2, 0, "b", "b", "BLUE"}, {3, 0, "", "", ""}};
  EXPECT_EQ(irises.getIris("BLUE"), &irises.irises[0]);
  EXPECT_EQ(irises.getIris(""), &irises.irises[2]);
  EXPECT_EQ(irises.getIris("blue"), nullptr);
  EXPECT_EQ(irises.getIris("BLU"), nullptr);
  BackgroundType backgrounds;
  backgrounds.backgrounds = {{"l1", "r1", "SKY"}, {"l2", "r2", "SKY"}};
  EXPECT_EQ(backgrounds.getBackground("SKY"), &backgrounds.backgrounds[0]);
  EXPECT_EQ(backgrounds.getBackground("SKY2"), nullptr);
}

// --- iris catalogue ---

TEST_F(Catalogue, IrisFileWithDefaultsWrapsAndStrayElements) {
  Helper::getSettings().defaultIrisShape = 9;
  const std::string path = dir_.write("iris.xml", R"(<?xml version="1.0"?>
<List>
  <Iris_Type name="MODERN">
    <!-- comments are not entries -->
    <Iris style="A" left="a_l.png" right="a_r.png" offsetX="5" offsetY="-3"/>
    <Iris style="B" left="b.png" offsetX="200" offsetY="x"/>
    <Other style="C" left="c.png" offsetX="-129"/>
  </Iris_Type>
  <Iris_Type name="classic"/>
  <Group name="MODERN"><Iris style="D" left="d.png" right=""/></Group>
</List>)");
  const auto types = EyeControl::getIrisTypes(path.c_str());
  EXPECT_TRUE(log_.entries().empty());
  ASSERT_EQ(types.size(), 3u);

  EXPECT_EQ(types[0].shape, IrisShape::MODERN);
  ASSERT_EQ(types[0].irises.size(), 3u);
  const Iris& a = types[0].irises[0];
  EXPECT_EQ(a.style + " " + a.left + " " + a.right, "A a_l.png a_r.png");
  EXPECT_EQ(a.offsetX, 5);
  EXPECT_EQ(a.offsetY, -3);
  const Iris& b = types[0].irises[1];
  EXPECT_EQ(b.right, "b.png");  // only left: both eyes the same
  EXPECT_EQ(b.offsetX, -56);    // low byte of 200
  EXPECT_EQ(b.offsetY, 0);      // not a number
  EXPECT_EQ(types[0].irises[2].style, "C");
  EXPECT_EQ(types[0].irises[2].offsetX, 127);

  // Misspelt group: the user's default shape; kept although it has no irises.
  EXPECT_EQ(types[1].shape, IrisShape::SYMBOL);
  EXPECT_TRUE(types[1].irises.empty());

  // Any element after the first group is a group; an empty right is kept as given.
  EXPECT_EQ(types[2].shape, IrisShape::MODERN);
  ASSERT_EQ(types[2].irises.size(), 1u);
  EXPECT_EQ(types[2].irises[0].right, "");
}

TEST_F(Catalogue, IrisGroupsWithoutAnIrisTypeFirstAreNotRead) {
  const std::string none = dir_.write("none.xml", "<List><Other name=\"CLASSIC\"/></List>");
  EXPECT_TRUE(EyeControl::getIrisTypes(none.c_str()).empty());
  EXPECT_TRUE(log_.entries().empty());
}

// --- background catalogue ---

TEST_F(Catalogue, BackgroundCopyRuleDetailMessagesAndFailures) {
  Helper::getSettings().defaultBackgroundType = 1;
  const std::string path = dir_.write("bg.xml", R"(<List>
  <Background_Type name="IMAGE">
    <Background style="BOTH" left="l.png"/>
    <Background style="RIGHTONLY" right="r.png"/>
    <Background style="PAIR" left="l.png" right="r.png"/>
    <Background style="NONE"/>
  </Background_Type>
  <Background_Type name="COLOR">
    <Background style="RIGHTONLY" right="r.png"/>
    <Background style="WHITE"/>
    <Background style="TINT" left="t.png"/>
  </Background_Type>
  <Background_Type name="Image"><Background style="X"/></Background_Type>
</List>)");
  const auto types = EyeControl::getBackgroundTypes(path.c_str());
  ASSERT_EQ(types.size(), 3u);
  // Image entries without a left image are reported, and so is any entry of an
  // unknown kind that falls back to images.
  EXPECT_EQ(log_.errors(), (std::vector<std::string>{path + " XML parse detail:RIGHTONLY error!",
                                                     path + " XML parse detail:NONE error!",
                                                     path + " XML parse detail:X error!"}));
  auto paths = [](const BackgroundType& t) {
    std::vector<std::string> out;
    for (const auto& b : t.backgrounds) out.push_back(b.style + ":" + b.left + "|" + b.right);
    return out;
  };
  EXPECT_EQ(types[0].type, EyeContentType::IMAGE);
  EXPECT_EQ(paths(types[0]), (std::vector<std::string>{"BOTH:l.png|l.png", "RIGHTONLY:|r.png",
                                                       "PAIR:l.png|r.png", "NONE:|"}));
  // The copy rule ignores the kind.
  EXPECT_EQ(types[1].type, EyeContentType::COLOR);
  EXPECT_EQ(paths(types[1]),
            (std::vector<std::string>{"RIGHTONLY:|r.png", "WHITE:|", "TINT:t.png|t.png"}));
  EXPECT_EQ(types[2].type, EyeContentType::IMAGE);
  Helper::getSettings().defaultBackgroundType = 0;
  log_.clear();
  EXPECT_EQ(EyeControl::getBackgroundTypes(path.c_str())[2].type, EyeContentType::COLOR);
  EXPECT_EQ(log_.errors().size(), 2u);
}

// --- eyelid catalogue ---

class LidCatalogue : public Catalogue {
 protected:
  void SetUp() override {
    // 240 x 2 RGBA picture: red opaque row over a transparent one.
    std::vector<uint8_t> px(240 * 2 * 4, 0);
    for (int i = 0; i < 240; ++i) px[i * 4] = 0xF0, px[i * 4 + 3] = 255;
    ASSERT_TRUE(VContent::writePng(dir_.str() + "lid.png", 240, 2, px.data(), true));
    saved_lids_ = std::move(EyeControl::lid_images);
    EyeControl::lid_images.clear();
  }
  void TearDown() override {
    EyeControl::lid_images = std::move(saved_lids_);
    Catalogue::TearDown();
  }
  std::vector<EyeLidPart> saved_lids_;
};

std::vector<int> colour(const EyeLidPart& lid) {
  return {lid.color[0], lid.color[1], lid.color[2], lid.color[3]};
}

TEST_F(LidCatalogue, EntriesAreReadConvertedAndSortedById) {
  const std::string png = dir_.str() + "lid.png";
  const std::string path = dir_.write("eyelid.xml", R"(<List>
  <Images>
    <Data name="two" id="2" path=")" + png + R"(" r="255" g="15" b="-17" a="300"/>
    <Data name="zero" id="0" path=")" + png + R"("/>
  </Images>
  <Animations>
    <Data name="one" id="1" path="seq/blink.png" ratio="300" loop="3" ft="7" w="240" h="80"/>
    <Other name="big" id="70000" path="seq/x.png"/>
  </Animations>
</List>)");
  const auto lids = EyeControl::get_LidImages(path.c_str());
  EXPECT_TRUE(log_.entries().empty());
  ASSERT_EQ(lids.size(), 4u);
  EXPECT_EQ(lids[0].name + lids[1].name + lids[2].name + lids[3].name, "zeroonetwobig");
  EXPECT_EQ(lids[3].id, 4464);  // 70000 cut to 16 bits

  // Images: loaded with alpha in display depth; fill colour divided by 16 toward
  // zero (-17 gives -1), alpha not divided, each cut to a byte.
  const VContent& two = lids[2].content;
  EXPECT_EQ(two.path, png);
  EXPECT_EQ(two.width, 240);
  EXPECT_EQ(two.height, 2);
  EXPECT_EQ(two.bytesPerPixel, 4);
  ASSERT_EQ(two.frames.size(), 1u);
  EXPECT_EQ(two.frames[0][0], 0x0F);
  EXPECT_EQ(two.frames[0][3], 255);
  EXPECT_EQ(colour(lids[2]), (std::vector<int>{15, 0, 255, 44}));
  EXPECT_EQ(colour(lids[0]), (std::vector<int>{0, 0, 0, 0}));

  // Sequences: path and sizes only, no frames yet; ratio defaults to 1.
  const VContent& one = lids[1].content;
  EXPECT_EQ(one.path, "seq/blink.png");
  EXPECT_TRUE(one.frames.empty());
  EXPECT_EQ((std::vector<int>{one.ratio, one.loop, one.frameTotal, one.width, one.height}),
            (std::vector<int>{44, 3, 7, 240, 80}));
  EXPECT_EQ(lids[3].content.ratio, 1);
  EXPECT_EQ(lids[3].content.loop, 0);
  EXPECT_EQ(colour(lids[1]), (std::vector<int>{0, 0, 0, 0}));

  // Lookup is by position in id order; a failed one leaves the record alone.
  EyeControl::lid_images = lids;
  EyeLidPart out;
  ASSERT_EQ(EyeControl::getLid(0, out), 0);
  EXPECT_EQ(out.name, "zero");
  EXPECT_EQ(out.content.frames, lids[0].content.frames);
  ASSERT_EQ(EyeControl::getLid(3, out), 0);
  EXPECT_EQ(out.id, 4464);
  EXPECT_EQ(EyeControl::getLid(4, out), -1);
  EXPECT_EQ(EyeControl::getLid(65535, out), -1);
  EXPECT_EQ(out.name, "big");
}

// --- animation catalogue ---

std::string event(const std::string& x, const std::string& y = "120",
                  const std::string& timeMs = "40", const std::string& wait = "0",
                  const std::string& tag = "Event") {
  return "<" + tag + " X=\"" + x + "\" Y=\"" + y + "\" TimeMs=\"" + timeMs + "\" Wait=\"" + wait +
         "\" ScaleX=\"1.5\" ScaleY=\"0.25\" LidTopY=\"010\" LidBotY=\"0x1E\" TopLidIndex=\"2\""
         " BotLidIndex=\"3\" RotateAngle=\"-90\" Ellipse_H=\"40\"/>";
}

TEST_F(Catalogue, AnimationFileFillsBothTracksInOrder) {
  const std::string path = dir_.write(
      "anim.xml",
      "<List>\n<Animation Id=\"0x10\" Name=\"look\""
      " Categories=\"HAPPINESS,IDLE\">\n<AnimationSide Side=\"Right\">" +
          event("1", "2", "100", "1000") + "<!-- skipped -->" + event("3", "4", "0", "60", "Step") +
          "</AnimationSide>\n"
          "<AnimationSide Side=\"Left\">" +
          event("5") +
          "</AnimationSide>\n"
          "<Side Side=\"Left\">" +
          event("6") +
          "</Side>\n"
          "</Animation>\n"
          "<Animation Id=\"010\" Name=\"bare\" Categories=\"\"/>\n"
          "<Thing Id=\"70000\" Name=\"odd\" Categories=\"ANGER\"><AnimationSide "
          "Side=\"Left\"/></Thing>\n"
          "</List>");
  const auto animations = LoadEyeAnimations::get_Animations(path.c_str());
  EXPECT_TRUE(log_.entries().empty());
  ASSERT_EQ(animations.size(), 3u);

  const EyeAnimation& a = *animations[0];
  EXPECT_EQ(a.id, 16);
  EXPECT_EQ(a.name, "look");
  EXPECT_EQ(a.categories,
            (std::vector<EyeAnimationCategory>{EYEANIMATION_HAPPINESS, EYEANIMATION_IDLE}));
  EXPECT_EQ(a.state.load(), AnimationState::IDLE);
  ASSERT_EQ(a.right.events.size(), 2u);
  ASSERT_EQ(a.left.events.size(), 2u);  // a second Left side appends
  EXPECT_EQ(a.left.events[0].x, 5);
  EXPECT_EQ(a.left.events[1].x, 6);

  // X, Y, time rounded to whole frames (2.5 up), wait, lid lines in octal and
  // hexadecimal, lid indexes, rotation, ellipse height, frame period.
  const moveEvent& e = a.right.events[0];
  EXPECT_EQ(
      (std::vector<int>{e.x, e.y, e.move_ms, e.wait_ms, e.lid_top_y, e.lid_bot_y, e.top_lid_index,
                        e.bot_lid_index, e.rotate_angle, e.ellipse_h, e.frame_ms}),
      (std::vector<int>{1, 2, 120, 1000, 8, 30, 2, 3, -90, 40, 40}));
  EXPECT_FLOAT_EQ(e.scale_x, 1.5f);
  EXPECT_FLOAT_EQ(e.scale_y, 0.25f);
  EXPECT_EQ(e.iris_name, nullptr);
  EXPECT_EQ(a.right.events[1].x, 3);  // read although not named Event
  EXPECT_EQ(a.right.events[1].move_ms, 0);
  EXPECT_EQ(a.right.events[1].wait_ms, 80);

  EXPECT_EQ(animations[1]->id, 8);
  EXPECT_TRUE(animations[1]->categories.empty());
  EXPECT_TRUE(animations[1]->left.events.empty() && animations[1]->right.events.empty());
  EXPECT_EQ(animations[2]->id, 4464);
  EXPECT_EQ(animations[2]->name, "odd");
  EXPECT_EQ(animations[2]->categories, std::vector<EyeAnimationCategory>{EYEANIMATION_ANGER});
}

TEST_F(Catalogue, AnimationSideNamesAndMissingValues) {
  const std::string path =
      dir_.write("anim.xml",
                 "<List><Animation Id=\"1\" Name=\"n\" Categories=\"FEAR\">"
                 "<AnimationSide Side=\"left\">" +
                     event("1") + event("2") +
                     "</AnimationSide>"
                     "<AnimationSide Side=\"Right\"><Event X=\"7\"/></AnimationSide>"
                     "<AnimationSide Side=\"RIGHT\"/></Animation>"
                     "<Animation Name=\"noid\" Categories=\"IDLE\"/></List>");
  const auto animations = LoadEyeAnimations::get_Animations(path.c_str());
  EXPECT_EQ(log_.errors(), std::vector<std::string>(2, "Loading eyeside xml parse error!"));
  ASSERT_EQ(animations.size(), 2u);
  EXPECT_TRUE(animations[0]->left.events.empty());
  ASSERT_EQ(animations[0]->right.events.size(), 1u);
  const moveEvent& e = animations[0]->right.events[0];  // absent numbers read as 0
  EXPECT_EQ(e.x, 7);
  EXPECT_EQ(e.y, 0);
  EXPECT_EQ(e.move_ms, 0);
  EXPECT_EQ(e.scale_x, 0.0f);
  EXPECT_EQ(e.ellipse_h, 0);
  EXPECT_EQ(animations[1]->id, 0);
}

TEST(AnimationCategories, ShortNamesGetThePrefixAndMustMatchExactly) {
  using V = std::vector<EyeAnimationCategory>;
  // Not alphabetical: MISC before CONFUSION.
  EXPECT_EQ(
      LoadEyeAnimations::getEyeAnimationCategories(Helper::split(
          "HAPPINESS, IDLE,EYEANIMATION_ANGER,MISC,CONFUSION,USER_DEFINED,anger,ANGER ", ',')),
      (V{EYEANIMATION_HAPPINESS, EYEANIMATION_NONE, EYEANIMATION_NONE, EYEANIMATION_MISC,
         EYEANIMATION_CONFUSION, EYEANIMATION_USER_DEFINED, EYEANIMATION_NONE, EYEANIMATION_NONE}));
  EXPECT_EQ(EYEANIMATION_CONFUSION, 3);
  EXPECT_EQ(EYEANIMATION_USER_DEFINED, 11);
  EXPECT_TRUE(LoadEyeAnimations::getEyeAnimationCategories({}).empty());
  // 255 names is the most a list may hold.
  const auto many =
      LoadEyeAnimations::getEyeAnimationCategories(std::vector<std::string>(255, "HURT"));
  ASSERT_EQ(many.size(), 255u);
  EXPECT_EQ(many.back(), EYEANIMATION_HURT);
}

// What a writer emits through the rules, the readers give back unchanged.
TEST(CatalogueRules, WrittenValuesReadBackAsTheyWere) {
  using namespace catalogue;
  for (float v : {0.1f, 1.0f, 1.35f, -2.5f, 0.001f, 123456.7f, 555.0f})
    EXPECT_EQ(static_cast<float>(std::strtod(formatDecimal(v).c_str(), nullptr)), v) << v;
  for (long v : {0L, 8L, -90L, 32767L, -32768L})
    EXPECT_EQ(readBase0(formatInteger(v).c_str(), 16, true).stored, v) << v;
  const Base0Reading octal = readBase0("010", 16, true);
  EXPECT_TRUE(octal.octal && octal.fits);
  EXPECT_EQ(octal.stored, 8);
  const std::vector<EyeAnimationCategory> categories = {EYEANIMATION_HURT, EYEANIMATION_MISC};
  EXPECT_EQ(
      LoadEyeAnimations::getEyeAnimationCategories(splitCategories(joinCategories(categories))),
      categories);
}

}  // namespace
