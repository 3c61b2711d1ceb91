// The facade: catalogue loading, start-up, image lookup and appearance commands,
// checked through the frames the panels receive.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeTestSupport.h"
#include "Helper.h"
#include "LcdControl.h"
#include "WorkerSupport.h"

namespace {

namespace fs = std::filesystem;
using Rgb = std::array<uint8_t, 3>;

const char* const kIrisXml = R"(<List>
<Iris_Type name="CLASSIC">
  <Iris style="BLUE" left="iris/l.png" right="iris/r.png" offsetX="3" offsetY="-2"/>
  <Iris style="RED" left="iris/small.png"/>
</Iris_Type>
<Iris_Type name="MODERN"><Iris style="STAR" left="iris/small.png" right="iris/l.png"/></Iris_Type>
<Iris_Type name="CLASSIC"><Iris style="LATE" left="iris/small.png"/></Iris_Type>
</List>)";
const char* const kBackgroundXml = R"(<List>
<Background_Type name="COLOR"><Background style="WHITE"/></Background_Type>
<Background_Type name="IMAGE"><Background style="SKY" left="bg/l.png" right="bg/r.png"/></Background_Type>
</List>)";
const char* const kLidXml = R"(<List>
<Images>
  <Data name="half" id="1" path="lids/b.png" r="255" g="255" b="0" a="255"/>
  <Data name="open" id="0" path="lids/a.png" r="255" g="255" b="0" a="255"/>
</Images>
<Animations/>
</List>)";
const char* const kAnimationXml = R"(<List>
<Animation Id="1" Name="look" Categories="IDLE"><AnimationSide Side="Left">
  <Event X="100" Y="140" TimeMs="40" Wait="0" ScaleX="1" ScaleY="1" LidTopY="0" LidBotY="240"
         TopLidIndex="0" BotLidIndex="0" RotateAngle="0" Ellipse_H="0"/>
</AnimationSide></Animation>
</List>)";

void writeFile(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

void writeSolidPng(const fs::path& file, int w, int h, Rgb rgb, bool alpha) {
  fs::create_directories(file.parent_path());
  const int bpp = alpha ? 4 : 3;
  std::vector<uint8_t> pixels(static_cast<size_t>(w * h * bpp), 255);
  for (int i = 0; i < w * h; ++i)
    for (int c = 0; c < 3; ++c) pixels[static_cast<size_t>(i * bpp + c)] = rgb[c];
  VContent::writePng(file.string(), w, h, pixels.data(), alpha);
}

// A small set: 20 x 20 irises (red left, green right), 10 x 10 magenta, blue and
// cyan backgrounds, two black lids (10 and 12 rows) with a yellow fill.
void writeCatalogue(const fs::path& dir) {
  writeFile(dir / "iris_type.xml", kIrisXml);
  writeFile(dir / "background_type.xml", kBackgroundXml);
  writeFile(dir / "eyelid.xml", kLidXml);
  writeFile(dir / "eyeanimations.xml", kAnimationXml);
  writeSolidPng(dir / "iris/l.png", 20, 20, {255, 0, 0}, true);
  writeSolidPng(dir / "iris/r.png", 20, 20, {0, 255, 0}, true);
  writeSolidPng(dir / "iris/small.png", 10, 10, {255, 0, 255}, true);
  writeSolidPng(dir / "bg/l.png", 240, 240, {0, 0, 255}, false);
  writeSolidPng(dir / "bg/r.png", 240, 240, {0, 255, 255}, false);
  writeSolidPng(dir / "lids/a.png", 240, 10, {0, 0, 0}, true);
  writeSolidPng(dir / "lids/b.png", 240, 12, {0, 0, 0}, true);
}

Rgb pixel(uint8_t panel, int x, int y) {
  const auto frame = LcdControl::lastFrame(panel);
  if (frame.size() != LcdControl::kFrameBytes) return {1, 2, 3};
  const auto rgb = LcdControl::unpack12Bit(frame.data());
  const size_t i = (static_cast<size_t>(y) * 240 + static_cast<size_t>(x)) * 3;
  return {rgb[i], rgb[i + 1], rgb[i + 2]};
}

std::vector<uint8_t> repeat(Rgb rgb, size_t pixels) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < pixels; ++i) out.insert(out.end(), rgb.begin(), rgb.end());
  return out;
}

