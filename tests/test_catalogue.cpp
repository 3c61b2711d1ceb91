// Catalogue readers (irises, backgrounds, eyelids, animations), the type-name tables
// and eyelid lookup, on small files written by each test.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "EyeControl.h"
#include "EyeTestSupport.h"
#include "Helper.h"
#include "LoadEyeAnimations.h"

namespace {

using eyetest::LogCapture;
using eyetest::TempDir;

const char* const kNullText = "basic_string: construction from null is not valid";

// Every test may change the settings defaults; put them back afterwards.
class Catalogue : public ::testing::Test {
 protected:
  void TearDown() override { Helper::getSettings() = saved_; }

  Settings saved_ = Helper::getSettings();
  TempDir dir_;
  LogCapture log_;
};

template <typename Fn>
void expectNullTextError(Fn fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), kNullText);
  }
}

// --- type names ---

TEST_F(Catalogue, ShapeNamesRoundTripAndUnknownNamesTakeTheSettingsDefault) {
  for (int v = 0; v < 12; ++v) {
    const auto shape = static_cast<IrisShape>(v);
    EXPECT_EQ(IrisType::getShape(IrisType::getName(shape)), shape) << v;
  }
  EXPECT_EQ(IrisType::getName(IrisShape::GLOW), "GLOW");
  EXPECT_EQ(IrisType::getName(IrisShape::DIGI), "DIGI");
  EXPECT_EQ(IrisType::getName(IrisShape::SYMBOL), "SYMBOL");
  EXPECT_EQ(IrisType::getName(static_cast<IrisShape>(12)), "");

  for (auto type : {EyeContentType::COLOR, EyeContentType::IMAGE})
    EXPECT_EQ(BackgroundType::getShape(BackgroundType::getName(type)), type);
  EXPECT_EQ(BackgroundType::getName(static_cast<EyeContentType>(2)), "");

  // The default is read at the moment of the call.
  Helper::getSettings().defaultIrisShape = 7;
  Helper::getSettings().defaultBackgroundType = 1;
  EXPECT_EQ(IrisType::getShape("classic"), IrisShape::MISC);
  EXPECT_EQ(IrisType::getShape(""), IrisShape::MISC);
  EXPECT_EQ(IrisType::getShape("CLASSIC "), IrisShape::MISC);
  EXPECT_EQ(BackgroundType::getShape("color"), EyeContentType::IMAGE);
  Helper::getSettings().defaultIrisShape = 10;
  Helper::getSettings().defaultBackgroundType = 0;
  EXPECT_EQ(IrisType::getShape("classic"), IrisShape::CASINO);
  EXPECT_EQ(BackgroundType::getShape("image"), EyeContentType::COLOR);
}