// Not a literal, so it cannot be taken for a null image.
constexpr unsigned short kFirstLid = 0;
constexpr Rgb kWhite{255, 255, 255}, kRed{255, 0, 0}, kGreen{0, 255, 0};

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    eyetest::resetEyeControl();
    writeCatalogue(dir.path());
  }
  void TearDown() override { eyetest::resetEyeControl(); }
  int8_t start() {
    return EyeControl::initFrom(dir.path().string(), IrisShape::CLASSIC, "BLUE",
                                EyeContentType::COLOR, "WHITE");
  }
  eyetest::TempDir dir;
  eyetest::LogCapture log;
};

// --- catalogue loading ---

TEST_F(ControlTest, LoadingStopsAtTheFirstMissingFileAndKeepsWhatWasRead) {
  eyetest::TempDir empty;
  EXPECT_EQ(EyeControl::loadEyeFilesFrom(empty.str()), -1);
  EXPECT_EQ(log.errors(),
            std::vector<std::string>{"File:" + empty.str() + "eyeanimations.xml NOT EXIST !"});

  // Only the last file missing: the three before it are replaced, the iris one kept.
  EyeControl::iris_types.assign(5, IrisType{});
  fs::remove(dir.path() / "iris_type.xml");
  EXPECT_EQ(EyeControl::loadEyeFilesFrom(dir.path().string()), -1);  // no trailing '/'
  EXPECT_EQ(log.count("File:" + dir.str() + "iris_type.xml NOT EXIST !"), 1u);
  EXPECT_EQ(EyeControl::eye_animations.size(), 1u);
  EXPECT_EQ(EyeControl::background_types.size(), 2u);
  ASSERT_EQ(EyeControl::lid_images.size(), 2u);
  EXPECT_EQ(EyeControl::lid_images[0].content.width, 240);  // relative path resolved
  EXPECT_EQ(EyeControl::iris_types.size(), 5u);

  // The eyelid file missing leaves the eyelids and irises alone.
  writeFile(dir.path() / "iris_type.xml", kIrisXml);
  fs::remove(dir.path() / "eyelid.xml");
  EyeControl::eye_animations.clear();
  EyeControl::background_types.clear();
  EyeControl::lid_images.resize(1);
  EXPECT_EQ(EyeControl::loadEyeFilesFrom(dir.str()), -1);
  EXPECT_EQ(EyeControl::eye_animations.size(), 1u);
  EXPECT_EQ(EyeControl::background_types.size(), 2u);
  EXPECT_EQ(EyeControl::lid_images.size(), 1u);
  EXPECT_EQ(EyeControl::iris_types.size(), 5u);

  // All there: replaced, not appended; an unparsable one leaves its catalogue empty.
  writeFile(dir.path() / "eyelid.xml", kLidXml);
  writeFile(dir.path() / "background_type.xml", "<List><Background_Type name=");
  log.clear();
  EXPECT_EQ(EyeControl::loadEyeFilesFrom(dir.str()), 0);
  EXPECT_EQ(EyeControl::eye_animations.size(), 1u);
  EXPECT_TRUE(EyeControl::background_types.empty());
  EXPECT_EQ(log.count("XML parse failed!"), 1u);
  EXPECT_EQ(EyeControl::lid_images.size(), 2u);
  EXPECT_EQ(EyeControl::iris_types.size(), 3u);
}

// --- start-up ---

TEST_F(ControlTest, InitDrawsTheDefaultsOnceAndOnlyOnce) {
  EXPECT_EQ(EyeControl::getVersion(), 1.0f);
  ASSERT_EQ(start(), 0);
  EXPECT_TRUE(EyeControl::isActive());
  EXPECT_FALSE(EyeControl::isAnimating());
  EXPECT_TRUE(log.errors().empty());

  // Offsets (3, -2) mirror: the 20 x 20 left iris centred at (97, 138), the right one
  // at (143, 138); lids attached but off.
  const struct {
    uint8_t panel;
    int x, y;
    Rgb colour;
  } samples[] = {{0, 87, 128, kRed},
                 {0, 106, 147, kRed},
                 {0, 107, 147, kWhite},
                 {1, 133, 128, kGreen},
                 {1, 132, 128, kWhite}};
  for (const auto& s : samples) EXPECT_EQ(pixel(s.panel, s.x, s.y), s.colour) << s.x << "," << s.y;

  const Eyes& r = EyeControl::Right_Eye;
  EXPECT_EQ(r.getIrisX(), 140);
  EXPECT_EQ(r.getIrisY(), 140);
  EXPECT_EQ(r.topLid, &EyeControl::lid_images[0].content);
  EXPECT_EQ(r.bottomLidColor, EyeControl::lid_images[0].color);
  EXPECT_EQ(r.lidImages, &EyeControl::lid_images);

  EXPECT_EQ(start(), 1);
  EXPECT_EQ(EyeControl::initFrom("/nonexistent", IrisShape::CLASSIC, "", EyeContentType::COLOR, ""),
            1);
  EXPECT_EQ(LcdControl::framesWritten(0), 1u);
  EXPECT_EQ(LcdControl::framesWritten(1), 1u);
}

TEST_F(ControlTest, InitFailuresLeaveTheLibraryInactiveAndMissingDefaultsDoNot) {
  fs::remove(dir.path() / "eyelid.xml");
  EXPECT_EQ(start(), -1);
  EXPECT_FALSE(EyeControl::isActive());
  writeFile(dir.path() / "eyelid.xml", kLidXml);

  const char* previous = std::getenv("EYE_LCD");
  const std::string saved = previous != nullptr ? previous : "memory";
  setenv("EYE_LCD", "png:/proc/nonexistent/x", 1);
  const int8_t failed = start();
  setenv("EYE_LCD", saved.c_str(), 1);
  EXPECT_EQ(failed, -2);
  EXPECT_FALSE(EyeControl::isActive());
  EXPECT_EQ(EyeControl::iris_types.size(), 3u);
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);

  // Without its defaults init goes on: the eyes show whatever the records hold, no
  // iris and a background from before.
  EyeControl::FillBackgroundColor(EyeControl::default_background, {0, 255, 0}, true);
  EXPECT_EQ(
      EyeControl::initFrom(dir.str(), IrisShape::CLASSIC, "PINK", EyeContentType::IMAGE, "NONE"),
      0);
  EXPECT_EQ(log.count("Eye Control default iris set failed!"), 1u);
  EXPECT_EQ(log.count("Eye Control default background set failed!"), 1u);
  EXPECT_TRUE(EyeControl::isActive());
  EXPECT_EQ(EyeControl::Left_Eye.iris, &EyeControl::default_iris.left);
  EXPECT_EQ(LcdControl::framesWritten(1), 1u);
  EXPECT_EQ(pixel(0, 100, 140), kGreen);
  EXPECT_EQ(pixel(1, 140, 140), kGreen);
}