TEST_F(Catalogue, StyleSearchReturnsTheFirstExactMatch) {
  IrisType irises;
  EXPECT_EQ(irises.getIris(""), nullptr);
  irises.irises = {{1, 0, "a", "a", "BLUE"}, {2, 0, "b", "b", "BLUE"}, {3, 0, "", "", ""}};
  ASSERT_NE(irises.getIris("BLUE"), nullptr);
  EXPECT_EQ(irises.getIris("BLUE"), &irises.irises[0]);
  EXPECT_EQ(irises.getIris(""), &irises.irises[2]);
  EXPECT_EQ(irises.getIris("blue"), nullptr);
  EXPECT_EQ(irises.getIris("BLU"), nullptr);

  BackgroundType backgrounds;
  EXPECT_EQ(backgrounds.getBackground(""), nullptr);
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

TEST_F(Catalogue, IrisFileFailures) {
  const std::string none = dir_.write("none.xml", "<List><Other name=\"CLASSIC\"/></List>");
  EXPECT_TRUE(EyeControl::getIrisTypes(none.c_str()).empty());
  EXPECT_TRUE(log_.entries().empty());

  const std::string broken = dir_.write("broken.xml", "<List><Iris_Type name=\"A\"></List>");
  const std::string noList = dir_.write("nolist.xml", "<Root><Iris_Type name=\"A\"/></Root>");
  const std::string missing = dir_.str() + "missing.xml";
  for (const auto& p : {broken, noList, missing}) {
    log_.clear();
    EXPECT_TRUE(EyeControl::getIrisTypes(p.c_str()).empty()) << p;
    EXPECT_EQ(log_.errors(), std::vector<std::string>{p + " XML parse failed!"});
  }

  const std::string noName = dir_.write(
      "noname.xml",
      "<List><Iris_Type name=\"CLASSIC\"/><Iris_Type><Iris style=\"A\"/></Iris_Type></List>");
  expectNullTextError([&] { EyeControl::getIrisTypes(noName.c_str()); });
}

// --- background catalogue ---

TEST_F(Catalogue, BackgroundCopyRuleAndDetailMessages) {
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
</List>)");
  const auto types = EyeControl::getBackgroundTypes(path.c_str());
  ASSERT_EQ(types.size(), 2u);
  EXPECT_EQ(log_.errors(), (std::vector<std::string>{path + " XML parse detail:RIGHTONLY error!",
                                                     path + " XML parse detail:NONE error!"}));

  auto paths = [](const BackgroundType& t) {
    std::vector<std::string> out;
    for (const auto& b : t.backgrounds) out.push_back(b.style + ":" + b.left + "|" + b.right);
    return out;
  };
  EXPECT_EQ(types[0].type, EyeContentType::IMAGE);
  EXPECT_EQ(paths(types[0]), (std::vector<std::string>{"BOTH:l.png|l.png", "RIGHTONLY:|r.png",
                                                       "PAIR:l.png|r.png", "NONE:|"}));
  // Same entries for colours, without messages; the copy rule ignores the kind.
  EXPECT_EQ(types[1].type, EyeContentType::COLOR);
  EXPECT_EQ(paths(types[1]),
            (std::vector<std::string>{"RIGHTONLY:|r.png", "WHITE:|", "TINT:t.png|t.png"}));
}

TEST_F(Catalogue, BackgroundUnknownKindFollowsTheSettingsAndFailures) {
  const std::string path = dir_.write(
      "bg.xml",
      "<List><Background_Type name=\"Image\"><Background style=\"X\"/></Background_Type></List>");
  Helper::getSettings().defaultBackgroundType = 0;
  auto types = EyeControl::getBackgroundTypes(path.c_str());
  ASSERT_EQ(types.size(), 1u);
  EXPECT_EQ(types[0].type, EyeContentType::COLOR);
  EXPECT_TRUE(log_.entries().empty());

  Helper::getSettings().defaultBackgroundType = 1;
  types = EyeControl::getBackgroundTypes(path.c_str());
  ASSERT_EQ(types.size(), 1u);
  EXPECT_EQ(types[0].type, EyeContentType::IMAGE);
  EXPECT_EQ(log_.errors(), std::vector<std::string>{path + " XML parse detail:X error!"});

  log_.clear();
  const std::string empty = dir_.write("empty.xml", "<List/>");
  EXPECT_TRUE(EyeControl::getBackgroundTypes(empty.c_str()).empty());
  EXPECT_TRUE(log_.entries().empty());
  const std::string broken = dir_.write("broken.xml", "<List><Background_Type>");
  EXPECT_TRUE(EyeControl::getBackgroundTypes(broken.c_str()).empty());
  EXPECT_EQ(log_.errors(), std::vector<std::string>{broken + " XML parse failed!"});

  const std::string noName = dir_.write(
      "noname.xml", "<List><Background_Type><Background style=\"A\"/></Background_Type></List>");
  expectNullTextError([&] { EyeControl::getBackgroundTypes(noName.c_str()); });
}

// --- eyelid catalogue ---