TEST_F(ControlTest, DefaultsReloadFromTheSettings) {
  ASSERT_EQ(start(), 0);
  LcdControl::resetCounters();
  Settings& settings = Helper::getSettings();
  settings.defaultIrisStyle = "MISSING";
  EXPECT_EQ(EyeControl::loadDefaultIris(), -1);
  settings.defaultBackgroundType = static_cast<uint8_t>(EyeContentType::IMAGE);
  settings.defaultBackgroundStyle = "WHITE";
  EXPECT_EQ(EyeControl::loadDefaultBackground(), -1);
  EXPECT_EQ(LcdControl::framesWritten(0) + LcdControl::framesWritten(1), 0u);

  EyeControl::Left_Eye.offsetX = 0;
  settings.defaultIrisStyle = "BLUE";
  settings.defaultBackgroundStyle = "SKY";
  EXPECT_EQ(EyeControl::loadDefaultIris(), 0);
  EXPECT_EQ(EyeControl::Left_Eye.offsetX, 3);
  EXPECT_EQ(EyeControl::loadDefaultBackground(), 0);
  EXPECT_EQ(LcdControl::framesWritten(0), 2u);
  EXPECT_EQ(LcdControl::framesWritten(1), 2u);
  EXPECT_EQ(pixel(0, 0, 0), (Rgb{0, 0, 255}));
  EXPECT_EQ(pixel(1, 0, 0), (Rgb{0, 255, 255}));
  EXPECT_EQ(log.messages(spdlog::level::debug),
            (std::vector<std::string>{"Default iris loaded", "Default background loaded"}));
}

// --- image lookup ---

TEST_F(ControlTest, LookupTakesTheFirstGroupOfAKindAndTheFirstExactStyle) {
  ASSERT_EQ(EyeControl::loadEyeFilesFrom(dir.str()), 0);
  EyePart part;
  part.offsetX = 9;
  EXPECT_EQ(EyeControl::getIris(IrisShape::GLOW, "BLUE", part), -2);
  EXPECT_EQ(EyeControl::getIris(IrisShape::CLASSIC, "blue", part), -1);
  EXPECT_EQ(EyeControl::getIris(IrisShape::CLASSIC, "LATE", part), -1);
  EXPECT_EQ(part.offsetX, 9);
  EXPECT_TRUE(part.left.frames.empty());

  ASSERT_EQ(EyeControl::getIris(IrisShape::CLASSIC, "BLUE", part), 0);
  EXPECT_EQ(part.offsetX, 3);
  EXPECT_EQ(part.offsetY, -2);
  EXPECT_EQ(part.left.width, 20);
  EXPECT_EQ(part.left.bytesPerPixel, 4);
  EXPECT_EQ(part.left.frames[0][0], 15);  // red, 12-bit
  ASSERT_EQ(EyeControl::getIris(IrisShape::CLASSIC, "RED", part), 0);
  EXPECT_EQ(part.offsetX, 0);
  EXPECT_EQ(part.right.width, 10);

  EXPECT_STREQ(EyeControl::getIrisPath(IrisShape::CLASSIC, "BLUE", true), "iris/l.png");
  EXPECT_STREQ(EyeControl::getIrisPath(IrisShape::CLASSIC, "BLUE", false), "iris/r.png");
  EXPECT_EQ(EyeControl::getIrisPath(IrisShape::CLASSIC, "LATE", true), nullptr);
  EXPECT_EQ(EyeControl::getIrisPath(IrisShape::MATCH, "BLUE", true), nullptr);

  EXPECT_EQ(EyeControl::getBackground(EyeContentType::IMAGE, "WHITE", part), -1);
  ASSERT_EQ(EyeControl::getBackground(EyeContentType::IMAGE, "SKY", part), 0);
  EXPECT_EQ(part.left.bytesPerPixel, 3);
  EXPECT_EQ(part.right.frames[0][1], 15);

  ASSERT_EQ(EyeControl::getBackground(EyeContentType::COLOR, "RED", part), 0);
  EXPECT_EQ(part.right.frames[0][0], 15);
  EXPECT_EQ(part.right.frames[0][1], 0);

  EyeControl::background_types.erase(EyeControl::background_types.begin());  // no COLOR group
  EyePart untouched;
  EXPECT_EQ(EyeControl::getBackground(EyeContentType::COLOR, "WHITE", untouched), -2);
  EXPECT_TRUE(untouched.left.frames.empty());
}

TEST(FillBackgroundColor, PaintsFirstFramesWithTheLeftImagesPixelCount) {
  const Color pink{255, 192, 203};
  EyePart fresh;
  EyeControl::FillBackgroundColor(fresh, pink, true);
  ASSERT_EQ(fresh.right.frames.size(), 1u);
  EXPECT_EQ(fresh.left.width, 240);
  EXPECT_EQ(fresh.right.frames[0][57599 * 3 + 1], 12);

  // Filled left (first frame repainted), empty right (new frame), unreduced colour.
  EyePart half;
  half.left.AddFrame("", 4, 2, false, false, 1, 2, 3, 255);
  half.left.AddFrame("", 4, 2, false, false, 1, 2, 3, 255);
  EyeControl::FillBackgroundColor(half, pink, false);
  EXPECT_EQ(half.left.frames[0], repeat({255, 192, 203}, 8));
  EXPECT_EQ(half.left.frames[1][0], 1);
  EXPECT_EQ(half.right.frames.size(), 1u);

  // The right image takes the left one's count: a larger one is painted only in part.
  EyePart uneven;
  uneven.left.AddFrame("", 2, 2, false, false, 0, 0, 0, 255);
  uneven.right.AddFrame("", 3, 2, false, false, 0, 0, 0, 255);
  EyeControl::FillBackgroundColor(uneven, pink, true);
  EXPECT_EQ(uneven.right.frames[0][11], 12);
  EXPECT_EQ(uneven.right.frames[0][12], 0);
}

// --- appearance commands ---

class CommandTest : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    ASSERT_EQ(start(), 0);
    LcdControl::resetCounters();
  }
  static uint64_t frames(uint8_t panel) { return LcdControl::framesWritten(panel); }
  // Back to the state init leaves, without drawing.
  static void rewire() {
    ASSERT_EQ(EyeControl::getIris(IrisShape::CLASSIC, "BLUE", EyeControl::default_iris), 0);
    EyeControl::default_background = EyePart{};
    EyeControl::FillBackgroundColor(EyeControl::default_background, {255, 255, 255}, true);
    eyetest::wireEye(EyeControl::Left_Eye, 100, 140);
    eyetest::wireEye(EyeControl::Right_Eye, 140, 140);
    EyeControl::Left_Eye.offsetX = EyeControl::Right_Eye.offsetX = 3;
    LcdControl::resetCounters();
  }
};

TEST_F(CommandTest, EverySideTakingCommandAddressesTheNamedEyesOnly) {
  VContent image, lid, backgroundImage;
  backgroundImage.AddFrame("", 240, 240, false, false, 0, 0, 0, 255);
  EyePart part, backgroundPart;
  part.left.AddFrame("", 7, 7, true, true, 0, 0, 0, 255);
  part.right.AddFrame("", 9, 9, true, true, 0, 0, 0, 255);
  backgroundPart.left.AddFrame("", 240, 240, false, false, 1, 0, 0, 255);
  backgroundPart.right.AddFrame("", 240, 240, false, false, 2, 0, 0, 255);
  const VContent* lid1 = &EyeControl::lid_images[1].content;
  struct Case {
    const char* name;
    std::function<int(EyeSide)> run;
    std::function<bool(const Eyes&)> changed;
  };
  const std::vector<Case> cases = {
      {"iris image", [&](EyeSide s) { return EyeControl::setIris(&image, s); },
       [&](const Eyes& e) { return e.iris == &image; }},
      {"iris part", [&](EyeSide s) { return EyeControl::setIris(part, s); },
       [&](const Eyes& e) { return e.iris->width == (e.isLeft ? 7 : 9); }},
      {"iris by colour",
       [&](EyeSide s) { return EyeControl::setIris(IrisShape::CLASSIC, ColorCode::RED, s); },
       [&](const Eyes& e) { return e.offsetX == 0; }},
      {"background image",
       [&](EyeSide s) { return EyeControl::setBackground(&backgroundImage, s); },
       [&](const Eyes& e) { return e.background == &backgroundImage; }},
      {"background part", [&](EyeSide s) { return EyeControl::setBackground(backgroundPart, s); },
       [&](const Eyes& e) { return e.background->frames[0][0] == (e.isLeft ? 1 : 2); }},
      {"top lid image", [&](EyeSide s) { return EyeControl::setLid(&lid, true, s); },
       [&](const Eyes& e) { return e.topLid == &lid && e.bottomLid != &lid; }},
      {"bottom lid image", [&](EyeSide s) { return EyeControl::setLid(&lid, false, s); },
       [&](const Eyes& e) { return e.bottomLid == &lid && e.topLid != &lid; }},
      {"lid indexes", [&](EyeSide s) { return EyeControl::setLid(1, kFirstLid, s); },
       [&](const Eyes& e) { return e.topLid == lid1 && e.topLidIndex == 1; }},
      {"position", [&](EyeSide s) { return EyeControl::setPosition(s, 10, -20, 1, 1, 0, 240); },
       [&](const Eyes& e) { return e.getIrisX() == 10 && e.getIrisY() == -20; }},
  };
  for (const Case& c : cases) {
    for (uint8_t value : {0, 1, 2, 3}) {
      rewire();
      const auto side = static_cast<EyeSide>(value);
      const bool left = value < 2, right = value == 0 || value == 2;
      SCOPED_TRACE(std::string(c.name) + " side " + std::to_string(value));
      EXPECT_EQ(c.run(side), 0);
      EXPECT_EQ(frames(0), left ? 1u : 0u);
      EXPECT_EQ(frames(1), right ? 1u : 0u);
      EXPECT_EQ(c.changed(EyeControl::Left_Eye), left);
      EXPECT_EQ(c.changed(EyeControl::Right_Eye), right);
    }
  }
}