class LidCatalogue : public Catalogue {
 protected:
  void SetUp() override {
    // 240 x 2 RGBA picture: red opaque row over a transparent one.
    std::vector<uint8_t> px(240 * 2 * 4, 0);
    for (int i = 0; i < 240; ++i) {
      px[i * 4] = 0xF0;
      px[i * 4 + 3] = 255;
    }
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
  EXPECT_EQ(lids[0].name, "zero");
  EXPECT_EQ(lids[1].name, "one");
  EXPECT_EQ(lids[2].name, "two");
  EXPECT_EQ(lids[3].name, "big");
  EXPECT_EQ(lids[3].id, 4464);  // 70000 cut to 16 bits

  // Images: loaded with alpha in display depth, fill colour divided by 16.
  const EyeLidPart& two = lids[2];
  EXPECT_EQ(two.content.path, png);
  EXPECT_EQ(two.content.width, 240);
  EXPECT_EQ(two.content.height, 2);
  EXPECT_EQ(two.content.bytesPerPixel, 4);
  ASSERT_EQ(two.content.frames.size(), 1u);
  EXPECT_EQ(two.content.frames[0][0], 0x0F);
  EXPECT_EQ(two.content.frames[0][3], 255);
  EXPECT_EQ(two.color[0], 15);
  EXPECT_EQ(two.color[1], 0);
  EXPECT_EQ(two.color[2], 255);  // -17 / 16 = -1 toward zero, as a byte
  EXPECT_EQ(two.color[3], 44);   // alpha not divided, low byte of 300
  for (int i = 0; i < 4; ++i) EXPECT_EQ(lids[0].color[i], 0) << i;

  // Sequences: path and sizes only, no frames yet.
  const EyeLidPart& one = lids[1];
  EXPECT_EQ(one.id, 1);
  EXPECT_EQ(one.content.path, "seq/blink.png");
  EXPECT_TRUE(one.content.frames.empty());
  EXPECT_EQ(one.content.ratio, 44);
  EXPECT_EQ(one.content.loop, 3);
  EXPECT_EQ(one.content.frameTotal, 7);
  EXPECT_EQ(one.content.width, 240);
  EXPECT_EQ(one.content.height, 80);
  EXPECT_EQ(lids[3].content.ratio, 1);  // default
  EXPECT_EQ(lids[3].content.loop, 0);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(one.color[i], 0) << i;

  // Lookup is by position in id order.
  EyeControl::lid_images = lids;
  EyeLidPart out;
  ASSERT_EQ(EyeControl::getLid(0, out), 0);
  EXPECT_EQ(out.name, "zero");
  EXPECT_EQ(out.content.frames, lids[0].content.frames);
  ASSERT_EQ(EyeControl::getLid(3, out), 0);
  EXPECT_EQ(out.id, 4464);
  EXPECT_EQ(EyeControl::getLid(4, out), -1);
  EXPECT_EQ(EyeControl::getLid(65535, out), -1);
  EXPECT_EQ(out.name, "big");  // unchanged by the failed calls
}

TEST_F(LidCatalogue, EmptyAndFaultyFiles) {
  const std::string empty = dir_.write("empty.xml", "<List><Images/><Animations/></List>");
  EyeControl::lid_images = EyeControl::get_LidImages(empty.c_str());
  EXPECT_TRUE(EyeControl::lid_images.empty());
  EXPECT_TRUE(log_.entries().empty());
  EyeLidPart out;
  out.name = "kept";
  EXPECT_EQ(EyeControl::getLid(0, out), -1);
  EXPECT_EQ(out.name, "kept");

  const std::string broken = dir_.write("broken.xml", "<List><Images>");
  EXPECT_TRUE(EyeControl::get_LidImages(broken.c_str()).empty());
  EXPECT_EQ(log_.errors(), std::vector<std::string>{broken + " XML parse failed!"});

  const std::string noPath = dir_.write(
      "nopath.xml", "<List><Images><Data name=\"a\" id=\"0\"/></Images><Animations/></List>");
  expectNullTextError([&] { EyeControl::get_LidImages(noPath.c_str()); });
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

  const moveEvent& e = a.right.events[0];
  EXPECT_EQ(e.x, 1);
  EXPECT_EQ(e.y, 2);
  EXPECT_EQ(e.move_ms, 120);  // 2.5 frames round up
  EXPECT_EQ(e.wait_ms, 1000);
  EXPECT_FLOAT_EQ(e.scale_x, 1.5f);
  EXPECT_FLOAT_EQ(e.scale_y, 0.25f);
  EXPECT_EQ(e.lid_top_y, 8);   // octal
  EXPECT_EQ(e.lid_bot_y, 30);  // hexadecimal
  EXPECT_EQ(e.top_lid_index, 2);
  EXPECT_EQ(e.bot_lid_index, 3);
  EXPECT_EQ(e.rotate_angle, -90);
  EXPECT_EQ(e.ellipse_h, 40);
  EXPECT_EQ(e.frame_ms, 40);
  EXPECT_EQ(e.iris_name, nullptr);
  EXPECT_EQ(a.right.events[1].x, 3);  // read although not named Event
  EXPECT_EQ(a.right.events[1].move_ms, 0);
  EXPECT_EQ(a.right.events[1].wait_ms, 80);

  EXPECT_EQ(animations[1]->id, 8);
  EXPECT_TRUE(animations[1]->categories.empty());
  EXPECT_TRUE(animations[1]->left.events.empty());
  EXPECT_TRUE(animations[1]->right.events.empty());
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

TEST_F(Catalogue, AnimationFileFailures) {
  const std::string empty = dir_.write("empty.xml", "<List></List>");
  EXPECT_TRUE(LoadEyeAnimations::get_Animations(empty.c_str()).empty());
  EXPECT_TRUE(log_.entries().empty());

  const std::string missing = dir_.str() + "missing.xml";
  const std::string broken = dir_.write("broken.xml", "<List><Animation Id=\"1\"></List>");
  const std::string noList = dir_.write("nolist.xml", "<Animations/>");
  for (const auto& p : {missing, broken, noList}) {
    log_.clear();
    EXPECT_TRUE(LoadEyeAnimations::get_Animations(p.c_str()).empty()) << p;
    EXPECT_EQ(log_.errors(), std::vector<std::string>{p + " XML parse failed!"});
  }

  for (const char* body :
       {"<Animation Id=\"1\" Categories=\"IDLE\"/>", "<Animation Id=\"1\" Name=\"a\"/>",
        "<Animation Id=\"1\" Name=\"a\" Categories=\"IDLE\"><AnimationSide/></Animation>"}) {
    const std::string p = dir_.write("required.xml", std::string("<List>") + body + "</List>");
    SCOPED_TRACE(body);
    expectNullTextError([&] { LoadEyeAnimations::get_Animations(p.c_str()); });
  }
}

TEST(AnimationCategories, ShortNamesGetThePrefix) {
  using V = std::vector<EyeAnimationCategory>;
  EXPECT_EQ(LoadEyeAnimations::getEyeAnimationCategories({"HAPPINESS", "IDLE"}),
            (V{EYEANIMATION_HAPPINESS, EYEANIMATION_IDLE}));
  EXPECT_EQ(LoadEyeAnimations::getEyeAnimationCategories({"HAPPINESS", " IDLE"}),
            (V{EYEANIMATION_HAPPINESS, EYEANIMATION_NONE}));
  EXPECT_EQ(LoadEyeAnimations::getEyeAnimationCategories({"EYEANIMATION_ANGER"}),
            V{EYEANIMATION_NONE});
  EXPECT_EQ(LoadEyeAnimations::getEyeAnimationCategories(
                Helper::split("MISC,CONFUSION,USER_DEFINED", ',')),
            (V{EYEANIMATION_MISC, EYEANIMATION_CONFUSION, EYEANIMATION_USER_DEFINED}));
  EXPECT_TRUE(LoadEyeAnimations::getEyeAnimationCategories({}).empty());
  // 255 names is the most a list may hold.
  const auto many =
      LoadEyeAnimations::getEyeAnimationCategories(std::vector<std::string>(255, "HURT"));
  ASSERT_EQ(many.size(), 255u);
  EXPECT_EQ(many.back(), EYEANIMATION_HURT);
}

}  // namespace