TEST_F(CommandTest, RefusedCommandsDrawNothing) {
  EXPECT_EQ(EyeControl::setIris(static_cast<VContent*>(nullptr), EyeSide::BOTH), -1);
  EXPECT_EQ(EyeControl::setBackground(static_cast<VContent*>(nullptr), EyeSide::BOTH), -1);
  EXPECT_EQ(EyeControl::setLid(nullptr, true, EyeSide::LEFT), -1);
  EXPECT_EQ(EyeControl::setLid(2, kFirstLid, EyeSide::BOTH), -1);
  EXPECT_EQ(EyeControl::setLid(kFirstLid, 2, EyeSide::BOTH), -1);
  EXPECT_EQ(EyeControl::setPosition(EyeSide::BOTH, 251, 0, 1, 1, 0, 240), -1);
  EXPECT_EQ(EyeControl::setPosition(EyeSide::BOTH, 0, -251, 1, 1, 0, 240), -1);
  EXPECT_EQ(EyeControl::setPosition(EyeSide::BOTH, -32768, 0, 1, 1, 0, 240), -1);
  EXPECT_EQ(EyeControl::setIris(IrisShape::CLASSIC, ColorCode::PINK, EyeSide::BOTH), -1);
  EXPECT_EQ(EyeControl::setIris(IrisShape::SPACE, ColorCode::BLUE, EyeSide::BOTH), -2);
  EXPECT_EQ(EyeControl::setBackground(EyeContentType::IMAGE, ColorCode::WHITE), -1);
  EXPECT_EQ(frames(0) + frames(1), 0u);
  EXPECT_EQ(EyeControl::Left_Eye.topLid, &EyeControl::lid_images[0].content);
  EXPECT_EQ(Helper::getSettings().defaultIrisStyle, Settings{}.defaultIrisStyle);

  short x = 7, y = 8;
  EXPECT_EQ(EyeControl::getIrisPosition(EyeSide::BOTH, x, y), -1);
  EXPECT_EQ(x, 7);
  EXPECT_EQ(y, 8);

  EXPECT_EQ(EyeControl::setPosition(EyeSide::LEFT, 250, -250, 2, 0.5f, 30, 200), 0);
  EXPECT_EQ(EyeControl::getIrisPosition(EyeSide::LEFT, x, y), 0);
  EXPECT_EQ(x, 250);
  EXPECT_EQ(y, -250);
  EXPECT_EQ(EyeControl::Left_Eye.getScaleX(), 2.0f);
  EXPECT_EQ(EyeControl::Left_Eye.getTopLidY(), 30);
  EXPECT_EQ(EyeControl::getIrisPosition(EyeSide::RIGHT, x, y), 0);
  EXPECT_EQ(x, 140);
  EXPECT_EQ(EyeControl::SetEyePosition(false, 300, 0, 1, 1, 0, 240), 0);
  EXPECT_EQ(EyeControl::Right_Eye.getIrisX(), 300);
  EXPECT_EQ(frames(0), 1u);
  EXPECT_EQ(frames(1), 1u);
}

TEST_F(CommandTest, OneSidedIrisPartKeepsTheOffsetsInPlace) {
  EyePart part;
  part.offsetX = -7;
  part.offsetY = 4;
  part.left.AddFrame("", 5, 5, true, true, 0, 0, 0, 255);
  part.right.AddFrame("", 6, 6, true, true, 0, 0, 0, 255);
  EXPECT_EQ(EyeControl::setIris(part, EyeSide::LEFT), 0);
  EXPECT_EQ(EyeControl::Left_Eye.offsetX, 3);
  EXPECT_EQ(EyeControl::Left_Eye.offsetY, -2);
  EXPECT_EQ(EyeControl::default_iris.offsetX, 3);
  EXPECT_EQ(EyeControl::default_iris.right.width, 20);

  EXPECT_EQ(EyeControl::setIris(part, EyeSide::BOTH), 0);
  for (const Eyes* eye : {&EyeControl::Left_Eye, &EyeControl::Right_Eye}) {
    EXPECT_EQ(eye->offsetX, -7);
    EXPECT_EQ(eye->offsetY, 4);
  }
  EXPECT_EQ(EyeControl::default_iris.right.width, 6);
}

TEST_F(CommandTest, ColourCommandsRecordTheChoiceInTheSettings) {
  const Settings defaults;
  Settings& settings = Helper::getSettings();
  settings.defaultIrisShape = 5;
  settings.defaultBackgroundType = 1;
  // The whole default iris is reloaded even for one side.
  EXPECT_EQ(EyeControl::setIris(IrisShape::CLASSIC, ColorCode::RED, EyeSide::LEFT), 0);
  EXPECT_EQ(settings.defaultIrisStyle, "RED");
  EXPECT_EQ(settings.defaultIrisShape, 0);
  EXPECT_EQ(settings.defaultBackgroundStyle, defaults.defaultBackgroundStyle);
  EXPECT_EQ(EyeControl::default_iris.right.width, 10);
  EXPECT_EQ(EyeControl::Right_Eye.offsetX, 3);

  ASSERT_EQ(EyeControl::setBackground(EyeContentType::COLOR, ColorCode::TEAL), 0);
  EXPECT_EQ(settings.defaultBackgroundStyle, "TEAL");
  EXPECT_EQ(settings.defaultBackgroundType, 0);
  EXPECT_EQ(pixel(1, 0, 0), (Rgb{0, 0x88, 0x88}));
  EXPECT_EQ(frames(0), 2u);
  EXPECT_EQ(frames(1), 1u);

  settings = defaults;
  EXPECT_EQ(EyeControl::setBackground(Color{255, 0, 0}), 0);
  EXPECT_EQ(pixel(0, 239, 239), kRed);
  EXPECT_EQ(pixel(1, 0, 0), kRed);
  EXPECT_EQ(settings.defaultBackgroundStyle, defaults.defaultBackgroundStyle);

  settings.defaultIrisShape = 5;
  settings.defaultBackgroundType = 1;
  ASSERT_EQ(EyeControl::setEyes(IrisShape::CLASSIC, ColorCode::RED, ColorCode::NAVY), 0);
  EXPECT_EQ(settings.defaultIrisStyle, "RED");
  EXPECT_EQ(settings.defaultIrisShape, 0);
  EXPECT_EQ(settings.defaultBackgroundStyle, "NAVY");
  EXPECT_EQ(settings.defaultBackgroundType, 0);
  EXPECT_EQ(pixel(0, 0, 0), (Rgb{0, 0, 0x88}));
  EXPECT_EQ(pixel(1, 140, 140), (Rgb{255, 0, 255}));  // offsets of RED are 0
  EXPECT_EQ(EyeControl::Left_Eye.offsetX, 0);
}

TEST_F(CommandTest, SetEyesFailingHalfWayWritesNoSettingsAndDrawsNothing) {
  Settings& settings = Helper::getSettings();
  settings.defaultIrisStyle = "GOLD";
  EXPECT_EQ(EyeControl::setEyes(IrisShape::CLASSIC, ColorCode::PINK, ColorCode::NAVY), -1);
  EXPECT_EQ(settings.defaultIrisStyle, "GOLD");

  EyeControl::background_types.erase(EyeControl::background_types.begin());
  EXPECT_EQ(EyeControl::setEyes(IrisShape::CLASSIC, ColorCode::RED, ColorCode::NAVY), -2);
  EXPECT_EQ(EyeControl::default_iris.left.width, 10);  // already reloaded
  EXPECT_EQ(settings.defaultIrisStyle, "GOLD");
  EXPECT_EQ(settings.defaultBackgroundStyle, "WHITE");
  EXPECT_EQ(frames(0) + frames(1), 0u);
  // The -2 of a missing kind is not passed on by the background command.
  EXPECT_EQ(EyeControl::setBackground(EyeContentType::COLOR, ColorCode::NAVY), -1);
}

TEST_F(CommandTest, LidIndexesSwitchImagesButKeepTheFillColour) {
  ASSERT_EQ(EyeControl::setLid(1, 1, EyeSide::RIGHT), 0);
  const Eyes& eye = EyeControl::Right_Eye;
  EXPECT_EQ(eye.bottomLid, &EyeControl::lid_images[1].content);
  EXPECT_EQ(eye.bottomLidIndex, 1);
  EXPECT_EQ(eye.topLidColor, EyeControl::lid_images[0].color);
  EXPECT_EQ(LcdControl::framesWritten(0), 0u);
}

// --- the robot's own configuration directory ---

constexpr int kNoNamespace = 255;

// Runs in a forked child: a private tmpfs becomes the root, so the fixed paths
// name files this test wrote and nothing of the host is touched. Returns one bit
// per failed check.
int runInPrivateRoot(const std::string& root) {
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", root.c_str(), "tmpfs", 0, nullptr) != 0 || chroot(root.c_str()) != 0 ||
      chdir("/") != 0)
    return kNoNamespace;
  unsetenv("EYE_LCD");
  eyetest::LogCapture log;
  const bool missingReported =
      EyeControl::loadEyeFiles() == -1 &&
      log.count("File:/.tavi/config/eye/eyeanimations.xml NOT EXIST !") == 1;
  writeCatalogue(EyeControl::kConfigDir);
  const bool loaded = EyeControl::loadEyeFiles() == 0 && EyeControl::iris_types.size() == 3;
  const bool imageResolved =
      !EyeControl::lid_images.empty() && EyeControl::lid_images[0].content.width == 240;
  // No iris of style PINK: started all the same.
  const bool started =
      EyeControl::init(ColorCode::PINK, ColorCode::WHITE) == 0 && EyeControl::isActive();
  const bool refused =
      EyeControl::init(IrisShape::CLASSIC, "BLUE", EyeContentType::COLOR, "WHITE") == 1;
  const bool checks[] = {missingReported, loaded, imageResolved, started, refused};
  int failures = 0;
  for (int i = 0; i < 5; ++i) failures |= checks[i] ? 0 : 1 << i;
  return failures;
}

TEST_F(ControlTest, FixedPathsAreTheRobotsConfigurationDirectory) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
  eyetest::TempDir root;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(30);  // a child that hangs is killed, so the wait below ends
    _exit(runInPrivateRoot(root.path().string()));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNoNamespace) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "bits of the failed checks";
  EXPECT_TRUE(fs::is_empty(root.path()));
}

}  // namespace
